"""The loop-probe service and every shape of loop: a host keeps talking, and a bystander counts the stray frames.

Probes come every second here. Storm detection alone would need more than eight.
"""

import sys
import time

import pytest

from lab import APP_DB, CFG_DB, wait_for
from storm_lab import DETECTED, Program
from tarn_lab import TarnLab
from tarn_loops import KINDS, LoopedHub, Reflection, RemoteBridge, Traffic

SHUTDOWN = "shutdown access-mode"
# Each cable passes some 8,000 frames a second; a machine with other work cuts late.
MOST_STRAY = 60_000

# Stations that move: names of the devices, number of stations, moves a second, seconds. A station that has moved says
# so with a broadcast, and never returns within three seconds.
STATIONS = """
import socket, sys, time
*devices, stations, speed, seconds = sys.argv[1:]
ends = [socket.socket(socket.AF_PACKET, socket.SOCK_RAW) for _ in devices]
for end, device in zip(ends, devices):
    end.bind((device, 0))
start, moves = time.monotonic(), 0
while (now := time.monotonic()) < start + float(seconds):
    while moves < (now - start) * float(speed):
        turn, station = divmod(moves, int(stations))
        end = ends[(station + turn) % len(ends)]
        address = bytes.fromhex("020000ff") + station.to_bytes(2, "big")
        end.send(bytes.fromhex("ffffffffffff") + address + bytes.fromhex("88b6") + bytes(46))
        moves += 1
    time.sleep(0.005)
"""


@pytest.fixture
def lab(kernel_ports):
    with TarnLab(ports=5) as the_lab:
        yield the_lab


def recover(lab):
    """A policy that shuts nothing makes the agent release its ports."""
    lab.configure("loop-detect enable")
    wait_for(lambda: lab.down_ports() == [], 10, "no port is left dark")
    wait_for(lambda: lab.loops() == set(), 10, "no loop is left on record")


def wait_shut(lab):
    """Waits until a port is down and the agent owns all ports that are down, and returns those."""
    def owned():
        down, config = lab.down_ports(), lab.cli("show running-config")
        marked = [port for port in lab.port_names
                  if " loop-detect apply shutdown-port\n" in config.split(f"interface {port}\n")[1].split("!")[0]]
        return down if down == marked else None
    return wait_for(owned, 15, "what is down is marked as shut by the agent", every=0.1)


@pytest.mark.parametrize("kind", list(KINDS))
def test_loop_is_cut_while_other_ports_forward_and_no_port_stays_down(lab, kind):
    lab.start_tarnd()
    lab.enable(SHUTDOWN)
    with KINDS[kind](lab) as loop, Traffic(lab) as traffic:
        traffic.wait_calm()
        loop.plug()
        down = wait_shut(lab)
        stray = traffic.wait_calm()
        print(f"{kind}: {stray} stray frames, {down} shut")
        assert set(down) <= set(loop.shut)
        assert set(lab.reported()) & set(down), "a probe has found it"
        assert stray < MOST_STRAY
        assert all(DETECTED.format(port) in lab.log() for port in down)
        loop.unplug()
        recover(lab)
        if not loop.carrier:
            before = traffic.stray()
            lab.wait_links(*loop.ports)
            assert traffic.wait_calm() - before <= 1, "no loop, no stray frame"
        assert lab.down_ports() == []
    assert DETECTED.format("swp3") not in lab.log() and DETECTED.format("swp4") not in lab.log()


@pytest.mark.parametrize("kind", ["cable", "remote-bridge", "looped-hub", "slow-ring"])
def test_loop_is_only_reported_under_warning(lab, kind):
    lab.start_tarnd()
    lab.enable()
    with KINDS[kind](lab) as loop, Traffic(lab) as traffic:
        loop.plug()
        wait_for(lab.loops, 10, "the loop is on record")
        wait_for(lambda: any(DETECTED.format(port) in lab.log() for port in loop.ports), 10, "the agent knows")
        assert {port for pair in lab.loops() for port in pair} <= set(loop.ports)
        assert lab.down_ports() == []
        loop.unplug()
        wait_for(lambda: lab.loops() == set(), 10, "the record is withdrawn")
        traffic.wait_calm()
        assert lab.down_ports() == []


@pytest.mark.parametrize("kind", [RemoteBridge, LoopedHub, Reflection])
def test_silent_loop_is_found(lab, kind):
    lab.start_tarnd()
    lab.enable(SHUTDOWN)
    with kind(lab) as loop:
        loop.plug()
        assert set(wait_shut(lab)) <= set(loop.shut)
        loop.unplug()
        recover(lab)


@pytest.mark.parametrize("kind", ["remote-bridge", "looped-hub"])
def test_storm_that_precedes_the_start_is_ended(lab, kind):
    with KINDS[kind](lab) as loop, Traffic(lab) as traffic:
        loop.plug()
        wait_for(lambda: traffic.stray() > 2000, 10, "there is a storm")
        lab.start_tarnd()
        lab.configure(f"loop-detect enable {SHUTDOWN}")
        down = wait_shut(lab)
        traffic.wait_calm()
        assert set(down) <= set(loop.shut)
        loop.unplug()
        recover(lab)


def test_malformed_records_are_ignored(lab):
    lab.start_tarnd()
    lab.enable(SHUTDOWN)
    database = lab.database(CFG_DB)
    kinds = {key.decode().split("/")[0] for key in database.keys("*")}
    assert {"p_bridge.tarn_config", "p_bridge.tarn_port"} <= kinds
    for kind in ("p_bridge.tarn_config", "p_bridge.tarn_port", "p_app.lda_nc_policy"):
        lab.set_record(CFG_DB, kind, "ifx=1" if kind.endswith("port") else "", b"\xff" * 40)
    lab.set_record(CFG_DB, "p_bridge.tarn_port", "ifx=2", b"")  # of no port
    lab.set_record(APP_DB, "p_bridge.tarn_loop_info", "ifx=1", b"\x0a")
    with RemoteBridge(lab) as loop:
        loop.plug()
        assert set(wait_shut(lab)) <= set(loop.shut)
    assert lab.tarnd.poll() is None


def come_and_go(lab, rounds, seconds):
    """A loop that alternates between present and absent; ports that the policy shuts stay shut."""
    with RemoteBridge(lab) as loop, Traffic(lab) as traffic:
        for _ in range(rounds):
            loop.plug()
            time.sleep(seconds)
            loop.unplug()
            time.sleep(seconds)
        assert set(lab.down_ports()) <= set(loop.shut)
        traffic.wait_calm()
        wait_for(lambda: lab.loops() == set(), 10, "no loop is left on record")
        recover(lab)
        return traffic.stray()


def test_intermittent_loop_is_cut_once(lab):
    lab.start_tarnd()
    lab.configure("tarn probe-interval 100")
    lab.enable(SHUTDOWN)
    assert come_and_go(lab, rounds=8, seconds=0.2) < MOST_STRAY
    assert lab.log().count(DETECTED.format("swp1")) == 1


def test_intermittent_loop_is_reported_each_time_under_warning(lab):
    lab.start_tarnd()
    lab.configure("tarn probe-interval 100")
    lab.enable()
    with RemoteBridge(lab) as loop:
        for _ in range(3):
            loop.plug()
            wait_for(lab.loops, 10, "the loop is on record")
            loop.unplug()
            wait_for(lambda: lab.loops() == set(), 10, "the record is withdrawn")
    assert lab.down_ports() == []


@pytest.mark.patient
def test_intermittent_loop_for_three_minutes(lab):
    lab.start_tarnd()
    lab.enable(SHUTDOWN)
    assert come_and_go(lab, rounds=30, seconds=3) < MOST_STRAY


@pytest.mark.parametrize("root", ["far", "near"])
def test_redundant_uplinks_under_spanning_tree_are_no_loop(lab, root):
    timers = ("stp_state", "1", "forward_delay", "200", "hello_time", "100", "max_age", "600")
    lab.start_tarnd()
    lab.configure("tarn probe-interval 100")
    lab.enable(SHUTDOWN)
    lab.ip("link", "set", "br0", "type", "bridge", *timers, "priority", "4096" if root == "near" else "8192")
    with RemoteBridge(lab) as uplinks, Traffic(lab) as traffic:
        lab.remote("ip", "link", "set", "outside", "type", "bridge", *timers, "priority", "6144")
        uplinks.plug()

        def states():
            """Of both ends of both uplinks."""
            return [(lab.states()[port], lab.states(lab.remote_namespace)[f"{port}-far"]) for port in uplinks.ports]

        second = ("forwarding", "blocking") if root == "near" else ("blocking", "forwarding")
        usual = [("forwarding", "forwarding"), second]
        wait_for(lambda: states() == usual, 30, "one of the uplinks is blocked", every=0.1)
        # The first uplink fails, the second one takes over, the first one returns.
        lab.remote("ip", "link", "set", "swp1-far", "down")
        wait_for(lambda: states()[1] == ("forwarding", "forwarding"), 30, "the second uplink has taken over", every=0.1)
        lab.remote("ip", "link", "set", "swp1-far", "up")
        wait_for(lambda: states() == usual, 30, "the first uplink is back", every=0.1)
        traffic.wait_calm()
        assert abs(traffic.stray()) <= 1
        assert lab.down_ports() == [] and lab.loops() == set()
    assert "Detected loop error" not in lab.log()


@pytest.fixture
def busy_lab(kernel_ports):
    with TarnLab(ports=48) as the_lab:
        yield the_lab


def processor_seconds(pid):
    fields = open(f"/proc/{pid}/stat").read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / 100


def test_ordinary_traffic_and_moving_stations_are_no_loop(busy_lab):
    lab = busy_lab
    lab.start_tarnd()
    lab.enable(SHUTDOWN)
    seconds = 6
    # A thousand stations that move every minute are seventeen moves a second.
    movers = Program("ip", "netns", "exec", lab.namespace, sys.executable, "-c", STATIONS,
                     *(f"swp{number}-far" for number in range(10, 40)), "60", "17", str(seconds))
    with movers, lab.hosts("swp1-far", "swp2-far", pairs=20, at_a_time=20, turn=60, speed=25_000, seconds=seconds):
        before, started, innocent = processor_seconds(lab.tarnd.pid), time.monotonic(), lab.received("swp1")
        movers.process.wait()
        took = time.monotonic() - started
        used = (processor_seconds(lab.tarnd.pid) - before) / took
        speed = 2 * (lab.received("swp1") - innocent) / took
    print(f"{speed:.0f} frames/s: {100 * used:.1f} % of a core")
    assert speed > 5_000, "there was traffic"
    assert lab.loops() == set() and lab.down_ports() == []
    assert "Detected loop error" not in lab.log()
    assert used < 0.05
