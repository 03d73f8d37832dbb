"""A loop entirely outside the switch: whatever the switch does to its port, the same frames arrive again and
again."""

import time

import pytest

from lab import wait_for
from storm_lab import DETECTED, StormLab, at_once, measure, no_idling, softirq_seconds

RATE = 100  # frames per second
# Frames per second of the outside ring: out of step with the kernel's tick, which would otherwise
# always sample the same moment of a turn.
SPEED = 5_147


@pytest.fixture
def wide_lab(kernel_ports):
    """A switch of so many ports that flooding to all of them costs more than the ring itself."""
    with StormLab(ports=240) as the_lab:
        yield the_lab


def test_outside_ring_behind_one_port_is_detected_and_ended(wide_lab):
    lab = wide_lab
    # The bridge also floods out of swp4, where nobody listens.
    readings = {"softirq": softirq_seconds, "flooded": lambda: lab.sent("swp4"),
                "received": lambda: lab.received("swp1"), "outside": lambda: lab.received("return"),
                "agent": lab.agent_seconds}
    lab.make_outside_ring(SPEED)
    with no_idling():
        lab.plug("swp1")
        unwatched = measure(4, **readings)
        lab.unplug("swp1")
        lab.watch(RATE, "swp1")

        started = time.monotonic()
        lab.plug("swp1")
        metered = measure(6, **readings)
        wait_for(lambda: not lab.is_up("swp1"), 14, "swp1 is shut", every=0.1)
        took = time.monotonic() - started
        over = measure(4, **readings)

    print(f"judged after {took:.1f} s; load {unwatched.softirq.usual:.2f}, with the meter {metered.softirq.usual:.2f}, "
          f"of the ring alone {over.softirq.usual:.2f}")
    assert 8 <= took <= 16
    assert DETECTED.format("swp1") in lab.log()
    # The speed of the ring depends on the machine's other work; the rest is true at any speed above
    # this.
    storm = 10 * RATE
    assert unwatched.flooded.average > storm and metered.received.average > storm, "there was a storm"
    # Four seconds of the meter at once, then its rate.
    assert RATE < metered.flooded.average < (8 * RATE / 6 + 2 * RATE) * 1.2
    assert over.received.average == 0 and over.flooded.average == 0
    assert over.outside.average > storm
    # What each frame costs beyond the ring itself, which continues as before.
    ring = over.softirq.usual / over.outside.usual
    unwatched_cost = unwatched.softirq.usual / unwatched.received.usual - ring
    metered_cost = metered.softirq.usual / metered.received.usual - ring
    assert metered_cost <= unwatched_cost / 3
    assert metered.agent.average < 0.1 and over.agent.average < 0.1
    assert [port for port in lab.port_names if not lab.is_up(port)] == ["swp1"]


def set_rate(lab, rate):
    """Sets it as an operator does; returns the storm record of swp1 right afterwards. The new rule is in the
    kernel on return."""
    old_chain = lab.chains()["swp1"]
    record = lab.storm_records(lab.cli("configure terminal", "interface swp1", f"storm-loop-rate ratelimit {rate}",
                                       "end", "debug lda storm-detect"))["swp1"]
    wait_for(lambda: lab.chains().get("swp1", old_chain) != old_chain, 2, "the rule is another")
    ruleset = lab.ruleset()
    assert f"chain {old_chain} " not in ruleset and f"counter {old_chain} " not in ruleset
    return record


def polled(lab, **expected):
    """Waits until the storm record of swp1 shows these values; a poll comes every 4 s."""
    def matching_record():
        record = lab.storm_records()["swp1"]
        return record if expected.items() <= record.items() else None
    return wait_for(matching_record, 15, f"the record shows {expected}", every=0.1)


def raised_rate_restarts_detection(lab):
    lab.watch(RATE, "swp1")
    lab.make_outside_ring(SPEED)
    assert "limit rate over 200/second burst 800 packets" in lab.chain("swp1")
    lab.plug("swp1")
    before = polled(lab, flow_over_times=2)
    assert (before["rate"], before["burst"], before["is_loop"]) == (RATE, 1024, "normal")

    # One poll before the verdict.
    changed = time.monotonic()
    record = set_rate(lab, 500)
    assert record == {"phyid": before["phyid"], "rate": 500, "burst": 1024, "packet_count": 0, "byte_count": 0,
                      "flow_over_times": 0, "unloop_times": 0, "poll_times": 0, "timer_notify": 0,
                      "is_loop": "normal"}
    assert "limit rate over 1000/second burst 4000 packets" in lab.chain("swp1")

    first = polled(lab, flow_over_times=1)
    assert first["timer_notify"] == 1
    assert first["packet_count"] > before["packet_count"], "the total goes on since the rule was first installed"
    wait_for(lambda: not lab.is_up("swp1"), 14, "swp1 is shut", every=0.1)
    assert 8 <= time.monotonic() - changed <= 16
    assert DETECTED.format("swp1") in lab.log()
    assert measure(1, received=lambda: lab.received("swp1")).received.average == 0


def lowered_rate_ends_the_loop_until_it_is_detected_again(lab):
    lab.watch(RATE, "swp1", policy="")
    lab.make_outside_ring(SPEED)
    lab.plug("swp1")
    before = polled(lab, is_loop="loop")
    assert (before["flow_over_times"], before["rate"]) == (3, RATE)
    assert lab.log().count(DETECTED.format("swp1")) == 1

    changed = time.monotonic()
    record = set_rate(lab, 50)
    assert (record["rate"], record["is_loop"], record["flow_over_times"]) == (50, "normal", 0)
    assert "limit rate over 100/second burst 400 packets" in lab.chain("swp1")
    again = polled(lab, is_loop="loop")
    assert 8 <= time.monotonic() - changed <= 16
    assert (again["flow_over_times"], again["timer_notify"]) == (3, 3)
    # The port was in the loop table throughout, so there is one message; a warning shuts nothing.
    assert lab.log().count(DETECTED.format("swp1")) == 1
    assert list(lab.loop_entries()) == ["p_app.lda_loop_entry/name=swp1"]
    assert lab.is_up("swp1")


def test_rate_change_during_a_storm(kernel_ports):
    with StormLab(ports=4) as one, StormLab(ports=4) as another:
        at_once(lambda: raised_rate_restarts_detection(one),
                lambda: lowered_rate_ends_the_loop_until_it_is_detected_again(another))
