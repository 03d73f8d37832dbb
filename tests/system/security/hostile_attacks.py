"""The attackers of hostile rounds. Each acts until `over` is set or its work is done, leaves nothing open, and returns
the problems that it has seen."""

import contextlib
import json
import os
import resource
import signal
import socket
import subprocess
import sys
import time
import xml.etree.ElementTree as ElementTree

import redis

from hostile_lab import ANN, EVE, FILES, LOCK, UNLOCK, as_user, edit, signal_session
from lab import APP_DB, CFG_DB, LOCAL_DB, within
from netconf_lab import BASE, EVENT, LOOP_DETECT
from storm_lab import Program

NO_SESSION = (EOFError, OSError, TimeoutError, AttributeError)  # the last one: no session-id in the hello
MOST_SESSIONS = 300
UMASKS = ("0022", "0000", "0777")
SHELLS = 150
FLOOD_ADDRESSES = 20_000

MONITORING = '<get><filter><netconf-state xmlns="urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring"/></filter></get>'
LONG_AGO = "2020-01-01T00:00:00Z"
EXPENSIVE = "//*[//*[//*[//*]]]"
REQUESTS = [
    LOCK, UNLOCK, edit(0), edit(1), edit(2), edit(4), edit(99), "<get/>", MONITORING,
    "<get-config><source><running/></source></get-config>",
    f'<get><filter type="subtree">{LOOP_DETECT}</filter></get>',
    f'<get><filter type="xpath" select="{EXPENSIVE}"/></get>', '<get><filter type="xpath" select="//*[1]"/></get>',
    '<get><filter type="xpath" select="' + "|".join(["//*"] * 300) + '"/></get>',
    f'<create-subscription xmlns="{EVENT}"/>',
    f'<create-subscription xmlns="{EVENT}"><startTime>{LONG_AGO}</startTime></create-subscription>',
    f'<create-subscription xmlns="{EVENT}"><startTime>{LONG_AGO}</startTime><stopTime>2026-01-01T00:00:00Z</stopTime>'
    "</create-subscription>",
    "<nonsense/>", "", f"<get><filter>{'<a>' * 500}{'</a>' * 500}</filter></get>",
    '<kill-session><session-id>4294967295</session-id></kill-session>', "<close-session/>",
]
FRAMES = [b"\n#0\n", b"\n#99999999999\n", b"\n##\n", b"]]>]]>", b"\0\x1b]0;x\x07" * 50, b"\n#10\n<rpc",
          b"\n#4\n\x1b\x9b\x07\0\n##\n",
          f'<rpc xmlns="{BASE}" message-id="\x1b[2J"><get/></rpc>'.encode()]


def is_document(text):
    with contextlib.suppress(ElementTree.ParseError):
        ElementTree.fromstring(text)
        return True
    return False


# ---- NETCONF ----

def cut(session, draw):
    """Ends a session, or leaves that to its closing."""
    how = draw.choice((signal.SIGKILL, signal.SIGTERM, signal.SIGHUP, None, None))
    if how:
        signal_session(session.process.pid, how)
    elif draw.random() < 0.5:
        session.process.stdin.close()


def starve(session, draw):
    """Takes descriptors or memory from a session."""
    kind, most = draw.choice(((resource.RLIMIT_NOFILE, draw.randint(3, 12)),
                              (resource.RLIMIT_AS, draw.randint(20, 200) << 20)))
    with contextlib.suppress(OSError, ValueError):
        resource.prlimit(session.process.pid, kind, (most, most))


def client(lab, draw, over):
    """A user with sessions one after the other, and all kinds of requests."""
    problems = []
    while not over.is_set():
        with contextlib.suppress(*NO_SESSION), lab.session(draw.choice((0, ANN, EVE)), draw.choice(UMASKS)) as session:
            for _ in range(draw.randint(1, 8)):
                request = draw.choice(REQUESTS)
                if draw.random() < 0.3:
                    session.request(request)
                    continue
                reply = session.rpc(request, timeout=10)
                if not is_document(reply):
                    problems.append(f"the reply to {request} is {reply}")
            if draw.random() < 0.3:
                session.send(draw.choice(FRAMES))
            cut(session, draw)
    return problems


def ssh_client(lab, draw, over):
    """A session through sshd whose ssh is killed sooner or later."""
    while not over.is_set():
        with contextlib.suppress(*NO_SESSION), lab.session_through_sshd() as session:
            for _ in range(draw.randint(0, 3)):
                session.request(draw.choice(REQUESTS))
            time.sleep(draw.uniform(0, 0.2))
            cut(session, draw)


def starved_client(lab, draw, over):
    while not over.is_set():
        with contextlib.suppress(*NO_SESSION), lab.session(draw.choice((0, EVE))) as session:
            lab.starved.add(session.process.pid)
            starve(session, draw)
            for _ in range(draw.randint(1, 4)):
                session.rpc(draw.choice(REQUESTS), timeout=3)


def stopped_client(lab, draw, over):
    """A session that has the lock, is stopped in the middle of a request, and is killed by root."""
    with contextlib.suppress(*NO_SESSION), lab.session(draw.choice((ANN, EVE))) as session:
        session.rpc(LOCK, timeout=3)
        session.request(draw.choice(REQUESTS))
        time.sleep(draw.uniform(0, 0.1))
        signal_session(session.process.pid, signal.SIGSTOP)
        over.wait(draw.uniform(0, 2))
        with lab.session(0) as roots:
            roots.rpc(f"<kill-session><session-id>{session.session_id}</session-id></kill-session>", timeout=5)


def killer(lab, draw, over):
    """Kills the sessions of the others, by number."""
    while not over.is_set():
        with contextlib.suppress(*NO_SESSION), lab.session(draw.choice((0, EVE))) as session:
            for _ in range(20):
                session.rpc(f"<kill-session><session-id>{draw.randint(1, 255)}</session-id></kill-session>", timeout=5)


def crowd(lab, draw, over):
    """Many sessions that are opened at once and cut in random order."""
    count = int(MOST_SESSIONS * draw.random() ** 2) + 1
    command = as_user(draw.choice((0, EVE)), *map(str, lab.front.command()))
    running = []
    with open(lab.front.log_file, "ab") as errors:
        for _ in range(count):
            if over.is_set():
                break
            running.append(subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=errors))
    draw.shuffle(running)
    for process in running:
        if draw.random() < 0.5:
            process.send_signal(draw.choice((signal.SIGKILL, signal.SIGTERM)))
        else:
            process.stdin.close()
    for process in running:
        process.stdin.close()
        with contextlib.suppress(subprocess.TimeoutExpired):
            process.wait(20)
        process.kill()
        process.wait()


# ---- Files of the sessions ----

HOLD = """
import fcntl, os, sys, time
held = os.open(sys.argv[1], os.O_RDWR)
fcntl.lockf(held, fcntl.LOCK_EX, int(sys.argv[2]), int(sys.argv[3]))
print("held", flush=True)
time.sleep(60)
"""
PLANTS = ["mkdir {0}", "mkfifo {0}", "ln -s /etc/shadow {0}", "ln -s {0} {0}", "echo 1 >{0}; chmod 600 {0}",
          "truncate -s 1T {0}", "truncate -s 0 {0}", "head -c 100000 /dev/urandom >{0}", "printf '7 \\033[2J eve' >{0}",
          "rm -rf {0}", "mv {0} other", "chmod 000 {0}"]


def holder(lab, draw, over):
    """A foreign program that locks bytes of the sessions' files, and is stopped."""
    file = lab.netconf_runtime / draw.choice(FILES)
    count, first = draw.choice((0, 1, 16, 255)), draw.randint(0, 255)
    words = as_user(EVE, sys.executable, "-c", HOLD, str(file), str(count), str(first))
    with Program(*words, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) as held:
        held.process.stdout.readline()
        held.process.send_signal(signal.SIGSTOP)
        over.wait(5)
        held.process.stdout.close()


def planter(lab, draw, over):
    while not over.is_set():
        name = draw.choice((*FILES, *FILES, "session-1", "sessions.foreign-1"))
        with contextlib.suppress(OSError, subprocess.TimeoutExpired):  # a pipe blocks
            subprocess.run(as_user(EVE, "sh", "-c", draw.choice(PLANTS).format(name)), cwd=lab.netconf_runtime,
                           stderr=subprocess.DEVNULL, stdout=subprocess.DEVNULL, check=False, timeout=0.5)


# ---- The shell's socket ----

LINES = ["show loop-detect", "show running-config", "show tech-support", "show logging", "disable", "enable",
         "configure terminal", "configure exclusive", "interface swp3", "exit", "end", "hostname x\x1b[2J", "write",
         "loop-detect enable shutdown access-mode", "show interfaces status | json", "show \u009b2J", "x" * 5000,
         "do " * 300 + "show users", "clear configure lock", "show netconf\0", "terminal length 5", "?", "sh\t"]


def shell_request(draw):
    request = {"exec": draw.choice(LINES)}
    if draw.random() < 0.4:
        request["mode"] = draw.choice(("exec", "config", "interface", "\x1b", "", "x" * 1000))
        request["ifx"] = draw.choice((0, -1, 1, 2**32 + 1, 2**70, 1e300, None, "1", [], {}))
    if draw.random() < 0.2:
        key = draw.choice(("complete", "help", "width", "nonsense", "exec\0"))
        request[key] = draw.choice((1, "", None, [[]], "\x1b"))
    return request


def shell(lab, draw, over):
    """Raw requests: valid ones, parts, garbage, endless lines; some are never read."""
    while not over.is_set():
        with contextlib.suppress(OSError), socket.socket(socket.AF_UNIX) as link:
            link.settimeout(2)
            link.connect(str(lab.cli_socket))
            reads = draw.random() < 0.7
            for _ in range(draw.randint(1, 30)):
                text = json.dumps(shell_request(draw)).encode() + b"\n"
                kind = draw.random()
                if kind < 0.05:
                    text = b"[" * draw.choice((100, 100_000)) + b"\n"
                elif kind < 0.1:
                    text = draw.randbytes(200) + b"\n"
                elif kind < 0.13:
                    text = b"x" * (1 << 20)
                elif kind < 0.2:
                    text = text[:draw.randrange(len(text))]
                link.sendall(text)
                if reads:
                    link.recv(65536)
        over.wait(0.01)


def many_shells(lab, draw, over):
    """More connections than there may be, with parts of requests, cut in random order."""
    with contextlib.ExitStack() as opened:
        links = []
        for _ in range(SHELLS):
            link = opened.enter_context(socket.socket(socket.AF_UNIX))
            link.settimeout(0.5)
            with contextlib.suppress(OSError):
                link.connect(str(lab.cli_socket))
                link.sendall(json.dumps(shell_request(draw)).encode()[:draw.randint(1, 60)])
            links.append(link)
        over.wait(1)
        draw.shuffle(links)
        for link in links:
            link.close()


def probe_service(lab, draw, over):
    """Raw requests to the control socket of the probe service."""
    while not over.is_set():
        with contextlib.suppress(OSError), socket.socket(socket.AF_UNIX) as link:
            link.settimeout(1)
            link.connect(str(lab.folder / "tarn" / "control"))
            for _ in range(draw.randint(1, 20)):
                wanted = draw.choice(("show", "counters", "watch", "probe", "\x1b", None, [1]))
                request = {draw.choice(("do", "do", "do", "\x1b")): wanted,
                           "port": draw.choice(("swp1", "swp3", "\x1b[2J", "", "x" * 100, 7, None, {}))}
                text = json.dumps(request).encode() + b"\n"
                link.sendall(draw.choice((text, text, text, b"{" * 3000, draw.randbytes(50) + b"\n", text[:-3])))
                if draw.random() < 0.5:
                    link.recv(65536)
        over.wait(0.01)


# ---- Records ----

TYPES = [(APP_DB, "p_bridge.tarn_loop_info"), (APP_DB, "p_bridge.tarn_port_state"), (APP_DB, "p_bridge.tarn_counters"),
         (APP_DB, "p_app.lda_loop_entry"), (LOCAL_DB, "p_app.lda_nc_policy"), (LOCAL_DB, "p_nc.held_question"),
         (LOCAL_DB, "p_nc.held_answer"), (LOCAL_DB, "p_nc.notification"), (LOCAL_DB, "p_mng.ui_operate"),
         (LOCAL_DB, "p_nc.kept_notification"), (LOCAL_DB, "p_nc.notification_log"), (CFG_DB, "p_bridge.tarn_config"),
         (CFG_DB, "p_bridge.tarn_port"), (CFG_DB, "p_app.lda_nc_policy")]
KEYS = ["ifx=99999", "name=\x1b[2J", "x" * 3000, "ifx=-1"]


def payload(draw):
    kind = draw.random()
    if kind < 0.2:
        return draw.randbytes(draw.choice((65_536, 70_000, 500_000)))
    if kind < 0.4:
        return b"\x0a\x02\x08\x07" * draw.randint(1, 5000)  # a repeated message
    if kind < 0.6:
        return b"\x0a\x0a\x12\x08e\x1b[2J\xc2\x9b"  # an index with a name
    return draw.randbytes(draw.randint(0, 60))


def writer(lab, draw, over):
    """Records and notices that mean nothing, under keys with control characters, too."""
    left = []
    while not over.is_set():
        try:
            with lab.database(0) as database:
                for _ in range(50):
                    number, kind = draw.choice(TYPES)
                    database.publish(f"mom/{number}/{kind}", bytes([draw.randint(0, 3)]) + payload(draw))
                number, kind = draw.choice(TYPES)
                key = f"{kind}/{draw.choice(KEYS)}"
                left.append((number, key))
                lab.database(number).set(key, payload(draw)[:70_000])
        except redis.exceptions.RedisError:
            pass
        over.wait(0.05)
    for number, key in left:
        with contextlib.suppress(redis.exceptions.RedisError):
            lab.database(number).delete(key)


# ---- Frames ----

def addresses(lab, draw, over):
    """A station that invents source addresses."""
    seed = draw.randrange(1 << 16).to_bytes(2, "big")
    with contextlib.suppress(OSError), within(lab.namespace), socket.socket(socket.AF_PACKET, socket.SOCK_RAW) as link:
        link.bind((f"{lab.port_names[-1]}-far", 0))
        for number in range(FLOOD_ADDRESSES):
            if over.is_set():
                break
            link.send(b"\xff" * 6 + b"\x02" + seed + number.to_bytes(3, "big") + b"\x88\xb6" + bytes(46))
            if number % 100 == 0:
                time.sleep(0.002)
    lab.inside("bridge", "fdb", "flush", "dev", "br0")


ATTACKS = {
    "client": client, "ssh-client": ssh_client, "starved-client": starved_client, "stopped-client": stopped_client,
    "killer": killer, "crowd": crowd, "holder": holder, "planter": planter, "shell": shell, "many-shells": many_shells,
    "probe-service": probe_service, "writer": writer,
    "addresses": addresses,
}
