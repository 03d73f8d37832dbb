"""The loop-probe service against real loops: kernel ports, a real agent, a real redis-server.

The traffic is bounded: every cable that closes a loop passes some thousand frames a second at most, and a timer
pulls it if the test does not.
"""

import signal
import stat
import subprocess
import sys
import threading

import pytest

from lab import CFG_DB, p_bridge, wait_for
from storm_lab import DETECTED
from tarn_lab import CABLE, LONGEST_LOOP_S, TarnLab

# Prints how many probes arrive on a device, named first, in so many seconds.
COUNT_PROBES = """
import socket, sys, time
link = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x88b5))
link.bind((sys.argv[1], 0x88b5))
count, end = 0, time.monotonic() + float(sys.argv[2])
while (left := end - time.monotonic()) > 0:
    link.settimeout(left)
    try:
        link.recv(2000)
        count += 1
    except TimeoutError:
        break
print(count)
"""


@pytest.fixture
def lab(kernel_ports):
    with TarnLab(ports=4) as the_lab:
        yield the_lab


def test_configuration_is_on_record(lab):
    lab.configure("tarn enable", "tarn cut one", "tarn priority 7", "tarn probe-interval 250",
                  "tarn fabric-key /etc/lda/fabric", "interface swp2", "tarn port loop-detect warning",
                  "tarn link-up guard", "tarn vlan 10-12,30", "switchport mode hybrid")
    database = lab.database(CFG_DB)

    def switch():
        packed = database.get("p_bridge.tarn_config/")
        return str(p_bridge.tarn_config.FromString(packed)) if packed else ""

    wait_for(lambda: "fabric_key" in switch(), 10, "the switch's record is there")
    assert switch() == ('enabled: 1\nprobe_interval_ms: 250\ncut_one: 1\npriority: 7\n'
                        'fabric_key: "/etc/lda/fabric"\n')

    def port():
        return p_bridge.tarn_port.FromString(database.get(f"p_bridge.tarn_port/ifx={lab.ifindex('swp2')}"))

    wait_for(lambda: port().vlan_mode == 7, 10, "the port's record is complete")
    assert (port().loop_detect, port().shut, port().guard_ms, list(port().vlans)) == (1, 0, 30, [10, 11, 12, 30])
    lab.configure("no tarn cut one", "interface swp2", "no tarn vlan", "no tarn link-up guard")
    wait_for(lambda: (port().guard_ms, list(port().vlans), "cut_one" in switch()) == (0, [], False), 10,
             "what is taken back leaves the records")


def test_loop_through_a_remote_bridge_is_reported_and_nothing_is_cut_under_warning(lab):
    lab.start_tarnd()
    lab.enable()
    with lab.slow_outside("swp1", "swp2"), lab.broadcasts("swp3-far", count=200):
        lab.plug("swp1")
        lab.plug("swp2")
        wait_for(lab.loops, 10, "the loop is on record")
        assert lab.loops() <= {("swp1", "swp2"), ("swp2", "swp1")}
        wait_for(lambda: DETECTED.format("swp1") in lab.log() and DETECTED.format("swp2") in lab.log(), 10,
                 "the agent has both ports")
        assert lab.down_ports() == []
        lab.unplug("swp2")
        wait_for(lambda: not lab.loops(), 10, "the record is withdrawn after three silent probes", every=0.1)
    assert lab.down_ports() == []
    assert DETECTED.format("swp3") not in lab.log()


def test_loop_through_a_remote_bridge_is_cut_and_the_agent_owns_the_ports(lab):
    lab.start_tarnd()
    lab.enable("shutdown access-mode")
    with lab.slow_outside("swp1", "swp2"), lab.broadcasts("swp3-far", count=200):
        lab.plug("swp1")
        lab.plug("swp2")
        wait_for(lambda: lab.down_ports() == ["swp1", "swp2"], 10, "both ports are shut")
        config = lab.cli("show running-config")
        for port in ("swp1", "swp2"):
            assert " loop-detect apply shutdown-port\n" in config.split(f"interface {port}\n")[1].split("!")[0]
        wait_for(lambda: not lab.loops(), 10, "ports that are down are in no loop")
        # The agent has taken the ports over, so tarnd gives none of them back.
        assert lab.end_tarnd() == -signal.SIGTERM
        assert lab.down_ports() == ["swp1", "swp2"]
        assert "tarnd_" not in lab.ruleset()


def test_silent_loop_present_before_the_start_is_found(lab):
    with lab.slow_outside("swp1", "swp4"):
        lab.plug("swp1")
        lab.plug("swp4")
        lab.start_tarnd()
        lab.enable("shutdown access-mode")
        # A port whose own detection comes later is not needed to find the loop and open it.
        wait_for(lab.down_ports, 10, "the loop is open")
        assert set(lab.down_ports()) <= {"swp1", "swp4"}


def test_cable_between_two_ports_is_cut(lab):
    lab.start_tarnd()
    lab.enable("shutdown access-mode")
    lab.batch("link add name swp5 type veth peer name swp6")
    for end in ("swp5", "swp6"):
        lab.inside("tc", "qdisc", "replace", "dev", end, "root", "tbf", *CABLE)
    lab.port_names += ["swp5", "swp6"]
    lab.batch("link set swp5 master br0", "link set swp6 master br0")
    wait_for(lambda: len(lab.watched_ports()) == 6, 10, "the new ports are watched")
    end = threading.Timer(LONGEST_LOOP_S, lambda: lab.ip("link", "delete", "swp5"))
    end.start()
    try:
        with lab.broadcasts("swp3-far", count=100):
            lab.batch("link set swp5 up", "link set swp6 up")
            wait_for(lambda: lab.down_ports() == ["swp5", "swp6"], 10, "both ends are shut")
    finally:
        end.cancel()


def test_port_that_reflects_its_frames_is_cut(lab):
    lab.start_tarnd()
    lab.enable("shutdown access-mode")
    with lab.slow_outside("swp2"):
        lab.plug("swp2")
        lab.remote("bridge", "link", "set", "dev", "swp2-far", "hairpin", "on")
        wait_for(lambda: lab.down_ports() == ["swp2"], 10, "the port is shut")
    assert DETECTED.format("swp2") in lab.log()


def test_own_probes_do_not_multiply_in_a_loop(lab):
    lab.start_tarnd()
    lab.enable()
    with lab.slow_outside("swp1", "swp2"):
        lab.plug("swp1")
        lab.plug("swp2")
        wait_for(lab.loops, 10, "the loop is on record")
        # A looped probe that nothing drops would be flooded out of swp3 thousands of times.
        assert 2 <= int(lab.inside(sys.executable, "-c", COUNT_PROBES, "swp3-far", "4")) <= 20


def test_port_that_spanning_tree_blocks_is_neither_probed_nor_believed(lab):
    lab.ip("link", "set", "br0", "type", "bridge", "stp_state", "1", "forward_delay", "200")

    def states():
        return [lab.states()[port] for port in ("swp1", "swp2")]

    with lab.slow_outside("swp1", "swp2"):
        lab.plug("swp1")
        lab.plug("swp2")
        wait_for(lambda: states() == ["forwarding", "blocking"], 30, "spanning tree has blocked a port", every=0.2)
        lab.start_tarnd()
        lab.enable("shutdown access-mode")
        # Probes of swp1 leave once a second, and swp2-far passes them on to the blocked port.
        before = lab.received("swp2")
        wait_for(lambda: lab.received("swp2") - before >= 8, 30, "probes have come by", every=0.2)
        assert lab.loops() == set()
        assert lab.down_ports() == []
        assert states() == ["forwarding", "blocking"]


def test_what_a_killed_tarnd_has_left_is_ended_by_the_next(lab):
    lab.start_tarnd()
    lab.enable()
    with lab.slow_outside("swp1", "swp2"):
        lab.plug("swp1")
        lab.plug("swp2")
        wait_for(lab.loops, 10, "the loop is on record")
        lab.end_tarnd(signal.SIGKILL)
        lab.unplug("swp1")
        lab.unplug("swp2")
        assert lab.loops() != set()
        lab.start_tarnd()
        wait_for(lambda: not lab.loops(), 10, "the next tarnd has ended the record")


def test_cut_that_nobody_takes_over_is_undone(lab):
    lab.start_tarnd()
    lab.enable("shutdown access-mode")
    lab.agent.send_signal(signal.SIGSTOP)
    with lab.slow_outside("swp2"):
        lab.plug("swp2")
        lab.remote("bridge", "link", "set", "dev", "swp2-far", "hairpin", "on")
        wait_for(lambda: lab.down_ports() == ["swp2"], 10, "the port is cut")
        lab.end_tarnd(signal.SIGKILL)
        lab.unplug("swp2")
        lab.start_tarnd()
        wait_for(lambda: lab.down_ports() == [], 20, "the next tarnd has undone the cut")
    lab.agent.send_signal(signal.SIGCONT)


def test_half_a_cut_of_a_killed_tarnd_is_undone(lab):
    """A loop behind one port: the bridge's port is disabled first, and the process died before the link was down."""
    lab.start_tarnd()
    lab.enable("shutdown access-mode")
    lab.end_tarnd(signal.SIGKILL)
    lab.inside("bridge", "link", "set", "dev", "swp2", "state", "0")
    assert "state disabled" in lab.inside("bridge", "link", "show", "dev", "swp2")
    cuts = lab.folder / "tarn" / "cuts"
    boot = cuts.read_bytes()[:64]
    cuts.write_bytes(boot + lab.ifindex("swp2").to_bytes(8, "little"))
    lab.start_tarnd()
    wait_for(lambda: "state forwarding" in lab.inside("bridge", "link", "show", "dev", "swp2"), 20,
             "the port forwards again")


def test_loop_through_another_bridge_of_the_same_namespace_is_found(lab):
    lab.start_tarnd()
    lab.enable()
    lab.ip("link", "add", "outside", "up", "type", "bridge")
    end = threading.Timer(LONGEST_LOOP_S, lambda: lab.ip("link", "delete", "outside"))
    end.start()
    try:
        for port in ("swp1", "swp2"):
            lab.inside("tc", "qdisc", "replace", "dev", f"{port}-far", "root", "tbf", *CABLE)
            lab.ip("link", "set", f"{port}-far", "master", "outside")
        wait_for(lab.loops, 10, "the loop is on record")
        assert lab.loops() <= {("swp1", "swp2"), ("swp2", "swp1")}
        assert 1 <= int(lab.inside(sys.executable, "-c", COUNT_PROBES, "swp3-far", "3")) <= 20
        lab.ip("link", "delete", "outside")
        wait_for(lambda: not lab.loops(), 10, "the record is withdrawn")
    finally:
        end.cancel()


def test_tarnd_that_is_told_to_end_ends_its_loop_records(lab):
    lab.start_tarnd()
    lab.enable()
    with lab.slow_outside("swp1", "swp2"):
        lab.plug("swp1")
        lab.plug("swp2")
        wait_for(lab.loops, 10, "the loop is on record")
        assert lab.end_tarnd() == -signal.SIGTERM
        assert lab.loops() == set()


def test_port_that_an_operator_shuts_while_the_database_is_away_stays_shut(lab):
    lab.start_tarnd()
    lab.enable("shutdown access-mode")
    lab.redis_server.send_signal(signal.SIGSTOP)
    with lab.slow_outside("swp2"):
        lab.plug("swp2")
        lab.remote("bridge", "link", "set", "dev", "swp2-far", "hairpin", "on")
        wait_for(lambda: lab.down_ports() == ["swp2"], 10, "the port is cut")
        lab.configure("interface swp2", "shutdown")
        with pytest.raises(AssertionError):
            wait_for(lambda: lab.down_ports() == [], 7, "the cut is undone")
        lab.redis_server.send_signal(signal.SIGCONT)
        wait_for(lambda: not lab.cuts(), 20, "the switch has taken the port over")
    assert lab.end_tarnd() == -signal.SIGTERM
    assert lab.down_ports() == ["swp2"]


def test_second_tarnd_on_the_bridge_names_the_first(lab):
    lab.start_tarnd()
    second = subprocess.run(lab.tarnd_command(), env=lab.environment(), capture_output=True, text=True, check=False,
                            timeout=20)
    assert second.returncode == 1
    assert second.stderr == f"tarnd: another tarnd (process {lab.tarnd.pid}) probes bridge br0\n"
    key = lab.folder / "tarn" / "key"
    assert stat.S_IMODE(key.stat().st_mode) == 0o600
