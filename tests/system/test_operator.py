"""The agent as a process on the simulated switch: shells, files, hostile clients."""

import json
import os
import socket
import subprocess

import pytest

from lab import BUILD, Lab, wait_for


@pytest.fixture
def lab():
    with Lab(ports=8, speed=60) as the_lab:
        the_lab.start_agent()
        yield the_lab


def connect(lab):
    client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    client.connect(str(lab.cli_socket))
    # Not earlier: with a timeout, connecting fails instead of waiting while the agent's queue is
    # full.
    client.settimeout(20)
    return client


def ask(client, **request):
    client.sendall(json.dumps(request).encode() + b"\n")
    reply = b""
    while not reply.endswith(b"\n"):
        more = client.recv(65536)
        assert more, "the session was closed"
        reply += more
    return json.loads(reply)


def test_loop_is_shut_recovered_and_cleared(lab):
    lab.configure("loop-detect enable shutdown access-mode", "loop-detect shutdown-recover-time 90")
    lab.cli("test loop plug swp2 swp5")
    for port in ("swp2", "swp5"):
        line = f"Detected loop error on interface {port}."
        wait_for(lambda: line in lab.log(), 10, line)
    wait_for(lambda: lab.cli("show running-config").count("loop-detect apply shutdown-port") == 2, 5,
             "both ports carry the mark")
    lab.cli("test loop unplug swp2 swp5")
    for port in ("swp2", "swp5"):
        line = f"Interface {port} recovered from loop error."
        wait_for(lambda: line in lab.log(), 20, line)
    assert "apply shutdown-port" not in lab.cli("show running-config")


def test_shell_exit_status_distinguishes_done_refused_and_unreachable(lab):
    assert lab.cli_status("show loop-detect") == 0
    assert lab.cli_status("show nothing-of-the-kind") == 1
    nobody = subprocess.run([str(BUILD / "tools/ldash/ldash"), "-s", str(lab.folder / "no.sock"), "-c",
                             "show loop-detect"], capture_output=True, text=True, check=False)
    assert nobody.returncode == 2
    assert "no.sock" in nobody.stderr


def test_shell_reads_a_script_from_standard_input(lab):
    done = subprocess.run([str(BUILD / "tools/ldash/ldash"), "-s", str(lab.cli_socket)],
                          input="configure terminal\nloop-detect enable\nend\nshow loop-detect\n",
                          capture_output=True, text=True, check=False)
    assert done.returncode == 0
    assert "loop-detect policy  : warning" in done.stdout


@pytest.mark.parametrize("line, word", [
    ("configre terminal", "Unknown"),
    ("show", "Incomplete"),
    ("show interfaces stat\x07us", "control"),
    ("show " + "x" * 5000, "long"),
])
def test_bad_line_is_answered_with_the_reason(lab, line, word):
    with connect(lab) as client:
        reply = ask(client, exec=line)
        assert reply["result"] != 0
        assert word.lower() in reply["output"].lower()
        assert ask(client, exec="show loop-detect")["result"] == 0


@pytest.mark.parametrize("line", ["loop-detect shutdown-recover-time 89",
                                  "loop-detect shutdown-recover-time 1000001",
                                  "loop-detect shutdown-recover-time 99999999999999999999999"])
def test_number_out_of_range_is_refused(lab, line):
    assert lab.cli_status("configure terminal", line) == 1
    assert "shutdown-recover-time" not in lab.cli("show running-config")


def test_session_beyond_the_limit_is_refused(lab):
    clients = [connect(lab) for _ in range(64)]
    for client in clients:
        client.sendall(b'{"exec": "show loop-detect"}\n')
    for client in clients:
        assert b"loop-detect state" in client.recv(65536)
    shell = subprocess.run([str(BUILD / "tools/ldash/ldash"), "-s", str(lab.cli_socket), "-c", "show version"],
                           capture_output=True, text=True, check=False)
    assert (shell.returncode, shell.stdout) == (2, "")
    assert shell.stderr == "ldash: Too many sessions (limit 64).\n"
    for client in clients:
        client.close()
    wait_for(lambda: lab.cli_status("show loop-detect") == 0, 5, "a session is free again")


def test_loop_is_shut_although_idle_shells_hold_every_session(lab):
    lab.configure("loop-detect enable shutdown access-mode")
    lab.cli("test loop plug swp2 swp5")
    clients = []
    for _ in range(600):
        clients.append(connect(lab))
    for port in ("swp2", "swp5"):
        line = f"Detected loop error on interface {port}."
        wait_for(lambda: line in lab.log(), 10, line)
    for client in clients:
        client.close()
    wait_for(lambda: lab.cli_status("show running-config") == 0, 5, "a session is free again")
    assert lab.cli("show running-config").count(" shutdown\n") == 2


def test_shell_reconnects_after_the_agents_socket_was_removed(lab):
    lab.cli_socket.unlink()
    wait_for(lambda: lab.cli_status("show version") == 0, 10, "the socket is back")
    assert "was removed; operators can connect again." in lab.log()


def test_client_that_disconnects_during_a_request_disturbs_no_other(lab):
    for _ in range(20):
        client = connect(lab)
        client.sendall(b'{"exec": "show runn')
        client.close()
        client = connect(lab)
        client.sendall(b'{"exec": "show running-config"}\n')
        client.close()
    assert lab.cli_status("show loop-detect") == 0


def test_client_that_never_reads_disturbs_no_other(lab):
    client = connect(lab)
    client.settimeout(2)
    request = b'{"exec": "show running-config"}\n' * 200
    try:
        for _ in range(100):
            client.sendall(request)
    except (TimeoutError, BrokenPipeError, ConnectionResetError):
        pass
    assert lab.cli_status("show loop-detect") == 0
    client.close()


@pytest.mark.parametrize("request_line", [b"not json\n", b"[]\n", b"{}\n", b'{"exec": 5}\n', b"\x00\xff\n"])
def test_malformed_request_is_answered(lab, request_line):
    with connect(lab) as client:
        client.sendall(request_line)
        assert json.loads(client.recv(65536))["result"] != 0


@pytest.mark.parametrize("text, line, reason", [
    ('switch = "embedded"\nstore = \n', 2, ""),
    ('switch = "tokamak"\n', 1, "switch"),
    ('colour = "red"\n', 1, "colour"),
    ('switch = "linux"\nstore = "redis"\n[clock]\nspeed = 10.0\n', 4, "speed"),
])
def test_bad_platform_file_is_reported_with_line_and_reason(text, line, reason):
    with Lab() as lab:
        lab.platform_file.write_text(text)
        lab.start_agent(wait=False)
        assert lab.agent.wait(10) != 0
        message = lab.agent_log.read_text()
        assert f"{lab.platform_file}:{line}: " in message
        assert reason in message


def test_missing_platform_file_is_reported():
    with Lab() as lab:
        lab.platform_file.unlink()
        lab.start_agent(wait=False)
        assert lab.agent.wait(10) != 0
        assert str(lab.platform_file) in lab.agent_log.read_text()


def test_bad_line_of_the_saved_configuration_is_reported_and_the_rest_applied():
    with Lab(ports=4, speed=60) as lab:
        lab.startup_config.write_text("loop-detect enable shutdown access-mode\n"
                                      "loop-detect frobnicate\n"
                                      "loop-detect shutdown-recover-time 120\n"
                                      "end\n")
        lab.start_agent()
        wait_for(lambda: "shutdown-recover-time 120" in lab.cli("show running-config"), 10,
                 "the last line is in force")
        assert "loop-detect enable shutdown access-mode" in lab.cli("show running-config")
        assert any("line 2" in line and "frobnicate" in line for line in lab.log().splitlines())


def test_agent_killed_with_a_port_shut_still_recovers_it(lab):
    lab.configure("loop-detect enable shutdown access-mode", "loop-detect shutdown-recover-time 90")
    lab.cli("test loop plug swp1 swp3")
    wait_for(lambda: lab.saved().count("apply shutdown-port") == 2, 10, "both marks are saved")
    lab.kill_agent()
    lab.start_agent()
    # The mark disappears when the agent decides; the command that brings the port up follows.
    shut = {"shutdown", "loop-detect apply shutdown-port"}
    wait_for(lambda: shut.isdisjoint(line.strip() for line in lab.cli("show running-config").splitlines()), 15,
             "both ports were brought up")


def test_help_and_wrong_arguments():
    program = str(BUILD / "platform" / "lda")
    helped = subprocess.run([program, "--help"], capture_output=True, text=True, check=False)
    assert helped.returncode == 0 and "LDA_PLATFORM" in helped.stdout
    refused = subprocess.run([program, "--frobnicate"], capture_output=True, text=True, check=False)
    assert refused.returncode == 2 and "--frobnicate" in refused.stderr


def test_sockets_never_take_closed_standard_descriptors():
    """Otherwise the first socket would become standard output, and its peer would read what is printed."""
    with Lab() as lab:
        closed = ["sh", "-c", 'exec "$0" <&- >&- 2>&-', str(BUILD / "platform" / "lda")]
        agent = subprocess.Popen(closed, env={**os.environ, "LDA_PLATFORM": str(lab.platform_file)})
        try:
            wait_for(lambda: lab.cli_socket.exists(), 10, "the agent listens")
            opened = [os.readlink(f"/proc/{agent.pid}/fd/{number}") for number in range(3)]
        finally:
            agent.kill()
            agent.wait()
        assert opened == ["/dev/null"] * 3


def test_shell_reports_a_switch_that_does_not_answer(tmp_path):
    path = str(tmp_path / "deaf.sock")
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as deaf:
        deaf.bind(path)
        deaf.listen()
        shell = subprocess.Popen([str(BUILD / "tools" / "ldash" / "ldash"), "-s", path, "-c", "show clock"],
                                 stderr=subprocess.PIPE, text=True)
        try:
            assert shell.stderr.readline() == ("ldash: the switch has not answered yet, still waiting "
                                               "(Ctrl-C to leave)\n")
            assert shell.poll() is None
        finally:
            shell.kill()
            shell.communicate()
