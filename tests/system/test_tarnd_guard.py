"""The guard at link-up: a port is closed while its link is down, and opened when probes have not come back."""

import json
import signal

import pytest

from lab import wait_for
from storm_lab import DETECTED
from tarn_lab import TarnLab

FLAGS = ("locked", "learning", "flood", "mcast_flood", "bcast_flood")
OPEN = dict(zip(FLAGS, (False, True, True, True, True)))
CLOSED = dict(zip(FLAGS, (True, False, False, False, False)))


class GuardLab(TarnLab):
    def flags(self, port):
        port = json.loads(self.inside("bridge", "-d", "-j", "link", "show", "dev", port))[0]
        return {flag: port[flag] for flag in FLAGS}

    def guard(self, port):
        """Guards the port, and waits until it is closed: its link is down."""
        self.configure(f"interface {port}", "tarn link-up guard 100")
        self.ip("link", "set", f"{port}-far", "down")
        self.wait_flags(port, CLOSED)

    def wait_flags(self, port, flags):
        wait_for(lambda: self.flags(port) == flags, 10, f"{port} has {flags}")


@pytest.fixture
def lab(kernel_ports):
    with GuardLab(ports=3) as the_lab:
        the_lab.start_tarnd()
        the_lab.enable()
        yield the_lab


def test_guarded_port_opens_when_no_probe_comes_back(lab):
    lab.inside("bridge", "link", "set", "dev", "swp2", "mcast_flood", "off")
    lab.guard("swp2")
    lab.inside("bridge", "link", "set", "dev", "swp2", "flood", "on")  # meanwhile, by another program
    lab.ip("link", "set", "swp2-far", "up")
    lab.wait_flags("swp2", {**OPEN, "mcast_flood": False})
    before = lab.received("swp3-far")
    with lab.broadcasts("swp2-far", count=5, pause=0.02) as talking:
        talking.process.wait(10)
    assert lab.received("swp3-far") - before >= 5


def test_guarded_port_stays_closed_while_it_is_looped(lab):
    lab.guard("swp2")
    with lab.slow_outside("swp1"):
        lab.ip("link", "set", "swp2-far", "netns", lab.remote_namespace)
        lab.plug("swp1")
        lab.plug("swp2")
        with lab.broadcasts("swp3-far", count=100, pause=0.02):
            before = lab.received("swp3-far")
            lab.remote("ip", "link", "set", "swp2-far", "up")
            wait_for(lab.loops, 10, "the loop is on record")
            wait_for(lambda: DETECTED.format("swp2") in lab.log(), 10, "the agent has the port")
        # No frame that entered the loop left it again.
        assert lab.received("swp3-far") - before < 50
        assert lab.flags("swp2") == CLOSED
        lab.unplug("swp2")
        lab.wait_flags("swp2", OPEN)


@pytest.mark.parametrize("end", [signal.SIGTERM, signal.SIGKILL])
def test_port_left_closed_by_tarnd_is_opened(lab, end):
    lab.guard("swp2")
    lab.end_tarnd(end)
    if end == signal.SIGKILL:
        lab.configure("interface swp2", "no tarn link-up guard")
        assert lab.flags("swp2") == CLOSED
        lab.start_tarnd()
    lab.wait_flags("swp2", OPEN)
