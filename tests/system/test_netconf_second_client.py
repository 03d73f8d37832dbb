"""A session of yangcli, a NETCONF client that shares no code with ncclient."""

import getpass
import os
import pty
import re
import subprocess

import pytest
from lab import ROOT
from netconf_lab import running_front

COMMANDS = """\
get-config source=running
create /loop-detect/loop-policy value=3
xget /loop-detect
lock target=running
replace /loop-detect/loop-policy value=2
unlock target=running
xget /loop-detect
delete /loop-detect/loop-policy
get-schema identifier=qv-loop-detect-server version=2026-11-21 format=yang
create-subscription stream=NETCONF
delete /loop-detect/loop-policy
"""


@pytest.fixture
def front():
    with running_front() as the_front:
        yield the_front


def yangcli(front, commands):
    """What the client prints when it is given these lines on a terminal, as they are."""
    home = front.folder / "home"
    home.mkdir()
    (home / "script").write_text(commands)
    ours, its = pty.openpty()
    client = subprocess.Popen(
        ["yangcli", "--server=127.0.0.1", f"--ncport={front.port}", f"--user={getpass.getuser()}",
         f"--private-key={front.folder}/client", f"--public-key={front.folder}/client.pub", "--batch-mode",
         f"--run-script={home}/script", f"--modpath={ROOT}/yang:/usr/share/yuma/modules", "--display-mode=xml"],
        stdin=its, stdout=its, stderr=its, env={**os.environ, "HOME": str(home)})
    os.close(its)
    said = b""
    while True:
        try:
            piece = os.read(ours, 4096)
        except OSError:  # the client has ended
            break
        said += piece
    os.close(ours)
    client.wait()
    return said.decode(errors="replace").replace("\r", "")


def test_whole_session(front):
    said = yangcli(front, COMMANDS)
    kinds = re.findall(r"RPC (\w+) Reply \d+ for session", said)
    assert kinds == ["Data", "OK", "Data", "OK", "OK", "OK", "Data", "OK", "Data", "OK", "Error"], said
    assert re.findall("<loop-policy>(.*)</loop-policy>", said) == ["3", "2"]
    assert "module qv-loop-detect-server {" in said
    assert "<error-tag>data-missing</error-tag>" in said
