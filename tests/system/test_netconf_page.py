"""The examples that a reader may paste: the session in docs/netconf.md, and the sample for sshd."""

import pathlib
import re
import subprocess
import tempfile

import pytest
from lab import BUILD, ROOT, wait_for
from netconf_lab import free_port, make_privilege_folder


@pytest.fixture
def blocks(monkeypatch):
    """The code of the page, in order; its folder and its port are replaced with free ones."""
    page = (ROOT / "docs" / "netconf.md").read_text()
    with tempfile.TemporaryDirectory(prefix="lda-page-") as above:
        folder = pathlib.Path(above) / "lab"
        folder.mkdir()
        monkeypatch.setenv("LAB", str(folder))
        for original, ours in (("$(mktemp -d)\n", f"{folder}\n"), (":8300", f":{free_port()}")):
            assert original in page
            page = page.replace(original, ours)
        port = re.search(r"ListenAddress 127.0.0.1:([0-9]+)", page).group(1)
        page = page.replace("port=8300", f"port={port}")
        page = page.replace("$PWD/build/dev", "build/dev").replace("build/dev", str(BUILD))
        yield re.findall(r"```(?:sh|python)\n(.*?)```", page, re.DOTALL)


def shell(text, output):
    return subprocess.run(["bash", "-e", "-c", text], cwd=ROOT, stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                          check=False).returncode


def test_documented_session_works(blocks, tmp_path):
    set_up, client, loop, take_down = blocks
    said = tmp_path / "said"
    make_privilege_folder()
    with open(tmp_path / "shell", "wb") as noise:
        assert shell(set_up, noise) == 0
        try:
            wait_for(lambda: shell(loop.split(" -c ")[0] + ' -c "show loop-detect"', noise) == 0, 10,
                     "the agent takes commands")
            with open(said, "wb") as output, subprocess.Popen(
                    ["/usr/bin/python3", "-u", "-c", client], stdout=output, stderr=noise) as python:
                try:
                    wait_for(lambda: "<loop-policy>2</loop-policy>" in said.read_text(), 10, "the policy is printed")
                    assert shell(loop, noise) == 0
                    wait_for(lambda: {"swp3", "swp7"} <= set(re.findall(
                        "<looped-port><name>([^<]*)<", said.read_text())), 20, "both ports are printed")
                finally:
                    python.kill()
            assert "<notify-type>1</notify-type>" in said.read_text()
        finally:
            assert shell(take_down, noise) == 0


def test_sshd_sample_configuration_is_valid(tmp_path):
    make_privilege_folder()
    subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", str(tmp_path / "host")], check=True)
    sample = (ROOT / "packaging" / "sshd-netconf.conf").read_text()
    (tmp_path / "config").write_text(f"HostKey {tmp_path}/host\n{sample}")
    checked = subprocess.run(["/usr/sbin/sshd", "-t", "-f", str(tmp_path / "config")], capture_output=True, text=True,
                             check=False)
    assert (checked.returncode, checked.stderr) == (0, "")
