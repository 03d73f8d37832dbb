"""The main job on real input: kernel ports, a real redis-server, records set by another program."""

import json
import re
import sys
import time

import pytest

from lab import Lab, wait_for

DETECTED = "%LOOP_DETECT-3-ERROR: Detected loop error on interface {}."
SEND_FRAMES = """
import socket, sys
link = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
link.bind((sys.argv[1], 0))
for _ in range(1000):
    link.send(bytes.fromhex("020000000001" "020000000002" "88b6") + bytes(46))
"""
RECOVERED = "%LOOP_DETECT-3-RECOVER: Interface {} recovered from loop error."


@pytest.fixture
def lab(kernel_ports):
    with Lab(switch="linux", ports=4) as the_lab:
        the_lab.start_redis()
        the_lab.start_agent()
        yield the_lab


def enable(lab):
    lab.configure("loop-detect enable shutdown access-mode", "loop-detect shutdown-recover-time 90")


def is_down(lab, port):
    return lambda: not lab.is_up(port)


@pytest.mark.patient
def test_reported_loop_shuts_the_kernel_interface_and_recovery_brings_it_up(lab):
    enable(lab)
    started = time.monotonic()
    lab.report_loop("swp2", is_loop=1)

    wait_for(is_down(lab, "swp2"), 5, "swp2 is down")
    assert lab.is_up("swp1")
    wait_for(lab.loop_entries, 5, "the loop entry is published")
    entries = lab.loop_entries()
    assert list(entries) == ["p_app.lda_loop_entry/name=swp2"]
    entry = entries["p_app.lda_loop_entry/name=swp2"]
    assert (entry.index.name, entry.policy, entry.src_port) == ("swp2", 1, True)
    assert DETECTED.format("swp2") in lab.log()
    config = lab.cli("show running-config")
    assert "loop-detect enable shutdown access-mode" in config
    section = config.split("interface swp2\n")[1].split("!")[0]
    assert " loop-detect apply shutdown-port\n" in section

    # The server dies and restarts while the port is down; the loop ends meanwhile.
    lab.kill_redis()
    time.sleep(1)
    lab.start_redis()
    lab.report_loop("swp2", is_loop=0)
    assert not lab.is_up("swp2")

    wait_for(lambda: lab.is_up("swp2"), 100, "swp2 is up again", every=0.25)
    assert 79 < time.monotonic() - started < 95
    assert "loop-detect apply" not in lab.cli("show running-config")
    wait_for(lambda: not lab.loop_entries(), 75, "the loop entry is withdrawn", every=0.25)
    wait_for(lambda: RECOVERED.format("swp2") in lab.log(), 5, "the recovery is logged")


def test_report_for_another_source_port_shuts_both(lab):
    enable(lab)
    lab.report_loop("swp1", is_loop=1, source="swp3")
    wait_for(is_down(lab, "swp1"), 5, "swp1 is down")
    wait_for(is_down(lab, "swp3"), 5, "swp3 is down")
    assert lab.is_up("swp2") and lab.is_up("swp4")


def test_record_set_while_disconnected_is_found_on_reconnect(lab):
    enable(lab)
    lab.kill_redis()
    lab.start_redis()
    # Written at once, before the agent can have reconnected: only its scan can find it.
    lab.report_loop("swp4", is_loop=1)
    wait_for(is_down(lab, "swp4"), 15, "swp4 is down")


@pytest.mark.patient
def test_agent_killed_with_a_port_shut_recovers_it_after_restart(lab):
    enable(lab)
    lab.report_loop("swp2", is_loop=1)
    wait_for(is_down(lab, "swp2"), 5, "swp2 is down")
    wait_for(lambda: "apply shutdown-port" in lab.saved(), 5, "the mark is saved")
    lab.kill_agent()
    lab.report_loop("swp2", is_loop=0)
    lab.start_agent()
    assert not lab.is_up("swp2")
    assert "loop-detect apply shutdown-port" in lab.cli("show running-config")
    wait_for(lambda: lab.is_up("swp2"), 105, "swp2 is up again", every=0.25)


def test_shutdown_typed_by_the_operator_acts_on_the_kernel(lab):
    lab.configure("interface swp1", "shutdown")
    assert not lab.is_up("swp1")
    lab.configure("interface swp1", "no shutdown")
    assert lab.is_up("swp1")


def test_ports_follow_the_kernel(lab):
    lab.add_port("swp5")
    wait_for(lambda: "swp5" in lab.cli("show interfaces status"), 5, "the new port is known")
    lab.ip("link", "set", "swp5", "down")
    lab.ip("link", "set", "swp5", "name", "uplink")
    wait_for(lambda: "uplink" in lab.cli("show interfaces status"), 5, "the new name is known")
    lab.ip("link", "delete", "uplink")
    wait_for(lambda: "uplink" not in lab.cli("show interfaces status"), 5, "the port is gone")


def test_agent_waits_for_a_late_server(kernel_ports):
    with Lab(switch="linux", ports=2) as lab:
        lab.start_agent()
        lab.start_redis()
        enable(lab)
        wait_for(lambda: "tarn enable" in lab.cli("show running-config"), 15, "detection is pushed")
        lab.report_loop("swp1", is_loop=1)
        wait_for(is_down(lab, "swp1"), 15, "swp1 is down")


@pytest.mark.parametrize("kind, key, record", [
    ("p_bridge.tarn_loop_info", "ifx=1", b"\xff\xff\xff not a message"),
    ("p_bridge.tarn_loop_info", "", b"\x30\x01"),
    ("p_bridge.tarn_loop_info", "ifx=99999", b"\x2a\x04\x08\x9f\x8d\x06\x38\x01\x40\x9f\x8d\x06"),
    ("p_nobody.unknown", "name=x", b"\x08\x01"),
])
def test_bad_record_is_dropped_and_the_next_good_one_accepted(lab, kind, key, record):
    enable(lab)
    lab.set_record(4, kind, key, record)
    assert lab.agent.poll() is None
    assert lab.is_up("swp1") and lab.is_up("swp2")
    lab.report_loop("swp2", is_loop=1)
    wait_for(is_down(lab, "swp2"), 5, "swp2 is down")


def test_port_removed_while_it_is_shut_and_added_again(lab):
    enable(lab)
    lab.report_loop("swp3", is_loop=1)
    wait_for(is_down(lab, "swp3"), 5, "swp3 is down")
    lab.ip("link", "delete", "swp3")
    wait_for(lambda: "swp3" not in lab.cli("show interfaces status"), 5, "the port is gone")
    lab.add_port("swp3")
    wait_for(lambda: "swp3" in lab.cli("show interfaces status"), 5, "the port is back")
    lab.report_loop("swp3", is_loop=1)
    wait_for(is_down(lab, "swp3"), 5, "swp3 is down again")


def test_counters_of_a_port_are_those_of_the_kernel(lab):
    def shown():
        return json.loads(lab.cli("show interfaces swp1 | json"))[0]

    before = shown()
    assert set(before["received"]) == {"packets", "bytes", "drops", "errors"} == set(before["sent"])
    lab.inside(sys.executable, "-c", SEND_FRAMES, "swp1-far")
    after = shown()
    assert after["received"]["packets"] - before["received"]["packets"] >= 1000
    assert after["received"]["bytes"] - before["received"]["bytes"] >= 60000
    kernel = json.loads(lab.ip("-j", "-s", "link", "show", "dev", "swp1"))[0]["stats64"]
    assert kernel["rx"]["packets"] >= after["received"]["packets"]
    assert [port["port"] for port in json.loads(lab.cli("show interfaces | json"))] == lab.port_names
    text = lab.cli("show interfaces swp1").splitlines()
    assert re.fullmatch(r"  Received \d+ packets, \d+ bytes, \d+ drops, \d+ errors", text[2])
    assert re.fullmatch(r"  Sent \d+ packets, \d+ bytes, \d+ drops, \d+ errors", text[3])
