"""The lock on the configuration, which NETCONF sessions and the operator's shell share."""

import getpass
import os
import re
import signal
import subprocess

import pytest
from lab import BUILD, wait_for
from ncclient.operations import RPCError
from netconf_lab import policy_config, refusal, running_front, set_policy


@pytest.fixture(scope="module")
def front():
    with running_front() as the_front:
        yield the_front


@pytest.fixture
def session(front):
    with front.connect() as the_session:
        yield the_session


def can_lock(session):
    try:
        session.lock("running")
    except RPCError:
        return False
    session.unlock("running")
    return True


def test_lock_of_a_session_binds_the_shell_until_the_session_is_killed(front):
    with front.raw() as other:
        assert "<ok/>" in other.rpc("<lock><target><running/></target></lock>")
        refused = front.lab.ldash("configure terminal", "hostname held")
        assert refused.returncode == 1
        assert re.fullmatch(r"% The configuration is locked by NETCONF session \d+ \(\w+\) since [-0-9]+ [:0-9]+\.\n",
                            refused.stdout)
        assert front.lab.cli_status("show running-config") == 0
        assert "<ok/>" in other.rpc(f"<edit-config><target><running/></target>{policy_config(2)}</edit-config>")
        assert "loop-detect enable shutdown access-mode" in front.lab.cli("show running-config")
        other.process.send_signal(signal.SIGKILL)
        wait_for(lambda: front.lab.cli_status("configure terminal", "hostname free") == 0, 5, "the lock is free")
    front.lab.configure("no hostname", "no loop-detect enable")


def test_lock_of_the_shell_binds_sessions_until_the_shell_is_killed(front, session):
    shell = subprocess.Popen([BUILD / "tools/ldash/ldash", "-s", str(front.lab.cli_socket)], stdin=subprocess.PIPE,
                             stdout=subprocess.DEVNULL)
    shell.stdin.write(b"configure exclusive\nhostname mine\n")
    shell.stdin.flush()
    wait_for(lambda: "hostname mine" in front.lab.cli("show running-config"), 10, "the shell is configuring")
    holder = f"the operator {getpass.getuser()} (uid {os.getuid()}, pid {shell.pid}) holds the lock"
    denied = refusal(session.lock, "running")
    assert (denied.tag, denied.message) == ("lock-denied", holder)
    assert "session-id>0<" in denied.info
    refused = refusal(lambda: set_policy(session, 3))
    assert (refused.tag, refused.message) == ("in-use", holder)
    shell.kill()
    shell.communicate()
    wait_for(lambda: can_lock(session), 5, "the lock of a killed shell is free")
    assert "loop-detect enable shutdown hybrid-mode" not in front.lab.configure("no hostname", "do show running-config")
