"""scripts/setup forbids packages to start their services only while it runs, even when it is killed."""

import os
import pathlib
import subprocess

import pytest

from lab import ROOT

POLICY = "/usr/sbin/policy-rc.d"

pytestmark = pytest.mark.skipif(os.geteuid() != 0, reason="needs root for a mount namespace")


def program(folder, name, text):
    path = folder / name
    path.write_text("#!/bin/sh\n" + text)
    path.chmod(0o755)


class Setup:
    """Runs the script with an apt-get of the test and with a folder of the test as /usr/sbin."""

    def __init__(self, folder: pathlib.Path):
        self.bin = folder / "bin"
        self.sbin = folder / "sbin"
        self.policy = self.sbin / "policy-rc.d"
        self.seen = folder / "seen"
        self.bin.mkdir()
        self.sbin.mkdir()
        program(self.bin, "dpkg-query", "exit 0\n")  # nothing is installed

    def run(self, apt_get):
        program(self.bin, "apt-get", f"cp {POLICY} {self.seen} 2>/dev/null\n{apt_get}\n")
        return subprocess.run(["unshare", "--mount", "sh", "-c",
                               f'mount --bind {self.sbin} /usr/sbin && exec "$@"', "sh", str(ROOT / "scripts" / "setup")],
                              env={**os.environ, "PATH": f"{self.bin}:{os.environ['PATH']}"}, capture_output=True,
                              text=True, check=False, timeout=60)


@pytest.fixture
def setup(tmp_path):
    return Setup(tmp_path)


@pytest.mark.parametrize("end", ["exit 1", "kill -TERM $PPID", "kill -INT $PPID", "kill -HUP $PPID"])
def test_end_of_the_script_removes_its_policy(setup, end):
    done = setup.run(end)
    assert done.returncode != 0
    assert "exit 101" in setup.seen.read_text()
    assert not setup.policy.exists()


def test_policy_is_removed_before_it_is_complete(setup):
    program(setup.bin, "chmod", "kill -TERM $PPID\n")
    assert setup.run("exit 1").returncode != 0
    assert not setup.seen.exists()
    assert not setup.policy.exists()


def test_policy_of_a_run_that_was_killed_outright_is_removed_by_the_next_one(setup):
    setup.run("kill -KILL $PPID")
    assert setup.policy.exists()
    setup.run("exit 1")
    assert "exit 101" in setup.seen.read_text()
    assert not setup.policy.exists()


def test_policy_of_the_machine_stays(setup):
    program(setup.sbin, "policy-rc.d", "exit 0\n")
    setup.run("kill -TERM $PPID")
    assert setup.policy.read_text() == "#!/bin/sh\nexit 0\n"
