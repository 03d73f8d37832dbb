"""The demonstrations that scripts/run plays without a terminal."""

import re
import subprocess

import pytest

from lab import ROOT


def test_demonstration_completes_both_acts():
    played = subprocess.run(["/usr/bin/python3", str(ROOT / "scripts" / "demo.py")], stdin=subprocess.DEVNULL,
                            capture_output=True, text=True, check=False, timeout=120)
    assert played.returncode == 0, played.stdout + played.stderr
    transcript = played.stdout
    for port in ("swp3", "swp7", "swp5"):
        assert f"Detected loop error on interface {port}." in transcript
        assert f"Interface {port} recovered from loop error." in transcript
    loop, storm = transcript.split("--- Second act", 1)
    assert "notity to lda loop" not in loop
    # Before the storm, in it, after it.
    records = [line.split()[-1] for line in storm.splitlines() if " swp5 " in line and "1000" in line]
    assert records == ["normal", "loop", "normal"]
    assert storm.rstrip().endswith("a storm counted,\njudged, shut and recovered.")


@pytest.mark.patient
def test_demonstration_of_a_real_loop_completes(kernel_ports):
    played = subprocess.run(["/usr/bin/python3", str(ROOT / "scripts" / "demo.py"), "--linux"],
                            stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False, timeout=400)
    assert played.returncode == 0, played.stdout + played.stderr
    transcript = played.stdout
    for port in ("swp1", "swp2"):
        assert f"Detected loop error on interface {port}." in transcript
        assert re.search(rf"\n +{port} +shut +access", transcript)
        assert f"Interface {port} recovered from loop error." in transcript
    assert re.search(r"swp[12] -> swp[12], VLAN 1, \d+ us, by \w+\n", transcript)
    assert re.search(r"a bystander behind swp4 got \d+ stray frames", transcript)
    assert transcript.rstrip().endswith("recovered and forgotten.")
