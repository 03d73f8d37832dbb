"""The guard at link-up: a port is closed while its link is down, and opened when probes have not come back."""

import json
import signal
import time

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


def test_recovered_port_is_probed_for_its_probation(lab):
    lab.enable("shutdown", "access-mode")
    lab.configure("interface swp2", "errdisable recovery probation 3")
    with lab.reflected("swp2"):
        wait_shut(lab)
        # Nothing leaves the port but probes, so a loop that is back a second later harms nobody.
        set_reflection(lab, "off")
        sent, talked = lab.sent("swp2"), lab.received("swp3")
        with lab.broadcasts("swp3-far", count=1000, pause=0.01):
            bring_back(lab)
            wait_for(lambda: lab.received("swp3") - talked > 100, 20, "a host talks")
            assert lab.is_up("swp2") and lab.flags("swp2") == CLOSED
            set_reflection(lab, "on")
            wait_shut(lab)
            assert lab.sent("swp2") - sent < 30 and lab.flags("swp2") == CLOSED

        set_reflection(lab, "off")
        started = time.monotonic()
        bring_back(lab)
        lab.wait_flags("swp2", OPEN)
        assert 3 <= time.monotonic() - started < 6
    events = json.loads(lab.cli("show loop-detect history | json"))["events"]
    again = ["shut", "brought back", "probation"]
    assert [event["action"] for event in events] == ["loop found", *again, *again]


@pytest.mark.parametrize("end", [signal.SIGTERM, signal.SIGKILL])
@pytest.mark.parametrize("program", ["agent", "tarnd"])
def test_restart_ends_a_probation(lab, program, end):
    lab.enable("shutdown", "access-mode")
    lab.configure("interface swp2", "errdisable recovery probation 600")
    with lab.reflected("swp2"):
        wait_shut(lab)
        set_reflection(lab, "off")
        bring_back(lab)
        wait_for(lambda: lab.link("swp2")["operstate"] == "UP", 5, "the link is up")
        assert lab.flags("swp2") == CLOSED
        if program == "agent":
            wait_for(lambda: "probation 600" in lab.startup_config.read_text(), 10, "the line is saved")
            lab.kill_agent(end)
            lab.start_agent()
        else:
            lab.end_tarnd(end)
            lab.start_tarnd()
        lab.wait_flags("swp2", OPEN)
        set_reflection(lab, "on")
        wait_shut(lab)


def wait_shut(lab):
    wait_for(lambda: not lab.is_up("swp2"), 10, "swp2 is shut")
    lab.wait_flags("swp2", CLOSED)


def set_reflection(lab, switch):
    lab.remote("bridge", "link", "set", "dev", "swp2-far", "hairpin", switch)


def bring_back(lab):
    lab.cli("clear errdisable interface swp2")
    wait_for(lambda: lab.is_up("swp2"), 5, "swp2 is up")


@pytest.mark.parametrize("end", [signal.SIGTERM, signal.SIGKILL])
def test_port_left_closed_by_tarnd_is_opened(lab, end):
    lab.guard("swp2")
    lab.end_tarnd(end)
    if end == signal.SIGKILL:
        lab.configure("interface swp2", "no tarn link-up guard")
        assert lab.flags("swp2") == CLOSED
        lab.start_tarnd()
    lab.wait_flags("swp2", OPEN)
