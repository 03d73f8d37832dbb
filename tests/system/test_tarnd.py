"""The loop-probe service against real loops: kernel ports, a real agent, a real redis-server.

The traffic is bounded: every cable that closes a loop passes some thousand frames a second at most, and a timer
pulls it if the test does not.
"""

import os
import pathlib
import signal
import stat
import subprocess
import sys
import time

import pytest

from lab import APP_DB, CFG_DB, p_bridge, wait_for
from storm_lab import DETECTED
from tarn_lab import CABLE, COUNT_PROBES, TarnLab, in_time


@pytest.fixture
def lab(kernel_ports):
    with TarnLab(ports=4) as the_lab:
        yield the_lab


def test_configuration_is_recorded(lab):
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
    with lab.broadcasts("swp3-far", count=200), lab.looped("swp1", "swp2"):
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
    with lab.broadcasts("swp3-far", count=200), lab.looped("swp1", "swp2"):
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
    with lab.looped("swp1", "swp4"):
        lab.start_tarnd()
        lab.enable("shutdown access-mode")
        # Finding and opening the loop does not need a port whose own detection comes later.
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
    with in_time(lambda: lab.ip("link", "delete", "swp5")), lab.broadcasts("swp3-far", count=100):
        lab.batch("link set swp5 up", "link set swp6 up")
        wait_for(lambda: lab.down_ports() == ["swp5", "swp6"], 10, "both ends are shut")


def test_port_that_reflects_its_frames_is_cut(lab):
    lab.start_tarnd()
    lab.enable("shutdown access-mode")
    with lab.reflected("swp2"):
        wait_for(lambda: lab.down_ports() == ["swp2"], 10, "the port is shut")
    assert DETECTED.format("swp2") in lab.log()


def test_own_probes_do_not_multiply_in_a_loop(lab):
    lab.start_tarnd()
    lab.enable()
    with lab.looped("swp1", "swp2"):
        wait_for(lab.loops, 10, "the loop is on record")
        # A looped probe that nobody drops would be flooded out of swp3 thousands of times.
        assert 2 <= int(lab.inside(sys.executable, "-c", COUNT_PROBES, "swp3-far", "4")) <= 20


def test_port_blocked_by_spanning_tree_is_neither_probed_nor_trusted(lab):
    lab.ip("link", "set", "br0", "type", "bridge", "stp_state", "1", "forward_delay", "200")

    def states():
        return [lab.states()[port] for port in ("swp1", "swp2")]

    with lab.looped("swp1", "swp2"):
        wait_for(lambda: states() == ["forwarding", "blocking"], 30, "spanning tree has blocked a port", every=0.2)
        lab.start_tarnd()
        lab.enable("shutdown access-mode")
        # Probes of swp1 leave once a second, and swp2-far passes them on to the blocked port.
        before = lab.received("swp2")
        wait_for(lambda: lab.received("swp2") - before >= 8, 30, "probes have come by", every=0.2)
        assert lab.loops() == set()
        assert lab.down_ports() == []
        assert states() == ["forwarding", "blocking"]


def test_next_tarnd_ends_the_loops_of_a_killed_one(lab):
    lab.start_tarnd()
    lab.enable()
    with lab.looped("swp1", "swp2"):
        wait_for(lab.loops, 10, "the loop is on record")
        lab.end_tarnd(signal.SIGKILL)
        lab.unplug("swp1")
        lab.unplug("swp2")
        assert lab.loops() != set()
        lab.start_tarnd()
        wait_for(lambda: not lab.loops(), 10, "the next tarnd has ended the record")


def test_cut_that_the_agent_does_not_take_over_is_undone(lab):
    lab.start_tarnd()
    lab.enable("shutdown access-mode")
    lab.agent.send_signal(signal.SIGSTOP)
    with lab.reflected("swp2"):
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
    with in_time(lambda: lab.ip("link", "delete", "outside")):
        for port in ("swp1", "swp2"):
            lab.inside("tc", "qdisc", "replace", "dev", f"{port}-far", "root", "tbf", *CABLE)
            lab.ip("link", "set", f"{port}-far", "master", "outside")
        wait_for(lab.loops, 10, "the loop is on record")
        assert lab.loops() <= {("swp1", "swp2"), ("swp2", "swp1")}
        assert 1 <= int(lab.inside(sys.executable, "-c", COUNT_PROBES, "swp3-far", "3")) <= 20
        lab.ip("link", "delete", "outside")
        wait_for(lambda: not lab.loops(), 10, "the record is withdrawn")


def test_terminated_tarnd_ends_its_loop_records(lab):
    lab.start_tarnd()
    lab.enable()
    with lab.looped("swp1", "swp2"):
        wait_for(lab.loops, 10, "the loop is on record")
        assert lab.end_tarnd() == -signal.SIGTERM
        assert lab.loops() == set()


def test_port_shut_by_an_operator_while_the_database_is_away_stays_shut(lab):
    lab.start_tarnd()
    lab.enable("shutdown access-mode")
    lab.redis_server.send_signal(signal.SIGSTOP)
    with lab.reflected("swp2"):
        wait_for(lambda: lab.down_ports() == ["swp2"], 10, "the port is cut")
        lab.configure("interface swp2", "shutdown")
        with pytest.raises(AssertionError):
            wait_for(lambda: lab.down_ports() == [], 7, "the cut is undone")
        lab.redis_server.send_signal(signal.SIGCONT)
        wait_for(lambda: not lab.cuts(), 20, "the switch has taken the port over")
    assert lab.end_tarnd() == -signal.SIGTERM
    assert lab.down_ports() == ["swp2"]


def test_each_processor_has_a_probing_thread_of_its_own(lab):
    lab.start_tarnd()
    folders = pathlib.Path("/proc", str(lab.tarnd.pid), "task").iterdir()
    probing = [int(folder.name) for folder in folders if (folder / "comm").read_text() == "tarnd_probe\n"]
    processors = sorted(os.sched_getaffinity(0))[:4]
    assert sorted(os.sched_getaffinity(thread) for thread in probing) == [{number} for number in processors]
    assert {os.sched_getscheduler(thread) for thread in probing} == {os.SCHED_RR}
    assert {os.sched_getparam(thread).sched_priority for thread in probing} == {1}


def test_second_tarnd_on_the_bridge_names_the_first(lab):
    lab.start_tarnd()
    second = subprocess.run(lab.tarnd_command(), env=lab.environment(), capture_output=True, text=True, check=False,
                            timeout=20)
    assert second.returncode == 1
    assert second.stderr == f"tarnd: another tarnd (process {lab.tarnd.pid}) probes bridge br0\n"
    key = lab.folder / "tarn" / "key"
    assert stat.S_IMODE(key.stat().st_mode) == 0o600


def state_on_record(lab, port):
    packed = lab.database(APP_DB).get(f"p_bridge.tarn_port_state/ifx={lab.ifindex(port)}")
    return p_bridge.tarn_port_state.FromString(packed).state if packed else None


def test_record_deleted_while_the_database_was_away_is_forgotten(lab):
    lab.start_tarnd()
    lab.enable()
    wait_for(lambda: state_on_record(lab, "swp2") == p_bridge.PROBING, 10, "swp2 is probed")
    lab.kill_agent()  # it would write the record again
    lab.database(CFG_DB).delete(f"p_bridge.tarn_port/ifx={lab.ifindex('swp2')}")
    for kind in ("normal", "pubsub"):
        lab.database(0).client_kill_filter(_type=kind)
    wait_for(lambda: state_on_record(lab, "swp2") == p_bridge.OFF, 40, "swp2 is not probed any more", every=0.2)
    assert state_on_record(lab, "swp1") == p_bridge.PROBING


# Prints the next probe that arrives on a device, in hexadecimal digits.
CATCH_PROBE = """
import socket, sys
link = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x88b5))
link.bind((sys.argv[1], 0x88b5))
link.settimeout(20)
print(link.recv(2000).hex())
"""
# Sends a frame out of a device: its name and the frame.
SEND_FRAME = """
import socket, sys
link = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
link.bind((sys.argv[1], 0))
link.send(bytes.fromhex(sys.argv[2]))
"""


def test_probe_received_while_tarnd_was_stopped_proves_nothing(lab):
    lab.start_tarnd()
    lab.enable("shutdown access-mode")
    probe = lab.inside(sys.executable, "-c", CATCH_PROBE, "swp1-far").strip()
    lab.tarnd.send_signal(signal.SIGSTOP)
    os.waitid(os.P_PID, lab.tarnd.pid, os.WSTOPPED)
    lab.inside(sys.executable, "-c", SEND_FRAME, "swp2-far", probe)
    time.sleep(2.5)  # a probe counts for two seconds
    lab.tarnd.send_signal(signal.SIGCONT)

    def counters():
        packed = lab.database(APP_DB).get("p_bridge.tarn_counters/")
        return p_bridge.tarn_counters.FromString(packed)

    wait_for(lambda: counters().late == 1, 10, "the late probe is counted")
    assert counters().returned == 0
    assert lab.reported() == set() and lab.down_ports() == []
