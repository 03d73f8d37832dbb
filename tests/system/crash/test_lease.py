"""A few rounds in which the agents of a lease are disturbed; lease_rounds.py plays hundreds by hand."""

import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from lease_rounds import play_rounds  # noqa: E402  (the path comes first)

SEED = 20261123
ROUNDS = 30


def test_disturbed_agents_never_act_at_once_and_never_leave_the_switch_alone():
    bad = [str(played) for played in play_rounds(SEED, ROUNDS) if played.problems]
    assert not bad, f"seed {SEED}:\n" + "\n".join(bad)
