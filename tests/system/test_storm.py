"""Storms in the kernel: ports of a bridge whose far ends are joined, a real agent, a host that talks now and then.

The traffic is bounded: the agent's meter lets 2 x RATE frames a second through each port, and every test ends
its loop itself when the agent does not.
"""

import signal
import subprocess
import sys
import time

import pytest

from lab import Lab, wait_for

RATE = 1000  # frames per second
DETECTED = "%LOOP_DETECT-3-ERROR: Detected loop error on interface {}."
REFUSED = ("%FORWARDING-3-REFUSED: A rule of storm-loop-detect cannot be installed: Operation not permitted. "
           "Storms are not found there.")

# Five broadcast frames a second, like hosts that ask for addresses.
HOST = """
import socket, time
link = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
link.bind(("swp3-far", 0))
frame = bytes.fromhex("ffffffffffff" "02000000aa01" "88b6") + bytes(46)
for _ in range(200):
    link.send(frame)
    time.sleep(0.2)
"""


@pytest.fixture
def lab(kernel_ports):
    with Lab(switch="linux", ports=4) as the_lab:
        # No frames but those of the test.
        for scope in ("all", "default"):
            the_lab.inside("sh", "-c", f"echo 1 > /proc/sys/net/ipv6/conf/{scope}/disable_ipv6")
        reason = packet_filter_reason(the_lab)
        if reason:
            pytest.skip(reason)
        the_lab.start_redis()
        the_lab.start_agent()
        yield the_lab


def packet_filter_reason(lab):
    probe = subprocess.run(["ip", "netns", "exec", lab.namespace, "nft", "add table netdev probe; delete table "
                            "netdev probe"], capture_output=True, text=True, check=False)
    return None if probe.returncode == 0 else f"packet filter of the netdev family: {probe.stderr.strip()}"


def watch(lab, *ports):
    lab.configure("loop-detect enable shutdown access-mode")
    for port in ports:
        lab.configure(f"interface {port}", f"storm-loop-rate ratelimit {RATE}")


def join(lab, *ports):
    """Another bridge, on the far ends of the ports."""
    lab.ip("link", "add", "outside", "type", "bridge")
    lab.ip("link", "set", "outside", "up")
    for port in ports:
        lab.ip("link", "set", f"{port}-far", "master", "outside")


class Host:
    """Talks while the `with` block lasts."""

    def __init__(self, lab):
        self.command = ["ip", "netns", "exec", lab.namespace, sys.executable, "-c", HOST]

    def __enter__(self):
        self.process = subprocess.Popen(self.command)
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()


def received(lab, port):
    path = f"/sys/class/net/{port}/statistics/rx_packets"
    return int(lab.inside("cat", path))


def rules(lab):
    """Devices that have a rule."""
    listing = lab.inside("nft", "list", "chains")
    return sorted(line.split('"')[1] for line in listing.splitlines() if "device" in line)


def ruleset(lab):
    return lab.inside("nft", "-s", "list", "ruleset")


def test_storm_between_two_ports_is_judged_shut_and_over(lab):
    watch(lab, "swp1", "swp2")
    join(lab, "swp1", "swp2")
    with Host(lab):
        started = time.monotonic()
        wait_for(lambda: not lab.is_up("swp1") or not lab.is_up("swp2"), 20, "a port is shut", every=0.1)
        took = time.monotonic() - started
        assert 8 <= took <= 16
        wait_for(lambda: not lab.is_up("swp1") and not lab.is_up("swp2"), 5, "both ports are shut", every=0.1)
        for port in ("swp1", "swp2"):
            assert DETECTED.format(port) in lab.log()
            # Four seconds of the meter at once, then its rate; the frames of the host beside them.
            assert received(lab, port) > 8 * RATE
        before = received(lab, "swp1") + received(lab, "swp2")
        time.sleep(1)
        assert received(lab, "swp1") + received(lab, "swp2") - before <= 20
    # The port of the host, which no storm comes in from, is left alone.
    assert lab.is_up("swp3") and lab.is_up("swp4")
    assert DETECTED.format("swp3") not in lab.log()


def test_port_removed_in_mid_storm_gets_its_rule_back(lab):
    watch(lab, "swp1", "swp2")
    join(lab, "swp1", "swp2")
    assert rules(lab) == ["swp1", "swp2", "swp3", "swp4"]
    with Host(lab):
        wait_for(lambda: received(lab, "swp1") > 4 * RATE, 5, "there is a storm", every=0.1)
        lab.ip("link", "delete", "swp1")
        wait_for(lambda: rules(lab) == ["swp2", "swp3", "swp4"], 5, "its rule is gone")
        before = received(lab, "swp2")
        time.sleep(1)
        assert received(lab, "swp2") - before <= 20, "the storm ended with the ring"
        lab.add_port("swp1")
        wait_for(lambda: rules(lab) == ["swp1", "swp2", "swp3", "swp4"], 5, "its rule is back")
    assert lab.agent.poll() is None
    assert lab.cli_status("show loop-detect") == 0


def test_other_tables_stay_and_our_own_goes_with_the_agent(lab):
    assert lab.kill_agent(signal.SIGTERM) == -signal.SIGTERM
    lab.inside("nft", "add table netdev theirs; add chain netdev theirs in { type filter hook ingress device "
               '"swp1" priority 5; policy accept; }; add rule netdev theirs in counter; add table inet lda; '
               "add set inet lda fdb { type ether_addr; elements = { 02:00:00:00:00:01 } ; }")
    theirs = ruleset(lab)
    lab.start_agent()
    watch(lab, "swp1")
    assert rules(lab) == ["swp1", "swp1", "swp2", "swp3", "swp4"]

    lab.kill_agent()
    lab.inside("nft", 'add chain netdev lda port1.9999 { type filter hook ingress device "swp1" priority 0; }')
    lab.start_agent()
    wait_for(lambda: "port1.9999" not in ruleset(lab), 10, "what a killed agent left was removed by the next one")
    watch(lab, "swp1")
    assert rules(lab) == ["swp1", "swp1", "swp2", "swp3", "swp4"]
    assert lab.kill_agent(signal.SIGTERM) == -signal.SIGTERM
    assert ruleset(lab) == theirs


def test_agent_without_the_privilege_says_so_and_goes_on_with_the_probes(lab):
    lab.kill_agent(signal.SIGTERM)
    lab.start_agent(through=["setpriv", "--bounding-set=-net_admin"])
    watch(lab, "swp1")
    wait_for(lambda: REFUSED in lab.log(), 5, "the refusal is logged")
    assert "storm-loop-detect enable" not in lab.cli("show running-config")
    lab.report_loop("swp2", is_loop=1)
    wait_for(lambda: DETECTED.format("swp2") in lab.log(), 5, "the probes' loop is detected")
    assert lab.agent.poll() is None
