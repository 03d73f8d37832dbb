"""A few rounds in which agent and server are disturbed while notifications are kept; replay_rounds.py plays hundreds
by hand."""

import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from replay_rounds import play_rounds  # noqa: E402  (the path comes first)

SEED = 20261123
ROUNDS = 8


def test_notifications_come_once_and_in_order_whatever_is_killed():
    bad = [str(played) for played in play_rounds(SEED, ROUNDS) if played.problems]
    assert not bad, f"seed {SEED}:\n" + "\n".join(bad)
