"""A few rounds of attacks from all sides, among faults; hostile_rounds.py plays hundreds by hand."""

import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from hostile_rounds import play_rounds  # noqa: E402  (the path comes first)

SEED = 20261124
ROUNDS = 10


def test_attacked_switch_serves_everybody_afterwards(kernel_ports):
    bad = [str(played) for played in play_rounds(SEED, ROUNDS) if played.problems]
    assert not bad, f"seed {SEED}:\n" + "\n".join(bad)
