"""A few rounds of reports, link flaps and loops; soak.py plays thousands by hand."""

import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from soak import play  # noqa: E402  (the path comes first)


def test_reports_flaps_and_loops_leave_nothing_behind(kernel_ports):
    assert play(rounds=12, warm_up=4) == []
