"""Why a port is down, over NETCONF: the same as `show errdisable` says."""

import datetime
import json
import re
import signal
import time

import pytest
from lab import Lab, wait_for
from netconf_lab import Front

GET = '<get><filter><errdisable xmlns="urn:qv:yang:qv-errdisable"/></filter></get>'


@pytest.fixture
def front():
    with Lab(store="redis", ports=4) as lab:
        lab.start_redis()
        lab.start_agent()
        lab.configure("loop-detect enable shutdown access-mode")
        with Front(lab) as the_front:
            yield the_front


def shown(lab):
    return json.loads(lab.cli("show errdisable | json"))["ports"]


def shut_two(lab):
    lab.report_loop(2, is_loop=1, source=3, vid=20)
    wait_for(lambda: len(shown(lab)) == 2 and all(port["since"] for port in shown(lab)), 5, "both are held")


def ports(session):
    """The leaves of each port, by its name; a leaf-list as a list."""
    reply = session.rpc(GET)
    found = {}
    for port in re.findall("<port>(.*?)</port>", reply):
        leaves = {}
        for name, value in re.findall("<([a-z-]+)>([^<]*)<", port):
            leaves[name] = leaves[name] + [value] if name == "source" and name in leaves else value
            if name == "source" and not isinstance(leaves[name], list):
                leaves[name] = [value]
        found[leaves.pop("name")] = leaves
    return found


def local(text):
    return datetime.datetime.fromisoformat(text).astimezone().replace(tzinfo=None).isoformat(" ", "seconds")


def test_held_ports_are_those_of_the_shell(front):
    with front.raw() as session:
        assert ports(session) == {}
        shut_two(front.lab)
        told = ports(session)
        by_shell = {port["port"]: port for port in shown(front.lab)}
        assert set(told) == set(by_shell) == {"swp2", "swp3"}
        for name, port in told.items():
            same = by_shell[name]
            assert (port["cause"], port["source"], port["other-port"], port["vlan"]) == (
                "loop", same["sources"], same["other_port"], str(same["vlan"]))
            assert local(port["since"]) == same["since"]
            left = datetime.datetime.fromisoformat(port["recovers-at"]).timestamp() - time.time()
            assert abs(left - same["recovers_in_s"]) < 3
            assert (port["shut-last-day"], port["still-looped"]) == ("1", "true")
            assert "rule" not in port and "refused" not in port


def test_rule_that_keeps_a_port_is_told(front):
    front.lab.configure("interface swp2", "errdisable recovery interval never")
    with front.raw() as session:
        shut_two(front.lab)
        told = ports(session)
        assert told["swp2"]["rule"] == "interval never"
        assert "recovers-at" not in told["swp2"]
        assert "recovers-at" in told["swp3"]


def test_port_that_is_up_again_is_not_told(front):
    with front.raw() as session:
        shut_two(front.lab)
        front.lab.report_loop(2, is_loop=0, source=3)
        front.lab.cli("clear errdisable all")
        wait_for(lambda: ports(session) == {}, 5, "both are up")


def test_agent_that_is_away_or_stands_still_delays_nothing_for_long(front):
    with front.raw() as session:
        shut_two(front.lab)
        front.lab.agent.send_signal(signal.SIGSTOP)
        started = time.monotonic()
        assert ports(session) == {}
        assert time.monotonic() - started < 3
        front.lab.agent.send_signal(signal.SIGCONT)
        wait_for(lambda: set(ports(session)) == {"swp2", "swp3"}, 5, "it answers again")
        front.lab.kill_agent(signal.SIGKILL)
        assert ports(session) == {}
        front.lab.start_agent()
        wait_for(lambda: set(ports(session)) == {"swp2", "swp3"}, 10, "the ports are claimed again")
    assert "the agent does not say which ports are held shut" in front.log()
