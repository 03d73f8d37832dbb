"""The laboratory of the crash rounds: one namespace, bridge and redis-server serve thousands of rounds.

Frequent steps of a round avoid a new process: the kernel is asked by ioctl(2) on a socket of the
namespace, the agent on an operator's session that stays open, Redis on one connection.
"""

import fcntl
import json
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import time

from lab import APP_DB, LOCAL_DB, Lab, p_app, wait_for, within

SIOCGIFFLAGS, SIOCSIFFLAGS, SIOCGIFINDEX = 0x8913, 0x8914, 0x8933
IFF_UP = 1
SHUT_SAVED_AFTER_S = 1.0
LOOP_PORTS = 10  # the capacity of the loop table
OPERATOR_PORTS = 2
POLICY = "loop-detect enable shutdown access-mode"
# Long enough that nothing recovers by itself; in the running configuration it shows that the saved
# one was applied.
MARKER = "loop-detect shutdown-recover-time 100000"
MARK = "loop-detect apply shutdown-port"
PUSHED = "tarn port loop-detect warning"


class Session:
    """An operator's session, without a shell in between."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(str(path))
        self.socket.settimeout(10)
        self.replies = self.socket.makefile("r")

    def close(self):
        self.replies.close()
        self.socket.close()

    def send(self, line, **where):
        """Types a line and does not wait for the answer."""
        self.socket.sendall(json.dumps({"exec": line, **where}).encode() + b"\n")

    def ask(self, line, **where):
        """Types a line and returns the whole answer."""
        self.send(line, **where)
        answer = self.replies.readline()
        if not answer:
            raise ConnectionError(f"the session ended at '{line}'")
        return json.loads(answer)

    def type(self, *lines, **where):
        """Types lines and returns the output of the last; a refusal is an error."""
        output = ""
        for line in lines:
            reply = self.ask(line, **where)
            assert reply["result"] == 0, f"'{line}': {reply}"
            output = reply["output"]
        return output


class RunningConfig:
    """A running configuration, cut into its lines: `globals` and, by port name, `ports`."""

    def __init__(self, text):
        self.globals, self.ports = set(), {}
        for section in re.split(r"^!\n", text, flags=re.MULTILINE):
            lines = section.splitlines()
            for number, line in enumerate(lines):
                if line.startswith("interface "):
                    self.ports[line.split()[1]] = {one.strip() for one in lines[number + 1:]}
                    break
                self.globals.add(line.strip())

    def is_marked(self, port):
        return MARK in self.ports.get(port, ())


class CrashLab(Lab):
    """A Linux switch with ports that loop (`loop_ports`) and ports that only the operator shuts (`operator_ports`).

    `shut_by_operator` says for each of the latter whether the operator wants it shut.
    """

    def __init__(self, slow_sync=False):
        super().__init__(switch="linux", ports=LOOP_PORTS + OPERATOR_PORTS)
        self.loop_ports = self.port_names[:LOOP_PORTS]
        self.operator_ports = self.port_names[LOOP_PORTS:]
        self.shut_by_operator = {port: False for port in self.operator_ports}
        self.session = None
        self.through = self._slow_sync() if slow_sync else ()

    def __enter__(self):
        super().__enter__()
        with within(self.namespace):
            self.kernel = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.start_redis()
        self.records = self.database(APP_DB)
        self.requests = self.database(LOCAL_DB)
        self.start()
        self.wait_ready(first_time=True)
        self.session.type(MARKER)
        self.session.type("write", mode="exec")
        return self

    def __exit__(self, *exception):
        self._close_session()
        self.kernel.close()
        super().__exit__(*exception)

    def _slow_sync(self):
        library = self.folder / "slow_sync.so"
        source = os.path.join(os.path.dirname(__file__), "..", "..", "support", "slow_sync.c")
        subprocess.run(["cc", "-shared", "-fPIC", "-O2", "-o", str(library), source, "-ldl"], check=True)
        return ("env", f"LD_PRELOAD={library}")

    # ---- kernel ----

    def _interface(self, request, name, value=0):
        packed = struct.pack("16si20x", name.encode(), value)
        return struct.unpack("16si20x", fcntl.ioctl(self.kernel, request, packed))[1]

    def is_up(self, name):
        return bool(self._interface(SIOCGIFFLAGS, name) & IFF_UP)

    def set_up(self, name):
        self._interface(SIOCSIFFLAGS, name, self._interface(SIOCGIFFLAGS, name) & 0x7FFF | IFF_UP)

    def wait_down(self, ports):
        wait_for(lambda: not any(self.is_up(port) for port in ports), 10, "the ports are down", every=0.002)

    def ifindex(self, name):
        return self._interface(SIOCGIFINDEX, name)

    # ---- records ----

    def forget_loops(self):
        """Removes all records unseen: the agent then finds no loop any more."""
        keys = self.records.keys("p_bridge.tarn_loop_info/*")
        if keys:
            self.records.delete(*keys)

    def request_policy(self, policy):
        record = p_app.lda_nc_policy(loop_policy_cli=policy)
        record.rst.index.type = 2
        self.requests.publish(f"mom/{LOCAL_DB}/p_app.lda_nc_policy", b"\x00" + record.SerializeToString())

    # ---- agent ----

    def start(self):
        self.start_agent(wait=False, through=self.through)

    def kill(self, how=signal.SIGKILL):
        """Ends the agent; AssertionError when the signal does not."""
        self._close_session()
        self.agent.send_signal(how)
        try:
            self.agent.wait(timeout=10)
        except subprocess.TimeoutExpired as late:
            raise AssertionError(f"{signal.Signals(how).name} has not ended the agent: {self._threads()}") from late
        self.agent = None

    def _threads(self):
        """The state of each thread of the agent: name, state, and where it waits in the kernel."""
        found = []
        for task in pathlib.Path(f"/proc/{self.agent.pid}/task").iterdir():
            state = (task / "status").read_text().splitlines()[2].split()[1]
            found.append(f"{(task / 'comm').read_text().strip()} {state} {(task / 'wchan').read_text()}")
        return ", ".join(found)

    def _close_session(self):
        if self.session:
            self.session.close()
            self.session = None

    def running(self):
        return RunningConfig(self.session.type("show running-config", mode="exec"))

    def delivered(self):
        """State and processor time of the delivery thread: idle when both are the same twice, and the state is
        "S"."""
        for task in pathlib.Path(f"/proc/{self.agent.pid}/task").iterdir():
            if (task / "comm").read_text() == "lda_cli_deliver\n":
                return (task / "stat").read_text().split()[2], (task / "schedstat").read_text().split()[0]
        return None, None

    def wait_ready(self, first_time=False):
        """Waits until the agent takes commands and has replayed the saved configuration."""
        def ready():
            assert self.agent.poll() is None, f"the agent has ended with status {self.agent.returncode}"
            try:
                if not self.session:
                    self.session = Session(self.cli_socket)
                    self.session.type("configure terminal")
                if first_time:
                    return self.session.ask("write", mode="exec")["result"] == 0
                return MARKER in self.running().globals
            except (ConnectionError, FileNotFoundError):
                self._close_session()
                return False
        wait_for(ready, 10, "the saved configuration is in force", every=0.003)

    def reset(self, policy=POLICY, settled=True):
        """No loops, the ports as the operator wants them, `policy` set and, if `settled`, pushed and saved."""
        self.forget_loops()
        self.session.type("no loop-detect enable")
        deadline = time.monotonic() + 0.2
        while time.monotonic() < deadline and not all(self.is_up(port) for port in self.loop_ports):
            time.sleep(0.002)
        for port in self.loop_ports:
            if not self.is_up(port):
                self.session.type(f"interface {port}", "no shutdown", "exit")
        for port, shut in self.shut_by_operator.items():
            if self.is_up(port) == shut:
                self.set_operator_shut(port, shut)
        self.session.type(policy)
        if settled:
            wait_for(lambda: all(PUSHED in self.running().ports.get(port, ()) for port in self.port_names), 10,
                     "detection is pushed to all ports", every=0.003)
            self.session.type("write", mode="exec")

    def set_operator_shut(self, port, shut):
        """The operator shuts a port, or brings it up; returns when the next agent must know that."""
        self.session.type(f"interface {port}", "shutdown" if shut else "no shutdown", "exit")
        self.shut_by_operator[port] = shut
        time.sleep(SHUT_SAVED_AFTER_S)
