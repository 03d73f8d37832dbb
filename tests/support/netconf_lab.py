"""NETCONF sessions with a laboratory: through a private sshd and ncclient, or with the program itself.

    with running_front() as front, front.connect() as manager:
        manager.get_config("running")
"""

import contextlib
import getpass
import logging
import os
import pathlib
import re
import select
import shutil
import socket
import subprocess
import time

import pytest
from lab import BUILD, Lab, run, wait_for
from ncclient import manager
from ncclient.operations import RPCError
from ncclient.transport.errors import SessionCloseError

BASE = "urn:ietf:params:xml:ns:netconf:base:1.0"
MODEL = "urn:qv:yang:qv-loop-detect-server"
NOTIFICATION = "urn:qv:yang:qv-loop-detect-server-notification"
EVENT = "urn:ietf:params:xml:ns:netconf:notification:1.0"
MONITORING = "urn:ietf:params:xml:ns:yang:ietf-netconf-monitoring"
LOOP_DETECT = f'<loop-detect xmlns="{MODEL}"/>'
PROGRAM = BUILD / "services" / "netconf" / "lda-netconf"

logging.getLogger("ncclient").setLevel(logging.CRITICAL)
logging.getLogger("paramiko").setLevel(logging.CRITICAL)


def policy_config(policy, operation=None):
    """A <config> with the policy; `policy` None leaves the leaf empty."""
    attribute = f' nc:operation="{operation}"' if operation else ""
    value = "" if policy is None else policy
    return (f'<config xmlns="{BASE}" xmlns:nc="{BASE}"><loop-detect xmlns="{MODEL}">'
            f'<loop-policy{attribute}>{value}</loop-policy></loop-detect></config>')


def set_policy(session, policy, operation=None, **options):
    return session.edit_config(target="running", config=policy_config(policy, operation), **options)


def refusal(call, *arguments, **options):
    """The RPCError that a call of ncclient raises."""
    with pytest.raises(RPCError) as caught:
        call(*arguments, **options)
    return caught.value


def make_privilege_folder():
    """An sshd run by root needs this folder."""
    if os.geteuid() == 0:
        pathlib.Path("/run/sshd").mkdir(mode=0o755, exist_ok=True)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Front:
    """A private sshd on a loopback port, with its own keys and lda-netconf as its subsystem."""

    def __init__(self, lab):
        self.lab = lab
        self.folder = lab.folder / "front"
        self.runtime = lab.netconf_runtime
        self.log_file = self.folder / "netconf.log"
        self.port = free_port()
        self.sshd = None

    def __enter__(self):
        self.folder.mkdir()
        for key in ("host", "client"):
            run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", str(self.folder / key))
        shutil.copy(self.folder / "client.pub", self.folder / "authorized")
        make_privilege_folder()
        command = " ".join(str(word) for word in self.command())
        (self.folder / "sshd_config").write_text(
            f"ListenAddress 127.0.0.1:{self.port}\nHostKey {self.folder}/host\n"
            f"AuthorizedKeysFile {self.folder}/authorized\nStrictModes no\nUsePAM no\n"
            "AuthenticationMethods publickey\nPidFile none\nMaxStartups 100\nMaxSessions 100\n"
            f"Subsystem netconf {command} 2>>{self.log_file}\n")
        self.sshd = subprocess.Popen(
            ["/usr/sbin/sshd", "-D", "-e", "-f", str(self.folder / "sshd_config")],
            stderr=open(self.folder / "sshd.log", "ab"))
        wait_for(self._listens, 10, "sshd listens")
        return self

    def __exit__(self, *_):
        self.sshd.terminate()
        self.sshd.wait()

    def _listens(self):
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", self.port)) == 0

    def command(self):
        return [PROGRAM, "--platform", self.lab.platform_file, "--stderr"]

    @contextlib.contextmanager
    def connect(self):
        session = manager.connect(
            host="127.0.0.1", port=self.port, username=getpass.getuser(), hostkey_verify=False,
            key_filename=str(self.folder / "client"), allow_agent=False, look_for_keys=False, timeout=30)
        session.timeout = 10
        try:
            yield session
        finally:
            # A killed session has nothing left to close.
            with contextlib.suppress(SessionCloseError, OSError):
                if session.connected:
                    session.close_session()

    def raw(self, **options):
        return RawSession(self.command(), self.log_file, **options)

    def log(self):
        return self.log_file.read_text(errors="replace") if self.log_file.exists() else ""


@contextlib.contextmanager
def running_front(**options):
    """A Front whose laboratory, made with these options, has a database and an agent."""
    with Lab(store="redis", **options) as lab:
        lab.start_redis()
        lab.start_agent()
        with Front(lab) as front:
            yield front


class RawSession:
    """The program on pipes, for things that a correct client does not do. Without `hello` none is sent."""

    def __init__(self, command, log_file, hello=True):
        self.errors = open(log_file, "ab")
        self.process = subprocess.Popen([str(word) for word in command], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=self.errors, bufsize=0)
        self.rest = b""
        self.message_id = 0
        self.hello = self.message_of_the_first_version()
        self.session_id = int(re.search("<session-id>([0-9]+)<", self.hello).group(1))
        if hello:
            self.send(b'<hello xmlns="%s"><capabilities><capability>urn:ietf:params:netconf:base:1.1'
                      b"</capability></capabilities></hello>]]>]]>" % BASE.encode())

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        for stream in (self.process.stdin, self.process.stdout, self.errors):
            stream.close()

    def send(self, data):
        self.process.stdin.write(data)

    def request(self, body):
        self.message_id += 1
        text = f'<rpc xmlns="{BASE}" message-id="{self.message_id}">{body}</rpc>'.encode()
        self.send(b"\n#%d\n%s\n##\n" % (len(text), text))

    def rpc(self, body, timeout=10):
        self.request(body)
        return self.read(timeout)

    def read(self, timeout=10):
        """The next message, a reply or a notification."""
        text = b""
        chunks = self._until(b"\n##\n", timeout)
        while chunks:
            size, _, chunks = chunks[2:].partition(b"\n")
            text += chunks[:int(size)]
            chunks = chunks[int(size):]
        return text.decode()

    def message_of_the_first_version(self):
        """The next message in the framing of base:1.0, which every hello has."""
        return self._until(b"]]>]]>", 10).decode()

    def _until(self, end, timeout):
        deadline = time.monotonic() + timeout
        while end not in self.rest:
            left = max(0, deadline - time.monotonic())
            if not select.select([self.process.stdout], [], [], left)[0]:
                raise TimeoutError(f"after {timeout} s only {self.rest!r}")
            piece = os.read(self.process.stdout.fileno(), 65536)
            if not piece:
                raise EOFError(f"the session ended after {self.rest!r}")
            self.rest += piece
        text, _, self.rest = self.rest.partition(end)
        return text
