"""A few rounds in which the whole product is disturbed; chaos_rounds.py plays hundreds by hand."""

import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from chaos_rounds import play_rounds  # noqa: E402  (the path comes first)

SEED = 20261123
ROUNDS = 20


def test_disturbed_product_leaves_no_port_dark_and_no_loop_unknown(kernel_ports):
    bad = [str(played) for played in play_rounds(SEED, ROUNDS) if played.problems]
    assert not bad, f"seed {SEED}:\n" + "\n".join(bad)
