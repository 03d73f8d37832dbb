"""Every operators' command of the switch, through a real ldash with a real agent.

| what | test |
|---|---|
| `do` and `show` in every mode | test_exec_lines_work_in_every_mode |
| global lines in interface mode | test_global_lines_work_in_interface_modes |
| `no` in front of configuration lines | test_undone_lines.py |
| pages, `terminal length` | test_cli_keys.py |
| `?`, TAB, `^`, `hostname` in the prompt | test_cli_keys.py |
| filters | test_filters_choose_lines |
| `json` behind every `show` | test_every_show_command_answers_in_json |
| `show running-config interface` | test_section_of_one_port |
| `show interfaces` | here on the simulated switch, test_linux_bridge.py on kernel ports |
| `show users`, `show history` | test_sessions_and_their_lines, on a terminal in test_cli_keys.py |
| `clear logging` | test_log_is_cleared |
| configuration lines in the log | test_config_safety.py |
| `configure exclusive`, `clear configure lock` | test_config_safety.py, test_lock_can_be_cleared |
| `configure terminal revert`, `configure confirm` | test_config_safety.py |
| `show tech-support` | test_one_text_has_everything |
| idle timeout | test_config_safety.py |
"""

import json
import os
import pwd
import socket

import pytest

from lab import Lab


@pytest.fixture(scope="module")
def lab():
    with Lab(ports=4) as the_lab:
        the_lab.start_agent()
        yield the_lab


def help_for(lab, line):
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as client:
        client.connect(str(lab.cli_socket))
        client.settimeout(60)
        client.sendall(json.dumps({"help": line}).encode() + b"\n")
        return json.loads(client.makefile("rb").readline())["output"]


def test_exec_lines_work_in_every_mode(lab):
    version = lab.cli("show version")
    for lines in (["configure terminal"], ["configure terminal", "interface swp1"],
                  ["configure terminal", "interface range swp1-2"]):
        assert lab.cli(*lines, "do show version") == version
        assert lab.cli(*lines, "show version") == version


def test_global_lines_work_in_interface_modes(lab):
    lab.cli("configure terminal", "interface swp1", "switchport mode trunk", "tarn enable", "no tarn enable",
            "interface swp1", "no switchport mode trunk")
    refused = lab.ldash("configure terminal", "interface swp1", "tarn enable", "switchport mode trunk")
    assert (refused.returncode, refused.stdout) == (1, "% Unknown command: 'switchport'.\n")
    lab.configure("no tarn enable")


def test_filters_choose_lines(lab):
    lines = lab.cli("show interfaces status").splitlines(keepends=True)
    assert len(lines) == 5
    assert lab.cli("show interfaces status | include swp[23]") == "".join(lines[2:4])
    assert lab.cli("show interfaces status | exclude swp[23]") == "".join(lines[:2] + lines[4:])
    assert lab.cli("show interfaces status | begin swp3") == "".join(lines[3:])
    assert lab.cli("show interfaces status | count") == "5\n"


def test_every_show_command_answers_in_json(lab):
    words = [line.split()[0] for line in help_for(lab, "show ").splitlines()]
    assert {"interfaces", "users", "history", "logging", "running-config"} <= set(words)
    refused = set()
    for line in (line for word in words for line in complete_lines(lab, f"show {word} ")):
        done = lab.ldash(f"{line} | json")
        if done.returncode == 1 and done.stdout.startswith("% "):
            refused.add(line)
        else:
            assert json.loads(done.stdout) is not None, line
    assert {line.split()[1] for line in refused} <= {"tarn"}, "only the loop-probe service is not there"


def complete_lines(lab, start):
    """The commands that begin with the words and need no value."""
    for hint in help_for(lab, start).splitlines():
        word = hint.split()[0]
        if word == "<cr>":
            yield start.strip()
        elif word.islower() and not word.startswith("swp"):
            yield from complete_lines(lab, f"{start}{word} ")


def test_section_of_one_port(lab):
    lab.cli("configure terminal", "interface swp2", "switchport mode hybrid")
    assert lab.cli("show running-config interface swp2") == "interface swp2\n switchport mode hybrid\n!\n"
    lab.cli("configure terminal", "default interface swp2")
    assert lab.cli("show running-config interface swp2") == "interface swp2\n!\n"


def test_interfaces_of_the_simulated_switch_have_no_counters(lab):
    assert lab.cli("show interfaces swp3") == "swp3 is up, link up\n  Index 3, type ethernet, VLAN mode access\n"
    assert lab.cli("show interfaces | count") == "8\n"
    refused = lab.ldash("show interfaces swp9")
    assert (refused.returncode, refused.stdout) == (1, "% Unknown interface: 'swp9'.\n")


def test_sessions_and_their_lines(lab):
    shown = lab.cli("configure exclusive", "show users | json").splitlines()
    own = [user for user in json.loads(shown[-1]) if user["own"]]
    assert len(own) == 1
    assert {key: own[0][key] for key in ("user", "uid", "mode", "lock", "idle")} == {
        "user": pwd.getpwuid(os.getuid()).pw_name, "uid": os.getuid(), "mode": "config", "lock": True, "idle": 0}
    assert lab.cli("enable", "show history") == "enable\nshow history\n"
    assert lab.cli("show history") == "show history\n"


def test_log_is_cleared(lab):
    lab.cli("configure terminal", "tarn enable", "no tarn enable")
    assert '%CLI-6-CONFIG: "tarn enable"' in lab.cli("show logging")
    lab.cli("clear logging")
    assert lab.cli("show logging") == ""
    assert '%CLI-6-CONFIG: "clear logging" by ' in lab.agent_log.read_text()


def test_lock_can_be_cleared(lab):
    refused = lab.ldash("clear configure lock")
    assert (refused.returncode, refused.stdout) == (1, "% Nobody has locked the configuration.\n")
    lost = lab.ldash("configure exclusive", "do clear configure lock", "tarn enable")
    assert lost.returncode == 1
    assert lost.stdout.startswith("% Your configuration lock was cleared by ")


def test_one_text_has_everything(lab):
    text = lab.cli("show tech-support")
    headings = [line[5:-5] for line in text.splitlines() if line.startswith("==== ")]
    assert headings == ["show version", "process", "show role", "platform file", "show running-config",
                        "show startup-config", "show interfaces", "show interfaces status",
                        "show loop-detect detail", "show lda detect-result", "show errdisable",
                        "show errdisable recovery", "show loop-detect history", "show logging", "show tarn",
                        "debug lda storm-detect", "show debugging", "show users", "show notifications"]
    assert "\nState: running\n" in text
    assert str(lab.cli_socket) in text
    for piece in ("show lda detect-result", "show loop-detect detail", "show interfaces"):
        assert lab.cli(piece) in text
    for piece in text.split("==== ")[1:]:
        assert "Unknown command" not in piece, piece
