"""Loops that only tagged frames go round: the other machine's bridge passes frames of VLAN 7 and no others."""

import json
import subprocess

import pytest

from lab import APP_DB, BUILD, p_bridge, wait_for
from storm_lab import DETECTED
from tarn_lab import TarnLab
from tarn_loops import OneVlan, Traffic

SHUTDOWN = "shutdown access-mode"
MOST_STRAY = 60_000


@pytest.fixture
def lab(kernel_ports):
    with TarnLab(ports=5) as the_lab:
        the_lab.start_tarnd()
        yield the_lab


def list_vlans(lab, vlans):
    for port in lab.port_names:
        lab.configure(f"interface {port}", f"tarn vlan {vlans}")


def records(lab):
    database = lab.database(APP_DB)
    return [p_bridge.tarn_loop_info.FromString(database.get(key)) for key in database.keys("p_bridge.tarn_loop_info/*")]


def tarnctl(lab, *words):
    program = str(BUILD / "tools" / "tarnctl" / "tarnctl")
    done = subprocess.run(["ip", "netns", "exec", lab.namespace, program, "--json", *words], env=lab.environment(),
                          capture_output=True, text=True, timeout=20, check=True)
    return [json.loads(line) for line in done.stdout.splitlines()]


@pytest.mark.parametrize("vlans", ["7", "2-60"])
def test_loop_in_one_vlan_is_reported_with_it_and_ends(lab, vlans):
    list_vlans(lab, vlans)
    lab.enable()
    with OneVlan(lab) as loop:
        loop.plug()
        wait_for(lab.loops, 10, "the loop is on record")
        assert {record.vid for record in records(lab)} == {7}
        assert {port for pair in lab.loops() for port in pair} == set(loop.ports)
        wait_for(lambda: all(DETECTED.format(port) in lab.log() for port in loop.ports), 10, "the agent knows")
        shown = [port for port in tarnctl(lab, "show") if port["state"] == "looped"]
        assert {port["port"] for port in shown} == set(loop.ports)
        assert all((port["loop"]["vid"], port["loop"]["src_vid"]) == (7, 7) for port in shown)
        wait_for(lambda: {row["vid"] for row in json.loads(lab.cli("show tarn | json")) if row["state"] == "looped"}
                 == {7}, 10, "the switch shows the VLAN")
        loop.unplug()
        wait_for(lambda: lab.loops() == set(), 10, "the record is withdrawn")
        wait_for(lambda: not any(port["state"] == "looped" for port in tarnctl(lab, "show")), 5, "no port is looped")
        assert tarnctl(lab, "counters")[0]["counters"]["leaked"] == 0
        assert lab.down_ports() == []


def test_storm_in_one_vlan_is_cut_and_no_port_stays_down(lab):
    list_vlans(lab, "7")
    lab.enable(SHUTDOWN)
    with OneVlan(lab) as loop, Traffic(lab, vid=7) as traffic:
        traffic.wait_calm()
        loop.plug()
        wait_for(lambda: lab.down_ports() and all(DETECTED.format(port) in lab.log() for port in lab.down_ports()), 15,
                 "a port of the loop is shut, and the agent knows")
        assert set(lab.down_ports()) <= set(loop.shut)
        stray = traffic.wait_calm()
        print(f"{stray} stray frames, {lab.down_ports()} shut")
        assert stray < MOST_STRAY
        assert {record.vid for record in records(lab)} == {7}
        loop.unplug()
        lab.configure("loop-detect enable")
        wait_for(lambda: lab.down_ports() == [] and lab.loops() == set(), 10, "nothing is left dark or on record")


def test_loop_in_an_unlisted_vlan_is_not_found(lab):
    list_vlans(lab, "6,8")
    lab.configure("tarn probe-interval 100")
    lab.enable(SHUTDOWN)
    with OneVlan(lab) as loop:
        before = tarnctl(lab, "counters")[0]["counters"]["sent"]
        loop.plug()
        # Ten rounds of all ports, each with untagged frames and two VLANs.
        wait_for(lambda: tarnctl(lab, "counters")[0]["counters"]["sent"] > before + 10 * 3 * len(lab.port_names), 20,
                 "probes have left")
        assert lab.loops() == set() and lab.down_ports() == []
        list_vlans(lab, "6-8")
        wait_for(lab.down_ports, 10, "the loop is found in the VLAN that was added")
