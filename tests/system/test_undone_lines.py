"""Every line of a running configuration, typed again after "no"."""

import pytest

from lab import Lab, wait_for

GLOBAL = ["hostname edge-7", "tarn enable", "tarn error-recover interval 60", "tarn probe-interval 500",
          "loop-detect enable shutdown access-hybrid-mode", "loop-detect shutdown-recover-time 301"]
PORT = ["shutdown", "switchport mode hybrid", "tarn port loop-detect warning", "loop-detect apply shutdown-port",
        "storm-loop-detect enable", "storm-loop-rate ratelimit 5000 burst 64"]


@pytest.fixture
def lab():
    with Lab(ports=4) as the_lab:
        the_lab.start_agent()
        yield the_lab


def undoing(config):
    """The lines of a configuration with a leading "no". The line of a section only leads to its port."""
    lines = [line.strip() for line in config.splitlines() if not line.startswith("!")]
    return [line if line.startswith("interface ") else f"no {line}" for line in lines]


def test_no_form_of_each_line_restores_the_defaults(lab):
    empty = lab.cli("show running-config")
    lab.configure(*GLOBAL, "interface swp2", *PORT)
    # The agent adds its own lines to each port.
    wait_for(lambda: lab.cli("show running-config").count("storm-loop-detect enable") == 4, 30, "all lines are there")
    config = lab.cli("show running-config")
    shown = [line.strip() for line in config.splitlines()]
    assert [line for line in [*GLOBAL, *PORT] if line not in shown] == ["tarn error-recover interval 60"]
    assert "tarn error-recover interval 90" in shown, "the agent sets its own interval with the policy"
    lab.configure(*undoing(config))
    wait_for(lambda: lab.cli("show running-config") == empty, 30, "nothing but the ports is left")
