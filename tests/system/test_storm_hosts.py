"""No storm: 500 hosts that talk to each other at three times the storm rate."""

import time

import pytest

from storm_lab import DETECTED, StormLab
from lab import wait_for

RATE = 1000  # frames per second
SPEED = 3 * RATE
PAIRS = 250
FIRST = "02:00:00:01:00:00"  # the first of all hosts


@pytest.fixture
def lab(kernel_ports):
    with StormLab(ports=4) as the_lab:
        yield the_lab


def talk(lab, seconds, at_a_time=PAIRS, turn=1):
    """Lets the hosts talk; returns the known addresses at each check.

    No poll counts a single storm meanwhile, although each has more frames than the rate allows.
    """
    seen = []
    before = lab.received("swp1"), lab.received("swp2")
    with lab.hosts("swp1-far", "swp2-far", pairs=PAIRS, at_a_time=at_a_time, turn=turn, speed=SPEED,
                   seconds=seconds) as hosts:
        while hosts.process.poll() is None:
            seen.append(lab.known())
            over = {port: record["flow_over_times"] for port, record in lab.storm_records().items()}
            assert over == {"swp1": 0, "swp2": 0, "swp3": 0, "swp4": 0}
            time.sleep(0.1)
        assert hosts.process.returncode == 0
    for port, count in zip(("swp1", "swp2"), before):
        assert lab.received(port) - count > 2 * RATE * seconds, "the hosts sent more than twice the storm rate"
    return seen


def test_traffic_of_many_hosts_is_no_storm_even_when_their_addresses_expire(lab):
    lab.watch(RATE, *lab.port_names)
    seen = talk(lab, seconds=6)
    assert len([host for host in seen[-1] if host.startswith("02:00:00:0")]) == 2 * PAIRS

    # Fifty pairs talk for a second, then the next ones; meanwhile the bridge forgets the others.
    lab.ip("link", "set", "br0", "type", "bridge", "ageing_time", "100")
    with lab.watch_addresses() as changes:
        talk(lab, seconds=24, at_a_time=50)
    of_first = ["Deleted" if line.startswith("Deleted ") else "added" for line in changes() if FIRST in line]
    returns = sum(pair == ("Deleted", "added") for pair in zip(of_first, of_first[1:]))
    assert returns >= 4, "each host talks in every fifth second"

    # All addresses expire, and all are learned again at once.
    for _ in range(3):
        wait_for(lambda: not any(host.startswith("02:00:00:0") for host in lab.known()), 10, "all are forgotten")
        seen = talk(lab, seconds=3)
        assert max(len([host for host in known if host.startswith("02:00:00:0")]) for known in seen) == 2 * PAIRS
    assert all(lab.is_up(port) for port in lab.port_names)
    assert not lab.loop_entries()
    assert "%LOOP_DETECT" not in lab.log()
