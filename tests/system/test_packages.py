"""The Debian packages in a folder that holds nothing but Debian 12."""

import os
import subprocess

import pytest

from lab import ROOT

NO_MIRROR = 77


@pytest.mark.packages
@pytest.mark.skipif(os.geteuid() != 0, reason="needs root for debootstrap")
def test_packages_install_upgrade_take_over_and_leave_nothing():
    done = subprocess.run([ROOT / "scripts" / "package_test", "--once"], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False)
    if done.returncode == NO_MIRROR:
        pytest.skip(done.stdout.splitlines()[-1])
    assert (done.returncode, done.stdout.splitlines()[-1]) == (0, "package_test: all good"), done.stdout[-4000:]
