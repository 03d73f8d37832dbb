"""Why a port of a real bridge is down, since when, and what remains known after a restart."""

import json
import signal

import pytest

from lab import Lab, wait_for


@pytest.fixture
def lab(kernel_ports):
    with Lab(switch="linux", ports=3) as the_lab:
        the_lab.start_redis()
        the_lab.start_agent()
        the_lab.configure("loop-detect enable shutdown access-mode")
        wait_for(lambda: "storm-loop-detect enable" in the_lab.cli("show running-config interface swp2"), 5,
                 "detection is pushed")
        yield the_lab


def held(lab):
    """The held ports by name."""
    answer = json.loads(lab.cli("show errdisable | json"))
    assert answer["version"] == 1
    return {port["port"]: port for port in answer["ports"]}


def actions(lab, port):
    events = json.loads(lab.cli("show loop-detect history | json"))["events"]
    return [event["action"] for event in events if event["port"] == port]


def reasons(lab):
    return {port["port"]: port["reason"] for port in json.loads(lab.cli("show interfaces status | json"))}


def shut_two_by_a_loop(lab):
    lab.report_loop("swp2", is_loop=1, source="swp3", vid=20)
    wait_for(lambda: len(held(lab)) == 2 and all(port["since"] for port in held(lab).values()), 5, "both are held")


def test_both_ports_of_a_loop_are_explained(lab):
    shut_two_by_a_loop(lab)
    lab.ip("link", "set", "swp1", "down")
    port = held(lab)["swp3"]
    assert (port["cause"], port["sources"], port["other_port"], port["vlan"]) == ("loop", ["tarn"], "swp2", 20)
    assert (port["shut_last_day"], port["probe"]) == (1, "still looped")
    assert 290 < port["recovers_in_s"] <= 300
    wait_for(lambda: reasons(lab) == {"swp1": "", "swp2": "loop-detect", "swp3": "loop-detect"}, 5, "the reasons")
    lab.report_loop("swp2", is_loop=0, source="swp3")
    wait_for(lambda: held(lab)["swp2"]["probe"] is None, 5, "the end of the loop")


def test_cleared_port_comes_up(lab):
    shut_two_by_a_loop(lab)
    lab.report_loop("swp2", is_loop=0, source="swp3")
    lab.cli("clear errdisable interface swp2")
    wait_for(lambda: lab.is_up("swp2"), 5, "swp2 is up")
    assert set(held(lab)) == {"swp3"}
    lab.cli("clear errdisable all")
    wait_for(lambda: lab.is_up("swp3"), 5, "swp3 is up")
    assert actions(lab, "swp3") == ["loop found", "shut", "brought back"]


@pytest.mark.parametrize("end", [signal.SIGTERM, signal.SIGKILL])
def test_held_port_and_its_history_survive_a_restart(lab, end):
    shut_two_by_a_loop(lab)
    before = held(lab)["swp2"]
    history = lab.startup_config.with_name("startup.cfg.history")
    if end == signal.SIGKILL:
        wait_for(lambda: history.exists() and history.read_text().count('"shut"') == 2, 5, "the file is written")
    lab.kill_agent(end)
    lab.report_loop("swp2", is_loop=0, source="swp3")
    lab.start_agent()
    wait_for(lambda: "swp2" in held(lab) and held(lab)["swp2"]["recovers_in_s"], 5, "the port is claimed again")
    after = held(lab)["swp2"]
    same = ("since", "sources", "other_port", "vlan", "shut_last_day")
    assert [after[key] for key in same] == [before[key] for key in same]
    assert after["probe"] is None
    assert actions(lab, "swp2") == ["loop found", "shut"]
