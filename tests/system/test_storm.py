"""Storms in the kernel: ports of a bridge whose far ends are joined, a real agent, a host that talks occasionally."""

import signal
import time

import pytest

from lab import wait_for
from storm_lab import DETECTED, StormLab, measure, no_idling, softirq_seconds

RATE = 1000  # frames per second
REFUSED = ("%FORWARDING-3-REFUSED: A rule of storm-loop-detect cannot be installed: Operation not permitted. "
           "Storms are not found there.")


@pytest.fixture
def lab(kernel_ports):
    with StormLab(ports=4) as the_lab:
        yield the_lab


def join(lab, *ports):
    lab.make_outside()
    for port in ports:
        lab.plug(port)


def test_storm_between_two_ports_is_detected_and_ended(lab):
    # The bridge also floods out of swp4, where nobody listens.
    readings = {"softirq": softirq_seconds, "flooded": lambda: lab.sent("swp4")}
    join(lab, "swp1", "swp2")
    with lab.broadcasts("swp3-far"), no_idling():
        unwatched = measure(3, **readings)
        lab.unplug("swp2")
        lab.watch(RATE, "swp1", "swp2")
        assert lab.is_up("swp1") and lab.is_up("swp2")

        started = time.monotonic()
        lab.plug("swp2")
        metered = measure(6, **readings)
        assert unwatched.flooded.average > 20 * RATE, "there was a storm"
        # Of both ports: four seconds of the meter at once, then its rate.
        assert RATE < metered.flooded.average < 2 * (8 * RATE / 6 + 2 * RATE) * 1.2
        assert metered.flooded.average <= unwatched.flooded.average / 3
        assert metered.softirq.usual <= unwatched.softirq.usual / 3

        wait_for(lambda: not lab.is_up("swp1") or not lab.is_up("swp2"), 14, "a port is shut", every=0.1)
        took = time.monotonic() - started
        print(f"judged after {took:.1f} s; load {unwatched.softirq.usual:.2f}, with the meter {metered.softirq.usual:.2f}")
        assert 8 <= took <= 16
        wait_for(lambda: not lab.is_up("swp1") and not lab.is_up("swp2"), 5, "both ports are shut", every=0.1)
        for port in ("swp1", "swp2"):
            assert DETECTED.format(port) in lab.log()
        over = measure(1, received=lambda: lab.received("swp1") + lab.received("swp2"))
        assert over.received.average <= 20
    # The port of the host, which receives no storm, is left alone.
    assert lab.is_up("swp3") and lab.is_up("swp4")
    assert DETECTED.format("swp3") not in lab.log()


def test_port_removed_during_a_storm_gets_its_rule_again(lab):
    lab.watch(RATE, "swp1", "swp2")
    join(lab, "swp1", "swp2")
    wait_for(lambda: lab.rules() == ["swp1", "swp2", "swp3", "swp4"], 5, "the rules are there")
    with lab.broadcasts("swp3-far"):
        wait_for(lambda: lab.received("swp1") > 4 * RATE, 5, "there is a storm", every=0.1)
        lab.ip("link", "delete", "swp1")
        wait_for(lambda: lab.rules() == ["swp2", "swp3", "swp4"], 5, "its rule is gone")
        assert measure(1, received=lambda: lab.received("swp2")).received.average <= 20, "the storm ended with the ring"
        lab.add_port("swp1")
        wait_for(lambda: lab.rules() == ["swp1", "swp2", "swp3", "swp4"], 5, "its rule is back")
        lab.plug("swp1")
        wait_for(lambda: lab.storm_records()["swp1"]["packet_count"] > 4 * RATE, 10, "its storm is counted", every=0.1)
    assert lab.agent.poll() is None
    assert lab.cli_status("show loop-detect") == 0


def test_agent_removes_its_own_table_and_no_other(lab):
    assert lab.kill_agent(signal.SIGTERM) == -signal.SIGTERM
    lab.inside("nft", "add table netdev theirs; add chain netdev theirs in { type filter hook ingress device "
               '"swp1" priority 5; policy accept; }; add rule netdev theirs in counter; add table inet lda; '
               "add set inet lda fdb { type ether_addr; elements = { 02:00:00:00:00:01 } ; }")
    theirs = lab.ruleset()
    lab.start_agent()
    lab.watch(RATE, "swp1")
    wait_for(lambda: lab.rules() == ["swp1", "swp1", "swp2", "swp3", "swp4"], 5, "the rules are there")

    lab.kill_agent()
    lab.inside("nft", 'add chain netdev lda port1.9999 { type filter hook ingress device "swp1" priority 0; }')
    lab.start_agent()
    wait_for(lambda: "port1.9999" not in lab.ruleset(), 10, "what a killed agent left was removed by the next one")
    lab.watch(RATE, "swp1")
    wait_for(lambda: lab.rules() == ["swp1", "swp1", "swp2", "swp3", "swp4"], 5, "the rules are there")
    assert lab.kill_agent(signal.SIGTERM) == -signal.SIGTERM
    assert lab.ruleset() == theirs


def test_agent_without_the_privilege_reports_it_and_still_probes(lab):
    lab.kill_agent(signal.SIGTERM)
    lab.start_agent(through=["setpriv", "--bounding-set=-net_admin"])
    lab.configure("loop-detect enable shutdown access-mode")
    wait_for(lambda: REFUSED in lab.log(), 5, "the refusal is logged")
    assert "storm-loop-detect enable" not in lab.cli("show running-config")
    lab.report_loop("swp2", is_loop=1)
    wait_for(lambda: DETECTED.format("swp2") in lab.log(), 5, "the probes' loop is detected")
    assert lab.agent.poll() is None
