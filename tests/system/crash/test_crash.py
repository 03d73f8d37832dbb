"""A few crash rounds of every kind; crash_rounds.py plays thousands by hand."""

import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from crash_rounds import play_rounds  # noqa: E402  (the path comes first)

SEED = 20261121
MAX_BAD_ROUNDS = 3  # bad rounds to report before skipping the rest


@pytest.mark.parametrize("rounds, slow_sync", [(39, False), (21, True)], ids=["fast-disk", "slow-disk"])
def test_killed_agent_leaves_no_port_down_without_an_owner(kernel_ports, rounds, slow_sync):
    bad, played = [], 0
    for one in play_rounds(SEED, rounds, slow_sync=slow_sync):
        played += 1
        bad += [str(one)] if one.problems else []
        if len(bad) == MAX_BAD_ROUNDS:
            break
    assert not bad, f"seed {SEED}:\n" + "\n".join(bad)
    assert played == rounds
