"""Several switches in a ring, each with an agent and tarnd, against real loops: one cut for one loop.

Every cable passes some thousand frames a second at most, and a timer pulls the last one if the test does not.
"""

import contextlib
import os
import threading

import pytest

from lab import run, wait_for
from storm_lab import DETECTED
from tarn_lab import CABLE, LONGEST_LOOP_S, TarnLab


class Ring:
    """Switches with two more ports each, `left` and `right`; plug() closes the ring."""

    def __init__(self, *switches):
        self.switches = switches
        for switch in switches:
            switch.port_names += ["left", "right"]

    def cable(self, place):
        """The cable from the right port of a switch to the left port of the next one."""
        here, there = self.switches[place], self.switches[(place + 1) % len(self.switches)]
        run("ip", "link", "add", "right", "netns", here.namespace, "type", "veth",
            "peer", "name", "left", "netns", there.namespace)
        for switch, end in ((here, "right"), (there, "left")):
            switch.inside("tc", "qdisc", "replace", "dev", end, "root", "tbf", *CABLE)
            switch.ip("link", "set", end, "master", "br0")

    def plug(self, place):
        here, there = self.switches[place], self.switches[(place + 1) % len(self.switches)]
        there.ip("link", "set", "left", "up")
        here.ip("link", "set", "right", "up")

    def pull(self, place):
        run("ip", "-n", self.switches[place].namespace, "link", "delete", "right")

    def cuts(self):
        return [(place, port) for place, switch in enumerate(self.switches) for port in switch.down_ports()]

    @contextlib.contextmanager
    def closed(self):
        last = len(self.switches) - 1
        for place in range(len(self.switches)):
            self.cable(place)
        for place in range(last):
            self.plug(place)
        for switch in self.switches:
            wait_for(lambda ports=switch: {"left", "right"} <= ports.watched_names(), 20, "the ring's ports are watched")
        end = threading.Timer(LONGEST_LOOP_S, lambda: self.pull(last))
        end.start()
        try:
            self.plug(last)
            yield
        finally:
            end.cancel()
            end.join()
            with contextlib.suppress(Exception):
                self.pull(last)


class RingSwitch(TarnLab):
    def watched_names(self):
        names = {self.ifindex(name): name for name in self.port_names}
        return {names[ifx] for ifx in self.watched_ports() if ifx in names}

    def hears(self, other):
        """Whether broadcasts of a host at the other switch arrive at a host of this one."""
        before = self.received("swp3-far")
        with other.broadcasts("swp3-far", count=5, pause=0.02) as talking:
            talking.process.wait(10)
        return self.received("swp3-far") - before >= 4


@pytest.fixture
def ring(kernel_ports, request):
    with contextlib.ExitStack() as stack:
        switches = [stack.enter_context(RingSwitch(ports=3)) for _ in range(request.param)]
        key = switches[0].folder / "fabric"
        key.write_bytes(os.urandom(32))
        key.chmod(0o600)
        for number, switch in enumerate(switches):
            switch.start_tarnd()
            switch.configure(f"tarn fabric-key {key}", f"tarn priority {10 + number}")
            switch.enable("shutdown access-mode")
        yield Ring(*switches)


@pytest.mark.parametrize("ring", [2, 3], indirect=True)
def test_ring_is_cut_once_by_the_best_claim_and_all_switches_stay_connected(ring):
    best = ring.switches[0]
    with ring.closed(), best.broadcasts("swp3-far", count=100, pause=0.02):
        # The best one has the last cable's end on its left.
        wait_for(ring.cuts, 10, "a port is down")
        wait_for(lambda: "loop-detect apply shutdown-port" in best.cli("show running-config"), 10, "its agent owns the cut")
        for switch in ring.switches:
            for other in ring.switches:
                assert switch is other or wait_for(lambda s=switch, o=other: s.hears(o), 5, "traffic flows")
        assert [place for place, _ in ring.cuts()] == [0]
        assert len(ring.cuts()) == 1
    assert [DETECTED.format(port) in switch.log() for switch in ring.switches[1:] for port in ("left", "right")] \
        == [False, False] * (len(ring.switches) - 1)
