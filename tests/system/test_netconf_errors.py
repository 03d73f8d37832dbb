"""Error-tags of NETCONF requests that do not fit the protocol, or that a user may not send."""

import os
import socket
import subprocess
import threading
import time

import pytest
from netconf_lab import BASE, MODEL, RawSession, running_front

INLINE = f'<config><loop-detect xmlns="{MODEL}"><loop-policy>2</loop-policy></loop-detect></config>'
EDIT = f"<edit-config><target><running/></target>{INLINE}</edit-config>"
READ = "<get-config><source><running/></source></get-config>"


@pytest.fixture(scope="module")
def front():
    with running_front(speed=60) as the_front:
        yield the_front


@pytest.mark.parametrize("request_text, tag, info", [
    ("<no-such-operation/>", "operation-not-supported", ""),
    ('<a xmlns="urn:a"/>', "unknown-namespace", "<bad-element>a</bad-element><bad-namespace>urn:a</bad-namespace>"),
    ("", "missing-element", "<bad-element>rpcOperation</bad-element>"),
    ("<get/><get/>", "unknown-element", "<bad-element>get</bad-element>"),
    ("<get><unknown/></get>", "unknown-element", "<bad-element>unknown</bad-element>"),
    (f"<edit-config><target><candidate/></target>{INLINE}</edit-config>", "unknown-element",
     "<bad-element>candidate</bad-element>"),
    ('<get><filter type="regex"/></get>', "bad-attribute",
     "<bad-attribute>type</bad-attribute><bad-element>filter</bad-element>"),
    ('<get colour="red"/>', "unknown-attribute", "<bad-attribute>colour</bad-attribute><bad-element>get</bad-element>"),
    ("<kill-session><session-id>x</session-id></kill-session>", "invalid-value", ""),
])
def test_request_outside_the_protocol_is_refused_by_its_tag(front, request_text, tag, info):
    with front.raw() as raw:
        reply = raw.rpc(request_text)
        assert 'message-id="1"' in reply
        assert f"<error-type>protocol</error-type><error-tag>{tag}</error-tag>" in reply
        assert (f"<error-info>{info}</error-info>" in reply) if info else ("<error-info>" not in reply)
        assert "<data/>" in raw.rpc(READ)


def test_request_needs_a_message_id(front):
    text = f'<rpc xmlns="{BASE}">{EDIT}</rpc>'.encode()
    with front.raw() as raw:
        raw.send(b"\n#%d\n%s\n##\n" % (len(text), text))
        reply = raw.read()
        assert "<loop-policy>" not in raw.rpc(READ)
    assert reply.startswith(f'<rpc-reply xmlns="{BASE}"><rpc-error>')
    assert "<error-type>rpc</error-type><error-tag>missing-attribute</error-tag>" in reply
    assert ("<error-info><bad-attribute>message-id</bad-attribute><bad-element>rpc</bad-element></error-info>"
            in reply)


def test_request_that_is_too_long_is_too_big_and_ends_the_session(front):
    with front.raw() as raw:
        raw.request("<get>" + "x" * 70000 + "</get>")
        reply = raw.read()
        assert 'message-id="1"' in reply
        assert "<error-tag>too-big</error-tag>" in reply
        assert raw.process.wait(timeout=20) == 1


def session_of_groups(front, tmp_path, write_group, groups):
    """A session of a user with these groups, on a switch whose write_group is the given one."""
    platform = tmp_path / "group.toml"
    text = front.lab.platform_file.read_text()
    platform.write_text(text.replace("[netconf]\n", f'[netconf]\nwrite_group = "{write_group}"\n'))
    as_member = ["setpriv", "--groups", groups] if groups else ["setpriv", "--clear-groups"]
    command = as_member + [str(word) for word in front.command()] + ["--platform", str(platform)]
    return RawSession(command, tmp_path / "log")


@pytest.mark.skipif(os.geteuid() != 0, reason="needs root to run a session in other groups")
def test_only_members_of_the_write_group_change_things(front, tmp_path):
    lock = "<lock><target><running/></target></lock>"
    with session_of_groups(front, tmp_path, "daemon", "") as outsider:
        for request in (EDIT, lock):
            reply = outsider.rpc(request)
            assert "<error-tag>access-denied</error-tag>" in reply
            assert 'only members of the group "daemon" may do this' in reply
        assert "<data/>" in outsider.rpc(READ)
        assert "<ok/>" in outsider.rpc('<create-subscription xmlns="urn:ietf:params:xml:ns:netconf:notification:1.0"/>')
    with session_of_groups(front, tmp_path, "daemon", "2,1") as member:
        assert "<ok/>" in member.rpc(lock)
        assert "<ok/>" in member.rpc(EDIT)
        assert "<loop-policy>2</loop-policy>" in member.rpc(READ)


def test_unknown_write_group_is_refused_at_the_start(front, tmp_path):
    platform = tmp_path / "group.toml"
    platform.write_text('[netconf]\nwrite_group = "no-such-group"\n')
    done = subprocess.run(front.command() + ["--platform", platform, "--runtime", tmp_path / "run"], input=b"",
                          capture_output=True, timeout=20)
    assert done.returncode == 2
    assert done.stdout == b""
    assert b'lda-netconf: [netconf] write_group: there is no group "no-such-group"\n' in done.stderr


class SlowDatabase:
    """A socket that passes everything on to the database, each piece of a client with a delay."""

    def __init__(self, path, target, delay):
        self.path, self.target, self.delay = str(path), str(target), delay
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(self.path)
        self.listener.listen()
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        while True:
            client, _ = self.listener.accept()
            server = socket.socket(socket.AF_UNIX)
            server.connect(self.target)
            threading.Thread(target=self.relay, args=(client, server, self.delay), daemon=True).start()
            threading.Thread(target=self.relay, args=(server, client, 0), daemon=True).start()

    @staticmethod
    def relay(source, sink, delay):
        try:
            while data := source.recv(65536):
                time.sleep(delay)
                sink.sendall(data)
        except OSError:
            pass  # the client has left


@pytest.mark.parametrize("delay", [0.35, 0.6])
def test_edit_over_a_slow_database_ends_within_three_seconds(front, tmp_path, delay):
    slow = SlowDatabase(tmp_path / "slow.sock", front.lab.redis_socket, delay)
    with RawSession(front.command() + ["--redis", slow.path], tmp_path / "log") as session:
        started = time.monotonic()
        reply = session.rpc(EDIT)
        assert time.monotonic() - started < 3
    assert "<error-tag>operation-failed</error-tag>" in reply
    assert "the object database " in reply
