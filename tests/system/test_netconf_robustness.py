"""Many NETCONF sessions, idle sessions, and misbehaving sessions."""

import concurrent.futures
import ctypes
import gc
import getpass
import os
import pathlib
import platform
import re
import signal
import sys
import tempfile
import time

import pytest
from lab import APP_DB, Lab, wait_for
from netconf_lab import BASE, EVENT, PROGRAM, Front, RawSession, policy_config, running_front

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "fuzz"))
import netconf_fuzz  # noqa: E402

RANDOM_INPUTS = 150
CYCLES = 1000
CYCLES_THROUGH_SSHD = 25
USER = getpass.getuser()
TGKILL = {"x86_64": 234, "aarch64": 131}[platform.machine()]  # system call number


@pytest.fixture(scope="module")
def front():
    with running_front(speed=60) as the_front:
        with the_front.connect() as session:  # the agent opens its files at the first change
            session.edit_config(target="running", config=policy_config(1))
        yield the_front


def processes():
    """The running sessions, by process number."""
    found = []
    for folder in pathlib.Path("/proc").iterdir():
        try:
            if folder.name.isdigit() and os.readlink(folder / "exe") == str(PROGRAM.resolve()):
                found.append(int(folder.name))
        except OSError:  # ended meanwhile, or another user's
            continue
    return found


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def leftovers(front):
    """Things that sessions could leave behind: processes, descriptors of others, clients of the database."""
    gc.collect()  # this process's clients are closed with their objects
    clients = front.lab.database(0).info("clients")["connected_clients"]
    return (len(processes()), descriptors(front.lab.agent.pid), descriptors(front.sshd.pid), clients)


def leftovers_without_sessions(front):
    """The same when the sessions of earlier tests have ended."""
    wait_for(lambda: leftovers(front)[0] == 0, 10, "earlier sessions have ended")
    return leftovers(front)


def wait_until_clean(front, before):
    try:
        wait_for(lambda: leftovers(front) == before, 10, "nothing is left behind")
    except AssertionError:
        assert leftovers(front) == before


def test_thirty_sessions_at_once(front):
    before = leftovers_without_sessions(front)

    def one_session(number):
        with front.connect() as session:
            session.create_subscription()
            ready.append(number)
            wait_for(lambda: len(ready) == 30, 60, "all sessions are there")
            assert session.edit_config(target="running", config=policy_config(1)).ok
            assert session.get_config("running").ok
            done.append(number)
            wait_for(lambda: len(done) == 30, 60, "all sessions have edited")
            heard = session.take_notification(timeout=30)
            return int(session.session_id), heard.notification_xml

    def raise_loop():
        wait_for(lambda: len(done) == 30, 90, "all sessions have edited")
        assert len(processes()) == before[0] + 30
        front.lab.report_loop(2, is_loop=1)

    ready, done = [], []
    with concurrent.futures.ThreadPoolExecutor(31) as pool:
        loop = pool.submit(raise_loop)
        results = list(pool.map(one_session, range(30)))
        loop.result()
    assert len({number for number, _ in results}) == 30
    assert len({text for _, text in results}) == 1
    wait_until_clean(front, before)
    front.lab.report_loop(2, is_loop=0)
    wait_for(lambda: not front.lab.database(APP_DB).keys("p_app.lda_loop_entry/*"), 20, "the loop is cleared")


def test_closed_sessions_leak_nothing(front):
    """Most of them start the program directly: the handshake of SSH would take minutes."""
    before = leftovers_without_sessions(front)

    def cycle(number):
        with front.raw() as session:
            if number % 3 == 0:
                session.rpc(f'<create-subscription xmlns="{EVENT}"/>')
            elif number % 3 == 1:
                session.rpc("<lock><target><running/></target></lock>")
            if number % 2 == 0:
                assert "<ok/>" in session.rpc("<close-session/>")
            else:
                session.process.stdin.close()
            assert session.process.wait(timeout=20) == 0

    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        assert len(list(pool.map(cycle, range(CYCLES)))) == CYCLES
    for _ in range(CYCLES_THROUGH_SSHD):
        with front.connect() as session:
            session.get_config("running")
    wait_until_clean(front, before)
    assert {path.name for path in front.runtime.glob("*")} == {"sessions", "edit.lock", "running.lock"}
    with front.connect() as session:
        assert session.lock("running").ok


def test_disconnected_client_leaks_nothing(front):
    before = leftovers_without_sessions(front)
    with front.connect() as session:
        session.create_subscription()
        session.lock("running")
        session._session._transport.close()
        wait_until_clean(front, before)


def status_of(pid, name):
    text = pathlib.Path(f"/proc/{pid}/status").read_text()
    return int(text.split(f"{name}:")[1].split()[0])


def switches_of(pid):
    """How often the threads of a process went to sleep."""
    return sum(status_of(f"{pid}/task/{task}", "voluntary_ctxt_switches") for task in os.listdir(f"/proc/{pid}/task"))


def cpu_seconds_of(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def test_idle_session_sleeps_and_is_small(front):
    with front.raw() as session:
        session.rpc("<get/>")
        session.rpc(f'<create-subscription xmlns="{EVENT}"/>')
        pid = session.process.pid
        switches, cpu = switches_of(pid), cpu_seconds_of(pid)
        time.sleep(5)
        assert switches_of(pid) - switches <= 5
        assert cpu_seconds_of(pid) - cpu <= 0.01
        assert status_of(pid, "VmRSS") <= 20 * 1024


def test_session_without_a_database_sleeps():
    with Lab(store="redis") as lab:
        lab.start_redis()
        with Front(lab) as own_front, own_front.raw() as session:
            session.rpc(f'<create-subscription xmlns="{EVENT}"/>')
            lab.kill_redis()
            pid = session.process.pid
            wait_for(lambda: "notifications pause" in own_front.log(), 5, "the loss is noticed")
            switches, cpu = switches_of(pid), cpu_seconds_of(pid)
            time.sleep(2)
            assert switches_of(pid) - switches <= 12
            assert cpu_seconds_of(pid) - cpu <= 0.1


def test_session_limits_itself(front):
    with front.raw() as session:
        session.rpc("<get-config><source><running/></source></get-config>")
        pid = session.process.pid
        limits = dict(re.findall(r"(Max .*?)  +([0-9]+ +[0-9]+) ", pathlib.Path(f"/proc/{pid}/limits").read_text()))
        assert limits["Max data size"].split() == [str(128 * 1024 * 1024)] * 2
        assert limits["Max core file size"].split() == ["0", "0"]
        status = pathlib.Path(f"/proc/{pid}/status").read_text()
        assert re.search(r"Umask:\s+(\d+)", status).group(1) == "0007"
        ignored = int(re.search(r"SigIgn:\s+([0-9a-f]+)", status).group(1), 16)
        assert ignored >> (signal.SIGPIPE - 1) & 1


def test_name_from_a_client_is_logged_as_ascii(front):
    with front.raw(hello=False) as session:
        session.send(f'<hello xmlns="{BASE}"><c\u00f6ps\u3042><a/></c\u00f6ps\u3042></hello>]]>]]>'.encode())
        assert session.process.wait(timeout=20) == 1
        lines = [line for line in front.log().splitlines() if f"session {session.session_id} (" in line]
    assert lines[-2].endswith("): Unexpected <c??ps???> element in client <hello>.")
    assert lines[-1].endswith("): ended: the client's hello is invalid")


def test_session_in_the_middle_of_a_message_sleeps(front):
    with front.raw() as session:
        session.rpc("<get/>")
        session.send(b"\n#100\n<rpc")
        pid = session.process.pid
        time.sleep(0.2)
        switches = switches_of(pid)
        time.sleep(2)
        assert switches_of(pid) - switches <= 2


def test_hostile_input_ends_its_own_session_only(front):
    with front.raw() as witness:
        witness.rpc(f'<create-subscription xmlns="{EVENT}"/>')
        target = netconf_fuzz.Target(front.command())
        assert netconf_fuzz.attack(target, RANDOM_INPUTS, seed=1) == []
        assert front.lab.agent.poll() is None
        # Successful edits have changed the policy, and may have notified of ports.
        front.lab.configure("loop-detect enable")
        started = time.monotonic()
        front.lab.report_loop(4, is_loop=1)
        witness.request("<get-config><source><running/></source></get-config>")
        heard = ""
        while "<rpc-reply" not in heard or "<name>swp4</name><notify-type>1<" not in heard:
            heard += witness.read(timeout=2)
        assert time.monotonic() - started < 2
    assert front.lab.cli_status("show loop-detect") == 0


HELLO = (f'<hello xmlns="{BASE}"><capabilities><capability>urn:ietf:params:netconf:base:%s</capability></capabilities>'
         "%s</hello>]]>]]>")


def test_base_1_0_client_gets_base_1_0_framing(front):
    with front.raw(hello=False) as session:
        session.send((HELLO % ("1.0", "")).encode())
        for _ in range(2):
            session.send(f'<rpc xmlns="{BASE}" message-id="1"><get-config><source><running/></source>'
                         "</get-config></rpc>]]>]]>".encode())
            assert session.message_of_the_first_version().startswith(f'<rpc-reply xmlns="{BASE}" message-id="1"><data>')


@pytest.mark.parametrize("version, more", [("2.0", ""), ("1.1", "<session-id>7</session-id>")])
def test_invalid_hello_ends_the_session(front, version, more):
    with front.raw(hello=False) as session:
        session.send((HELLO % (version, more)).encode())
        assert session.process.wait(timeout=20) == 1
        assert front.log().splitlines()[-1].endswith("ended: the client's hello is invalid")


def test_unterminated_hello_ends_the_session(front):
    with front.raw(hello=False) as session:
        session.send(b"x" * (64 * 1024 + 6))
        assert session.process.wait(timeout=20) == 1
        assert front.log().splitlines()[-1].endswith("ended: a message is longer than 64 KiB")


@pytest.mark.parametrize("sent, logged", [
    (b"\n#x\n", "ended: the framing is broken: no chunk begins where one should"),
    (b"\n#3x\n", "ended: the framing is broken: the size of a chunk is not a number"),
    (b"\n##\n", "ended: a message has no chunk"),
    (b"\n#1\n \n##\n", "ended: a message is empty or holds a zero byte"),
    (b"\n#100000\n", "ended: a message is longer than 64 KiB"),
])
def test_broken_frame_ends_the_session_with_its_reason(front, sent, logged):
    with front.raw() as session:
        session.rpc("<get/>")
        session.send(sent)
        assert session.process.wait(timeout=20) == 1
        assert f"session {session.session_id} (" in front.log()
        assert front.log().splitlines()[-1].endswith(logged)


@pytest.mark.skipif(os.geteuid() != 0, reason="needs root to run a session as another user")
def test_session_of_another_user_cannot_be_killed(front, tmp_path):
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o750)
        program = [PROGRAM, "--redis", "/nowhere", "--runtime", f"{folder}/run", "--stderr"]
        as_nobody = ["setpriv", "--reuid=65534", "--regid=0", "--clear-groups"]
        log = tmp_path / "log"
        with RawSession(program, log) as roots, RawSession(as_nobody + program, log) as other:
            kill = "<kill-session><session-id>{}</session-id></kill-session>"
            reply = other.rpc(kill.format(roots.session_id))
            assert "<error-tag>access-denied</error-tag>" in reply
            assert "<ok/>" in other.rpc("<lock><target><running/></target></lock>")
            assert f"<session-id>{other.session_id}</session-id>" in roots.rpc(
                "<lock><target><running/></target></lock>")
            assert "<ok/>" in roots.rpc(kill.format(other.session_id))
            assert "<ok/>" in roots.rpc("<lock><target><running/></target></lock>")


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP, signal.SIGINT])
def test_session_ended_by_a_signal_logs_it(front, number):
    with front.raw() as session:
        session.rpc("<get/>")
        session.process.send_signal(number)
        assert session.process.wait(timeout=20) == 0
        assert front.log().splitlines()[-1].endswith(f"session {session.session_id} ({USER}): terminated from outside")


def test_crash_of_the_reading_thread_is_logged(front):
    """A signal to only that thread, as a crash in it would raise."""
    with front.raw() as session:
        session.rpc("<get/>")
        pid = session.process.pid
        reader = next(int(task) for task in os.listdir(f"/proc/{pid}/task") if int(task) != pid)
        assert ctypes.CDLL(None).syscall(TGKILL, pid, reader, signal.SIGSEGV) == 0
        assert session.process.wait(timeout=20) == 1
        assert front.log().splitlines()[-1].endswith("ended: a message broke the parser (memory)")


def test_session_ends_when_its_client_closes_the_pipe(front):
    """Its session ends without a request or a notification."""
    with front.raw() as session:
        session.rpc(f'<create-subscription xmlns="{EVENT}"/>')
        session.process.stdout.close()
        assert session.process.wait(timeout=20) == 0
        assert front.log().splitlines()[-1].endswith("ended: the client went away")


def test_input_that_ends_within_a_message_is_logged(front):
    with front.raw() as session:
        session.send(b"\n#10\n<rpc")
        session.process.stdin.close()
        assert session.process.wait(timeout=20) == 1
    assert front.log().splitlines()[-1].endswith("ended: the input ends within a message")


def test_malformed_request_is_answered_or_ends_the_session(front):
    with front.raw() as session:
        assert "<rpc-error>" in session.rpc("<no-such-operation/>")
        assert "<rpc-error>" in session.rpc("<get><unknown/></get>")
        assert "<rpc-reply" in session.rpc("<get/>")
