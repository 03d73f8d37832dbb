"""Shared by the system tests: the path of the laboratory, and their requirements."""

import os
import pathlib
import signal
import subprocess
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))


def pytest_configure(config):
    # A script's background jobs ignore SIGINT, and every program under test would inherit that.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    config.addinivalue_line("markers", "patient: waits for real recovery times, which nothing can shorten")
    config.addinivalue_line("markers", "packages: compiles the whole product")


def _kernel_ports_reason():
    """The reason why kernel ports cannot be used here, or None."""
    if os.geteuid() != 0:
        return "needs root for network namespaces"
    probe = subprocess.run(
        ["unshare", "--net", "sh", "-c", "ip link add br0 type bridge && ip link add test0 type veth peer name test1"],
        capture_output=True, text=True, check=False)
    return None if probe.returncode == 0 else f"kernel ports: {probe.stderr.strip()}"


@pytest.fixture(scope="session")
def kernel_ports():
    """Skips, with the reason, where the machine has no network namespaces, bridge or veth."""
    reason = _kernel_ports_reason()
    if reason:
        pytest.skip(reason)
