"""A switch for hostile rounds: users with few rights, a small disk, a wall clock that can be moved, and an sshd."""

import contextlib
import fcntl
import os
import pathlib
import shutil
import signal
import struct
import tempfile

from acl_lab import PROGRAMS, AclFront, AclLab, password_of
from chaos_rounds import ChaosLab
from moved_clock import MovedClock
from netconf_lab import PROGRAM, RawSession, policy_config

ANN, EVE = 65531, 65532  # users without a name, members of the group
GROUP = 65530
USERS = (0, ANN)
FILES = ("sessions", "edit.lock", "running.lock")
LOCK = "<lock><target><running/></target></lock>"
UNLOCK = "<unlock><target><running/></target></unlock>"
FLOCK = "hhqqi4x"  # struct flock


def edit(policy):
    return f"<edit-config><target><running/></target>{policy_config(policy)}</edit-config>"


def as_user(user, *command):
    return [*(["setpriv", f"--reuid={user}", f"--regid={GROUP}", "--clear-groups"] if user else []), *command]


class HostileFront(AclFront):
    def __init__(self, lab):
        super().__init__(lab)
        self.log_file = lab.logs / "netconf.log"

    def command(self):
        clock = [f"{name}={value}" for name, value in self.lab.clock.environment.items()]
        return ["env", *clock, *super().command()]


class HostileLab(ChaosLab, AclLab):
    role = "solo"

    def __enter__(self):
        self.crashes_known = 0
        self.starved = set()  # sessions that had too little memory
        self.logs = pathlib.Path(tempfile.mkdtemp(prefix="lda-logs-"))  # on a disk without faults
        self.logs.chmod(0o755)
        (self.logs / "clock").mkdir()
        self.clock = MovedClock(self.logs / "clock")
        self.agent_log = self.logs / "agent.log"
        self.front = HostileFront(self)
        self.until_end = contextlib.ExitStack()
        super().__enter__()
        try:
            self.until_end.enter_context(self.front)
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *details):
        self.until_end.close()
        super().__exit__(*details)
        shutil.rmtree(self.logs, ignore_errors=True)

    def write_platform_file(self, extra=""):
        """The first that happens on the new disk."""
        self.folder.chmod(0o755)
        super().write_platform_file(extra)
        self.mend_files()

    def start_agent(self, wait=True, through=()):
        clock = [f"{name}={value}" for name, value in self.clock.environment.items()]
        super().start_agent(wait, through=("env", *clock, *through))

    def set_password(self, user, text, mode=0o640):
        super().set_password(user, text, mode)
        os.chown(self.folder / f"{user}.password", 0, GROUP)

    def mend_files(self):
        """Makes the folder of the sessions as the packages do, and gives files of root in it to the group."""
        self.netconf_runtime.mkdir(exist_ok=True)
        os.chown(self.netconf_runtime, 0, GROUP)
        self.netconf_runtime.chmod(0o3770)
        for name in FILES:
            path = self.netconf_runtime / name
            if path.is_file() and not path.is_symlink() and path.stat().st_uid == 0:
                os.chown(path, 0, GROUP)

    def database(self, number, user="admin"):
        """With a time limit, because the server may be stopped."""
        client = super().database(number, user)
        client.connection_pool.connection_kwargs["socket_timeout"] = 2
        return client

    def supervise(self):
        """Starts what has ended, or does so the next time when the disk refuses it now."""
        try:
            return super().supervise()
        except OSError:
            return []

    def mend(self):
        """Mends what attackers and faults may leave behind."""
        self.mend_files()
        for user in PROGRAMS:
            self.set_password(user, password_of(user))
        for path in self.netconf_runtime.iterdir():
            if path.name not in FILES:
                shutil.rmtree(path) if path.is_dir() and not path.is_symlink() else path.unlink()

    # ---- sessions ----

    def session(self, user, umask="0022"):
        command = as_user(user, "sh", "-c", 'umask "$0"; exec "$@"', umask, *self.front.command())
        return RawSession(command, self.front.log_file)

    def session_through_sshd(self):
        front = self.front
        return RawSession(["ssh", "-F", "none", "-o", "StrictHostKeyChecking=no", "-o", "UserKnownHostsFile=/dev/null",
                           "-o", "LogLevel=ERROR", "-i", front.folder / "client", "-p", front.port, "-s", "127.0.0.1",
                           "netconf"], front.folder / "ssh.log")

    def sessions(self):
        """The processes of this laboratory's sessions, with the children that evaluate filters."""
        return [pid for pid in all_processes() if self._is_session(pid)]

    def _is_session(self, pid):
        with contextlib.suppress(OSError):
            words = pathlib.Path(f"/proc/{pid}/cmdline").read_bytes()
            return words.startswith(str(PROGRAM).encode()) and str(self.folder).encode() in words
        return False

    def locks(self):
        """The locks that somebody holds on the sessions' files: names and first bytes."""
        held = []
        for name in FILES:
            path = self.netconf_runtime / name
            if path.is_symlink() or not path.is_file():
                continue
            with open(path, "r+b") as file:
                question = struct.pack(FLOCK, fcntl.F_WRLCK, os.SEEK_SET, 0, 0, 0)
                kind, _, first, _, _ = struct.unpack(FLOCK, fcntl.fcntl(file, fcntl.F_GETLK, question))
                held += [(name, first)] if kind != fcntl.F_UNLCK else []
        return held

    # ---- what must not be ----

    def descriptors(self):
        found = super().descriptors()
        found["sshd"] = len(os.listdir(f"/proc/{self.front.sshd.pid}/fd"))
        return found

    def zombies(self):
        """Children that the product's processes have not waited for."""
        found = []
        parents = {process.pid for process in self.processes().values()} | set(self.sessions())
        for pid in all_processes():
            with contextlib.suppress(OSError):
                state, parent = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[:2]
                found += [f"{pid} of {parent}"] if state == "Z" and int(parent) in parents else []
        return found

    def new_crashes(self):
        """Lines of sessions about ends that no client here may cause, since the last call."""
        lines = [line for line in self.front.log().splitlines()
                 if "broke the parser" in line or "took too long" in line or "Sanitizer" in line]
        lines = [line for line in lines if not any(f"lda-netconf[{pid}]" in line for pid in self.starved)]
        new, self.crashes_known = lines[self.crashes_known:], len(lines)
        return new

    def keep(self, name):
        """Copies logs to a place where a person can look at them."""
        target = pathlib.Path(f"/tmp/hostile-{name}")
        target.mkdir(exist_ok=True)
        for file in (*self.folder.glob("*.log"), *self.logs.iterdir(), self.startup_config):
            with contextlib.suppress(OSError):
                shutil.copy(file, target)


def all_processes():
    return [int(name) for name in os.listdir("/proc") if name.isdigit()]


def signal_session(pid, number):
    with contextlib.suppress(ProcessLookupError):
        os.kill(pid, number)


def resume(pids):
    for pid in pids:
        signal_session(pid, signal.SIGCONT)
