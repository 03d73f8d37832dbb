"""The demonstration that scripts/run plays without a terminal, on the simulated switch."""

import subprocess

from lab import ROOT


def test_demonstration_plays_both_acts_to_the_end():
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
