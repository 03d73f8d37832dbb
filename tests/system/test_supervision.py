"""The agent's reports to a supervisor, and the agent as an ordinary user."""

import os
import signal
import socket

import pytest

from lab import Lab, wait_for

NOBODY = "65534"


class Supervisor:
    """A socket in place of systemd."""

    def __init__(self, folder):
        self.path = folder / "notify"
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(str(self.path))
        self.socket.setblocking(False)
        self.messages = []

    def through(self, *more):
        return ["env", f"NOTIFY_SOCKET={self.path}", *more]

    def heard(self, text):
        while True:
            try:
                self.messages.append(self.socket.recv(4096).decode())
            except BlockingIOError:
                return text in self.messages


def test_ready_is_sent_once_the_configuration_is_applied():
    with Lab() as lab:
        supervisor = Supervisor(lab.folder)
        lab.startup_config.write_text("loop-detect enable\nend\n")
        lab.start_agent(wait=False, through=supervisor.through())
        wait_for(lambda: supervisor.heard("READY=1\nSTATUS=running"), 20, "the agent is ready")
        assert "loop-detect enable\n" in lab.cli("show running-config")
        assert [text for text in supervisor.messages if "READY" in text] == ["READY=1\nSTATUS=running"]


def test_status_names_the_disconnected_databases():
    with Lab(store="redis") as lab:
        supervisor = Supervisor(lab.folder)
        lab.start_agent(wait=False, through=supervisor.through())
        wait_for(lambda: supervisor.heard("STATUS=waiting for databases 3, 4, 8, 22"), 20, "all databases are missing")
        assert not any("READY" in text for text in supervisor.messages)
        lab.start_redis()
        wait_for(lambda: supervisor.heard("READY=1\nSTATUS=running"), 20, "the agent is ready")
        lab.kill_redis()
        supervisor.messages.clear()
        wait_for(lambda: supervisor.heard("STATUS=waiting for databases 3, 4, 8, 22"), 20, "they are missing again")


def test_watchdog_is_fed_only_while_the_loop_runs():
    with Lab() as lab:
        supervisor = Supervisor(lab.folder)
        # The socket holds only a few unread messages: without a reader the agent would wait.
        lab.start_agent(wait=False, through=supervisor.through("WATCHDOG_USEC=200000"))
        for _ in range(3):
            supervisor.messages.clear()
            wait_for(lambda: supervisor.heard("WATCHDOG=1"), 10, "the watchdog is fed")
        lab.agent.send_signal(signal.SIGSTOP)
        supervisor.heard("")
        supervisor.socket.settimeout(0.5)
        with pytest.raises(TimeoutError):
            supervisor.socket.recv(4096)
        supervisor.socket.setblocking(False)
        supervisor.messages.clear()
        lab.agent.send_signal(signal.SIGCONT)
        wait_for(lambda: supervisor.heard("WATCHDOG=1"), 10, "the watchdog is fed again")


def test_standby_is_ready_and_reports_its_role():
    with Lab() as lab:
        lab.write_platform_file('[role]\nmode = "lease"\n')
        lab.start_agent()
        master = lab.agent
        supervisor = Supervisor(lab.folder)
        lab.start_agent(wait=False, through=supervisor.through())
        wait_for(lambda: supervisor.heard("READY=1\nSTATUS=standing by for the master"), 20, "the standby is ready")
        master.kill()
        master.wait()
        wait_for(lambda: supervisor.heard("READY=1\nSTATUS=running"), 20, "the standby has taken over")


@pytest.fixture
def kernel_lab(kernel_ports):
    with Lab(switch="linux") as lab:
        yield lab


def test_agent_needs_only_the_network_administration_capability(kernel_lab):
    """The packaged agent runs as its own user; here as nobody, with the one capability."""
    lab = kernel_lab
    lab.start_redis()
    os.chmod(lab.redis_socket, 0o777)
    os.chown(lab.folder, int(NOBODY), int(NOBODY))
    run_folder = lab.folder / "run"
    run_folder.mkdir()
    os.chown(run_folder, int(NOBODY), int(NOBODY))
    # Locks are in a folder of the machine, which the package gives to this user.
    lab.start_agent(through=["unshare", "--mount", "sh", "-c",
                             f'mkdir -p /run/lda && mount --bind {run_folder} /run/lda && exec "$@"', "sh",
                             "setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups",
                             "--inh-caps=-all,+net_admin", "--ambient-caps=-all,+net_admin",
                             "--bounding-set=-all,+net_admin", "--no-new-privs"])
    lab.configure("loop-detect enable shutdown access-mode")
    wait_for(lambda: "table netdev" in lab.inside("nft", "list", "ruleset"), 20, "storms are watched")
    lab.report_loop("swp1", True)
    wait_for(lambda: lab.down_ports() == ["swp1"], 20, "the looped port is shut")
    wait_for(lambda: "loop-detect apply shutdown-port" in lab.saved(), 20, "the configuration is saved")
    assert lab.agent.poll() is None
