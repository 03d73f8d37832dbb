"""Nothing is lost on a real bridge: typed lines are in the saved file, and ports that leave and return, or are
renamed, keep their configuration."""

import json
import signal
import socket

import pytest

from lab import Lab, wait_for

MARK = "loop-detect apply shutdown-port"


@pytest.fixture
def lab(kernel_ports):
    with Lab(switch="linux", ports=3) as the_lab:
        the_lab.start_redis()
        the_lab.start_agent()
        yield the_lab


def section(text, port):
    """The lines of a port's section, None without one."""
    for part in text.split("!\n"):
        lines = part.split("\n")
        if f"interface {port}" in lines:
            return [line.strip() for line in lines[lines.index(f"interface {port}") + 1:] if line.strip()]
    return None


def running(lab, port):
    return section(lab.cli("show running-config"), port)


def shut_by_a_loop(lab, port, mode="access"):
    lab.configure(f"loop-detect enable shutdown {mode}-mode")
    wait_for(lambda: "storm-loop-detect enable" in (running(lab, port) or []), 5, "detection is pushed")
    lab.report_loop(port, is_loop=1)
    wait_for(lambda: not lab.is_up(port) and MARK in running(lab, port), 5, f"{port} is shut and marked")


def is_back(lab, port):
    return lambda: f"{port} " in lab.cli("show interfaces status")


def is_gone(lab, port):
    return lambda: f"{port} " not in lab.cli("show interfaces status")


@pytest.mark.parametrize("end", [signal.SIGTERM, signal.SIGKILL])
def test_shutdown_typed_and_written_at_once_survives(lab, end):
    """The line is answered before the kernel's notification of the change has been read."""
    for number in range(5):
        client = socket.socket(socket.AF_UNIX)
        client.connect(str(lab.cli_socket))
        lines = ["configure terminal", "interface swp2", "shutdown" if number % 2 == 0 else "no shutdown", "end", "write"]
        client.sendall(b"".join(json.dumps({"exec": line}).encode() + b"\n" for line in lines))
        replies = client.makefile("r")
        assert [json.loads(replies.readline())["result"] for _ in lines] == [0] * len(lines)
        assert ("shutdown" in section(lab.saved(), "swp2")) == (number % 2 == 0)
        client.close()
    lab.kill_agent(end)
    lab.start_agent()
    assert running(lab, "swp2") == ["shutdown"]
    assert not lab.is_up("swp2")


def test_line_of_a_single_request_is_saved_within_a_second(lab):
    client = socket.socket(socket.AF_UNIX)
    client.connect(str(lab.cli_socket))
    request = {"exec": "shutdown", "mode": "interface", "ifx": lab.ifindex("swp2")}
    client.sendall(json.dumps(request).encode() + b"\n")
    assert json.loads(client.makefile("r").readline())["result"] == 0
    wait_for(lambda: "shutdown" in (section(lab.saved(), "swp2") or []), 1.5, "the shutdown is saved")


def test_line_typed_right_before_a_clean_exit_is_saved(lab):
    lab.configure("tarn error-recover interval 123")
    lab.kill_agent(signal.SIGTERM)
    assert "tarn error-recover interval 123\n" in lab.saved()


def test_held_hybrid_port_keeps_mode_rate_and_mark_when_it_leaves_and_rejoins_the_bridge(lab):
    lab.configure("interface swp2", "switchport mode hybrid", "storm-loop-rate ratelimit 123456")
    shut_by_a_loop(lab, "swp2", mode="hybrid")
    lab.ip("link", "set", "swp2", "nomaster")
    wait_for(is_gone(lab, "swp2"), 5, "the port is gone")
    lab.ip("link", "set", "swp2", "master", "br0")
    wait_for(is_back(lab, "swp2"), 5, "the port is back")
    # The agent released it outside the bridge; what remains is the request to bring it up.
    wait_for(lambda: lab.is_up("swp2"), 5, "swp2 is up again")
    lines = running(lab, "swp2")
    assert lines[0] == "switchport mode hybrid"
    assert "storm-loop-rate ratelimit 123456" in lines
    assert "shutdown" not in lines


def test_port_replaced_by_a_device_of_the_same_name_keeps_mode_and_rate(lab):
    lab.configure("interface swp2", "switchport mode hybrid", "storm-loop-rate ratelimit 123456",
                  "storm-loop-detect enable")
    lab.ip("link", "delete", "swp2")
    wait_for(is_gone(lab, "swp2"), 5, "the port is gone")
    lab.add_port("swp2")
    kept = ["switchport mode hybrid", "storm-loop-detect enable", "storm-loop-rate ratelimit 123456"]
    wait_for(lambda: running(lab, "swp2") == kept, 5, "the new port has the lines of the old one")
    assert lab.is_up("swp2")
    lab.cli("write")
    assert section(lab.saved(), "swp2") == kept


def test_recreated_bridge_restores_its_ports(lab):
    lab.configure("interface swp1", "switchport mode trunk", "interface swp2", "shutdown")
    shut_by_a_loop(lab, "swp3")
    lab.cli("write")
    lab.ip("link", "delete", "br0")
    wait_for(is_gone(lab, "swp3"), 5, "the ports are gone")
    lab.kill_agent()  # the process has forgotten it
    lab.ip("link", "add", "br0", "type", "bridge")
    for port in lab.port_names:
        lab.ip("link", "set", port, "master", "br0")
    lab.start_agent()
    wait_for(lambda: "switchport mode trunk" in (running(lab, "swp1") or []), 5, "the trunk is one again")
    assert "shutdown" in running(lab, "swp2") and not lab.is_up("swp2")
    wait_for(lambda: lab.is_up("swp3") or MARK in running(lab, "swp3"), 5, "swp3 is up or owned")


def test_renamed_port_is_found_under_its_new_name(lab):
    shut_by_a_loop(lab, "swp3")
    lab.ip("link", "set", "swp3", "name", "uplink")  # it is down, so it can be renamed
    wait_for(lambda: running(lab, "uplink") is not None, 5, "the shell knows the new name")
    assert MARK in running(lab, "uplink")
    # The loop lasts: entries and results keep the port's name at its detection.
    assert list(lab.loop_entries()) == ["p_app.lda_loop_entry/name=swp3"]
    lab.ip("link", "set", "swp1", "down")
    lab.ip("link", "set", "swp1", "name", "access1")
    lab.ip("link", "set", "access1", "up")
    wait_for(is_back(lab, "access1"), 5, "the calm port has its new name")
    lab.report_loop("access1", is_loop=1)
    wait_for(lambda: "p_app.lda_loop_entry/name=access1" in lab.loop_entries(), 5, "its loop has the new name")
