"""NETCONF sessions against other members of their group."""
import os
import pathlib
import re
import signal
import subprocess
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
from lab import wait_for  # noqa: E402
from netconf_lab import PROGRAM, RawSession  # noqa: E402

pytestmark = pytest.mark.skipif(os.geteuid() != 0, reason="needs root to run sessions of several users")

SAMPLE = pathlib.Path(__file__).resolve().parents[3] / "packaging" / "netconf-tmpfiles.conf"
ANN, EVE = 65534, 65533
GET_SESSIONS = ('<get><filter><netconf-state xmlns="urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring"><sessions/>'
                "</netconf-state></filter></get>")
KILL = "<kill-session><session-id>{}</session-id></kill-session>"
LOCK = "<lock><target><running/></target></lock>"
UNLOCK = "<unlock><target><running/></target></unlock>"
FILES = ("sessions", "edit.lock", "running.lock")
HOLD = """
import fcntl, os, sys
held = os.open(sys.argv[1], os.O_RDWR)
fcntl.lockf(held, fcntl.LOCK_EX, 1, int(sys.argv[2]))
print("held", flush=True)
sys.stdin.read()
"""


def as_user(user, *command):
    """The command as this user, in the group of the folder."""
    return (["setpriv", f"--reuid={user}", "--regid=0", "--clear-groups"] if user else []) + list(command)


class Group:
    """The folder of the group, as the packages make it, and its members."""

    def __init__(self, tmp_path):
        self.base = pathlib.Path(f"/run/lda-test-{os.getpid()}")  # every user can reach it
        self.folder = self.base / "run"
        self.log_file = tmp_path / "log"
        self.log_file.touch()
        self.open = []

    def __enter__(self):
        self.base.mkdir(mode=0o755)
        self.folder.mkdir()
        self.folder.chmod(0o3770)
        self.redis = subprocess.Popen(
            ["redis-server", "--port", "0", "--unixsocket", str(self.base / "redis.sock"), "--unixsocketperm", "777",
             "--databases", "32", "--save", "", "--dir", str(self.base)], stdout=subprocess.DEVNULL)
        wait_for((self.base / "redis.sock").exists, 10, "the database listens")
        return self

    def __exit__(self, *_):
        for session in self.open:
            session.__exit__()
        self.redis.kill()
        self.redis.wait()
        subprocess.run(["rm", "-r", str(self.base)], check=True)

    def command(self, user):
        return as_user(user, str(PROGRAM), "--redis", str(self.base / "redis.sock"), "--runtime", str(self.folder), "--stderr")

    def session(self, user):
        self.open.append(RawSession(self.command(user), self.log_file))
        return self.open[-1]

    def refusal(self, user):
        """What a session of the user is refused with."""
        run = subprocess.run(self.command(user), stdin=subprocess.DEVNULL, capture_output=True, timeout=20, check=False)
        assert run.returncode == 2, run.stderr
        return run.stderr.decode().splitlines()[0]

    def make_files(self):
        for name in FILES:
            (self.folder / name).touch()
            (self.folder / name).chmod(0o660)

    def do_as(self, user, script):
        return subprocess.run(as_user(user, "sh", "-c", script), cwd=self.folder, capture_output=True, check=False)


def test_packaged_folder_and_files_are_roots(tmp_path):
    (tmp_path / "etc").mkdir()
    (tmp_path / "etc" / "passwd").write_text("root:x:0:0::/root:/bin/sh\n")
    (tmp_path / "etc" / "group").write_text("root:x:0:\nnetconf:x:4242:\n")
    (tmp_path / "run").mkdir()
    subprocess.run(["systemd-tmpfiles", "--create", f"--root={tmp_path}", "-"], input=SAMPLE.read_bytes(), check=True)
    folder = (tmp_path / "run" / "lda-netconf").stat()
    assert (folder.st_mode & 0o7777, folder.st_uid, folder.st_gid) == (0o3770, 0, 4242)
    for name in FILES:
        file = (tmp_path / "run" / "lda-netconf" / name).stat()
        assert (file.st_mode & 0o7777, file.st_uid, file.st_gid, file.st_size) == (0o660, 0, 4242, 0)


@pytest.fixture
def group(tmp_path):
    with Group(tmp_path) as the_group:
        yield the_group


@pytest.mark.parametrize("plant", ["mkdir {0}", "mkfifo {0}", "ln -s /etc/shadow {0}", "echo 1 >{0}; chmod 600 {0}"])
def test_planted_things_do_not_keep_anybody_out(group, plant):
    for name in FILES + tuple(f"session-{number}" for number in range(1, 256)):
        assert group.do_as(EVE, plant.format(name)).returncode == 0
    before = pathlib.Path("/etc/shadow").stat()
    roots = group.session(0)
    assert "<ok/>" in roots.rpc(LOCK)
    assert "<ok/>" in roots.rpc(UNLOCK)
    assert "<ok/>" in group.session(ANN).rpc(LOCK)
    log = group.log_file.read_text()
    for name in FILES:
        assert log.count(f"{group.folder}/{name} is not a file for all sessions; renamed to ") == 1
    assert pathlib.Path("/etc/shadow").stat() == before


def test_files_of_root_cannot_be_replaced(group):
    group.make_files()
    for name in FILES:
        assert group.do_as(EVE, f"rm -f {name}").returncode != 0
        assert group.do_as(EVE, f"mv {name} other").returncode != 0
    assert "<ok/>" in group.session(ANN).rpc(LOCK)
    assert group.log_file.read_text().count("renamed") == 0


def test_file_that_another_user_has_left_is_used(group):
    """In a sticky folder the kernel may refuse to create what is there."""
    setting = pathlib.Path("/proc/sys/fs/protected_regular")
    usual = setting.read_text()
    setting.write_text("2")
    try:
        assert "<ok/>" in group.session(EVE).rpc(LOCK)
        group.open.pop().__exit__()
        for user in (ANN, 0):
            session = group.session(user)
            assert "<ok/>" in session.rpc(LOCK)
            assert "<ok/>" in session.rpc(UNLOCK)
    finally:
        setting.write_text(usual)


def test_nothing_in_the_files_is_believed(group):
    group.make_files()
    ann, eve = group.session(ANN), group.session(EVE)
    victim = subprocess.Popen(["cat"], stdin=subprocess.PIPE)
    roots = group.session(0)
    for text in (f"{victim.pid} 2026-01-02T03:04:05Z root", r"\377\377\n" * 100, ""):
        for name in FILES + (f"session-{eve.session_id}", "session-200"):
            assert group.do_as(EVE, f"printf '{text}' >{name}").returncode == 0
        for session in (ann, eve, roots):
            listed = re.findall("<session-id>([0-9]+)</session-id>", session.rpc(GET_SESSIONS))
            assert {int(number) for number in listed} == {ann.session_id, eve.session_id, roots.session_id}
    assert "<error-tag>invalid-value</error-tag>" in roots.rpc(KILL.format(200))
    assert "<ok/>" in roots.rpc(KILL.format(eve.session_id))
    assert eve.process.wait(timeout=20) == 0
    assert victim.poll() is None
    victim.communicate()


def test_forged_holder_of_the_lock_does_not_break_anybodys_get(group):
    group.make_files()
    assert "<ok/>" in group.session(EVE).rpc(LOCK)
    ann = group.session(ANN)
    state = '<get><filter><netconf-state xmlns="urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring"/></filter></get>'
    for text in ("7 nonsense eve", "7 2026-99-99T99:99:99Z eve", "<x>", r"\377\001"):
        assert group.do_as(EVE, f"printf '{text}' >running.lock").returncode == 0
        reply = ann.rpc(state)
        assert f"<session-id>{ann.session_id}</session-id>" in reply
        assert "locked-time" not in reply


def test_number_that_a_foreign_program_holds_is_not_handed_out(group):
    """Its holder is named in the list, and only root and its own user can end it."""
    group.make_files()
    number = group.session(ANN).session_id % 247 + 1
    holder = subprocess.Popen(as_user(EVE, sys.executable, "-c", HOLD, str(group.folder / "sessions"), str(number)),
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    assert holder.stdout.readline() == b"held\n"
    assert "<error-tag>access-denied</error-tag>" in group.session(ANN).rpc(KILL.format(number))
    assert holder.poll() is None
    assert "<ok/>" in group.session(0).rpc(KILL.format(number))
    assert holder.wait(timeout=20) == -signal.SIGTERM


def test_user_with_many_sessions_locks_nobody_out(group):
    group.make_files()
    for _ in range(16):
        group.session(EVE)
    assert re.fullmatch(r"lda-netconf: \S+ has 16 sessions already", group.refusal(EVE))
    assert group.session(ANN).session_id
    for _ in range(17):
        group.session(0)
    group.open.pop(0).__exit__()
    assert group.session(EVE).session_id


def test_folder_that_others_may_replace_is_refused(group):
    group.folder.chmod(0o2770)
    reason = f"{group.folder}: others may replace its files; set the sticky bit (chmod +t)"
    assert group.refusal(0) == "lda-netconf: " + reason
    assert group.refusal(ANN) == "lda-netconf: " + reason
    group.folder.chmod(0o3770)
    os.chown(group.folder, EVE, 0)
    assert "is the folder of" in group.refusal(0)
    assert "is the folder of" in group.refusal(ANN)


def test_lock_ends_with_its_session_in_the_middle_of_a_filter(group):
    """The process that evaluates the filter does not keep the lock."""
    group.make_files()
    roots = group.session(0)
    for how in ("kill-session", signal.SIGKILL, signal.SIGTERM) * 5:
        ann = group.session(ANN)
        assert "<ok/>" in ann.rpc(LOCK)
        ann.request('<get><filter type="xpath" select="//*[//*[//*[//*]]]"/></get>')
        wait_for(lambda ann=ann: children_of(ann.process.pid), 10, "the filter is evaluated", every=0.001)
        if how == "kill-session":
            assert "<ok/>" in roots.rpc(KILL.format(ann.session_id))
        else:
            ann.process.send_signal(how)
            ann.process.wait()
        if how == signal.SIGKILL:  # may have come before that process has closed the files
            wait_for(lambda: "<ok/>" in roots.rpc(LOCK), 0.5, "the lock is free", every=0)
        else:
            assert "<ok/>" in roots.rpc(LOCK), how
        assert "<ok/>" in roots.rpc(UNLOCK)


def children_of(pid):
    return pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
