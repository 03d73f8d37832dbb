"""Rules of the switch for the recovery of held ports, through the shell, on the simulated switch."""

import json
import signal

import pytest

from lab import Lab, wait_for


@pytest.fixture
def lab():
    with Lab(ports=4, speed=60) as the_lab:
        the_lab.start_agent()
        the_lab.configure("loop-detect enable shutdown access-mode", "loop-detect shutdown-recover-time 90")
        yield the_lab


def recoveries(lab):
    """The rows of `show errdisable recovery` by port."""
    answer = json.loads(lab.cli("show errdisable recovery | json"))
    assert answer["version"] == 1
    return {port["port"]: port for port in answer["ports"]}


def refusal(lab, port):
    """Why the port's recovery was refused; None before. While the agent tries, the port has no mark for a moment."""
    return recoveries(lab).get(port, {}).get("refused")


def actions(lab, port):
    """What happened to the port, oldest first."""
    events = json.loads(lab.cli("show loop-detect history | json"))["events"]
    return [event["action"] for event in events if event["port"] == port]


def loop_once(lab, port):
    lab.cli(f"test loop plug {port} {port}")
    wait_for(lambda: port in recoveries(lab), 5, f"{port} is held")
    lab.cli(f"test loop unplug {port} {port}")


def test_rule_holds_only_the_port_that_has_it(lab):
    lab.configure("interface swp2", "errdisable recovery interval never")
    loop_once(lab, "swp1")
    loop_once(lab, "swp2")
    wait_for(lambda: "swp1" not in recoveries(lab), 10, "swp1 is back")
    reason = "errdisable recovery interval never: an operator must bring it back"
    wait_for(lambda: refusal(lab, "swp2") == reason, 10, "the refusal of swp2")
    rows = wait_for(lambda: recoveries(lab), 5, "swp2 is held")
    assert rows["swp2"]["recovers_in_s"] is None
    assert rows["swp2"]["rule"] == "interval never"
    lab.cli("clear errdisable interface swp2")
    wait_for(lambda: recoveries(lab) == {}, 5, "swp2 is back")


def test_port_comes_back_by_itself_after_the_interval(lab):
    lab.configure("interface swp2", "errdisable recovery interval 150")
    loop_once(lab, "swp2")
    assert recoveries(lab)["swp2"]["rule"] == "interval 150"
    assert recoveries(lab)["swp2"]["recovers_in_s"] <= 180, "two recovery times at most"
    wait_for(lambda: "brought back" in actions(lab, "swp2"), 10, "swp2 is back")
    assert actions(lab, "swp2") == [
        "loop found", "shut", "refused", "recovered", "brought back"], "the loop state ends while the port waits"


def test_backoff_goes_on_after_a_restart(lab):
    lab.configure("loop-detect shutdown-recover-time 300")
    lab.configure("interface swp2", "errdisable recovery backoff 2 1000")
    loop_once(lab, "swp2")
    wait_for(lambda: actions(lab, "swp2")[-1] == "brought back", 20, "swp2 is back")
    lab.kill_agent(signal.SIGTERM)
    lab.start_agent()
    loop_once(lab, "swp2")
    events = json.loads(lab.cli("show loop-detect history | json"))["events"]
    assert [(event["duration_s"], event["times"]) for event in events if event["action"] == "waits"] == [
        (300, 1), (600, 2)]


def test_rule_and_hold_survive_a_restart(lab):
    lab.configure("interface swp2", "errdisable recovery interval never")
    loop_once(lab, "swp2")
    lab.kill_agent(signal.SIGTERM)
    lab.start_agent()
    wait_for(lambda: "swp2" in recoveries(lab), 5, "swp2 is held")
    assert "errdisable recovery interval never" in lab.cli("show running-config interface swp2")
    wait_for(lambda: refusal(lab, "swp2"), 10, "the recovery is refused")
    lab.configure("no loop-detect enable")
    wait_for(lambda: "admin" not in lab.cli("show interfaces status") and recoveries(lab) == {}, 5, "swp2 is back")
