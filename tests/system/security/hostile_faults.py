"""The faults of hostile rounds. Each makes one, and returns how to mend it, or None when that is done or is left to a
supervisor."""

import contextlib
import os
import pathlib
import resource
import shutil
import signal
import subprocess
import time

import redis

from acl_lab import PROGRAMS, password_of
from chaos_rounds import FAULTS as CHAOS
from hostile_lab import FILES, resume, signal_session
from lab import run

AN_HOUR_S = 3600
A_DECADE_S = 10 * 365 * 24 * AN_HOUR_S


# ---- Processes ----

def sessions_ended(lab, draw):
    how = draw.choice((signal.SIGKILL, signal.SIGTERM))
    for pid in lab.sessions():
        if draw.random() < 0.7:
            signal_session(pid, how)


def sessions_stopped(lab, draw):
    stopped = [pid for pid in lab.sessions() if draw.random() < 0.7]
    for pid in stopped:
        signal_session(pid, signal.SIGSTOP)
    return lambda: resume(stopped)


def memory_exhausted(name):
    """A process gets no more memory than it has, but for very little; it may end because of that."""
    def make(lab, draw):
        process = lab.processes()[name]
        with contextlib.suppress(OSError, ValueError):
            size = int(pathlib.Path(f"/proc/{process.pid}/statm").read_text().split()[0]) * resource.getpagesize()
            most = size + draw.choice((0, 1 << 16, 1 << 20))
            resource.prlimit(process.pid, resource.RLIMIT_AS, (most, resource.RLIM_INFINITY))
            lab.ended.add(process.pid)

        def mend():
            with contextlib.suppress(OSError, ValueError):
                resource.prlimit(process.pid, resource.RLIMIT_AS, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
        return mend
    return make


# ---- Files ----

def folder_removed(lab, draw):
    """The folder of the sessions, while they use it."""
    shutil.rmtree(lab.netconf_runtime, ignore_errors=True)
    if draw.random() < 0.5:
        with contextlib.suppress(OSError):
            lab.mend_files()


def session_file_damaged(lab, draw):
    file = lab.netconf_runtime / draw.choice(FILES)
    with contextlib.suppress(OSError):
        draw.choice((lambda: os.truncate(file, 0), lambda: os.truncate(file, 1 << 40), file.unlink,
                     lambda: file.rename(file.with_suffix(".foreign-x")), lambda: os.truncate(file, 3)))()


def disk_read_only(lab, draw):
    """For everything that is opened from now on: a file system with open files cannot be made read-only."""
    run("mount", "--bind", str(lab.folder), str(lab.folder))
    subprocess.run(["mount", "-o", "remount,bind,ro", str(lab.folder)], check=False)
    return lambda: run("umount", "-l", str(lab.folder))


# ---- The object database ----

@contextlib.contextmanager
def admin(lab):
    with contextlib.suppress(redis.exceptions.RedisError), lab.database(0) as database:
        yield database


def rules_restored(lab):
    def restore():
        with admin(lab) as database:
            database.execute_command("ACL", "LOAD")
    return restore


def rights_taken(lab, draw):
    """A user is disabled, loses its password or some of its rights."""
    user = draw.choice(PROGRAMS[:3])
    words = draw.choice((["off"], ["resetpass", ">other"], ["-publish"], ["-set"], ["-exec"], ["-subscribe"],
                         ["resetkeys"], ["resetchannels"], ["-select"], ["-get", "-scan"]))
    with admin(lab) as database:
        database.execute_command("ACL", "SETUSER", user, *words)
    return rules_restored(lab)


def links_cut(lab, draw):
    """The server drops all its clients."""
    with admin(lab) as database:
        for kind in ("normal", "pubsub"):
            database.execute_command("CLIENT", "KILL", "TYPE", kind, "SKIPME", "yes")


def password_lost(lab, draw):
    """The file with a program's password is missing, unreadable or wrong while its connection is cut."""
    user = draw.choice(PROGRAMS[:3])
    file = lab.folder / f"{user}.password"
    with contextlib.suppress(OSError):
        draw.choice((file.unlink, lambda: file.chmod(0o666), lambda: lab.set_password(user, "wrong"),
                     lambda: lab.set_password(user, "\x1b[2J"), lambda: lab.set_password(user, "x" * 600),
                     lambda: lab.set_password(user, "")))()
    links_cut(lab, draw)

    def mend():
        with contextlib.suppress(OSError):  # at the end of the round at the latest
            lab.set_password(user, password_of(user))
    return mend


# ---- Time ----

def clock_moved(lab, draw):
    """The wall clock of the agent and of the sessions jumps, forth and back."""
    for _ in range(draw.randint(1, 3)):
        lab.clock.ahead(draw.choice((-A_DECADE_S, -AN_HOUR_S, AN_HOUR_S, A_DECADE_S)))
        time.sleep(draw.uniform(0, 0.3))
    return lambda: lab.clock.ahead(0)


FAULTS = {
    **{name: CHAOS[name] for name in (
        "agent-killed", "agent-ended", "agent-stopped", "agent-descriptors", "tarnd-killed", "tarnd-stopped",
        "tarnd-descriptors", "redis-killed", "redis-ended", "redis-stopped", "redis-full", "disk-full")},
    "agent-memory": memory_exhausted("agent"), "tarnd-memory": memory_exhausted("tarnd"),
    "sessions-ended": sessions_ended, "sessions-stopped": sessions_stopped, "folder-removed": folder_removed,
    "session-file-damaged": session_file_damaged, "disk-read-only": disk_read_only, "rights-taken": rights_taken,
    "links-cut": links_cut, "password-lost": password_lost, "clock-moved": clock_moved,
}
