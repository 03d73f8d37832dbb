"""Operators who configure at the same time, on trial, or while the agent dies."""

import json
import os
import pty
import re
import signal
import socket
import subprocess
import threading
import time
import zlib

import pytest

from lab import BUILD, Lab, wait_for


@pytest.fixture
def lab():
    with Lab(ports=4, speed=60) as the_lab:
        the_lab.start_agent()
        yield the_lab


class Session:
    """An operator's session on the agent's socket."""

    def __init__(self, lab):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.connect(str(lab.cli_socket))
        self.socket.settimeout(60)
        self.replies = self.socket.makefile("rb")

    def type(self, line):
        self.socket.sendall(json.dumps({"exec": line}).encode() + b"\n")
        return json.loads(self.replies.readline())

    def close(self):
        self.replies.close()
        self.socket.close()


def return_file(lab):
    return lab.startup_config.with_name(lab.startup_config.name + ".return")


def make_overdue(path):
    """Rewrites a kept configuration as if its return had been due in 1970."""
    text = re.sub(rb"\A! return \d+ ", b"! return 1 ", path.read_bytes())
    body = text[:text.rindex(b"! checksum ")]
    path.write_bytes(body + b"! checksum %08x\n" % zlib.crc32(body))


def test_operator_lines_are_logged_and_agent_lines_are_not(lab):
    lab.configure("loop-detect enable shutdown access-mode", "interface swp4", "shutdown")
    lab.cli("test loop plug swp1 swp2")
    wait_for(lambda: lab.cli("show running-config").count("apply shutdown-port") == 2, 10, "both ports are shut")
    lines = [line for line in lab.log().splitlines() if "%CLI-6-CONFIG: " in line]
    found = [re.fullmatch(r'.*%CLI-6-CONFIG: "(.*)" by \S+ \(uid (\d+), pid \d+\)', line) for line in lines]
    assert all(found), lines
    assert [match[1] for match in found] == ["loop-detect enable shutdown access-mode", "interface swp4; shutdown"]
    assert {match[2] for match in found} == {str(os.geteuid())}


def test_lock_of_a_killed_shell_is_released(lab):
    shell = subprocess.Popen([str(BUILD / "tools/ldash/ldash"), "-s", str(lab.cli_socket)], stdin=subprocess.PIPE,
                             stdout=subprocess.DEVNULL)
    shell.stdin.write(b"configure exclusive\nloop-detect enable\n")
    shell.stdin.flush()
    wait_for(lambda: "loop-detect enable" in lab.cli("show running-config"), 10, "the shell is configuring")
    refused = lab.ldash("configure terminal", "no loop-detect enable")
    assert refused.returncode == 1
    assert re.fullmatch(r"%% The configuration is locked by \S+ \(uid \d+, pid %d\) since [-0-9]+ [:0-9]+\.\n" % shell.pid,
                        refused.stdout + refused.stderr)
    shell.send_signal(signal.SIGKILL)
    shell.communicate()
    wait_for(lambda: lab.cli_status("configure terminal", "no loop-detect enable") == 0, 10, "the lock is free")


def test_competing_sessions_never_share_the_lock(lab):
    holders, most, wins = [], [], []

    def fight(number):
        session = Session(lab)
        for _ in range(30):
            if session.type("configure exclusive")["result"] != 0:
                continue
            holders.append(number)
            most.append(len(holders))
            done = session.type("loop-detect shutdown-recover-time %d" % (90 + number))
            assert done["output"] == ""
            wins.append(number)
            holders.remove(number)
            session.type("end")
        session.close()

    fighters = [threading.Thread(target=fight, args=(number,)) for number in range(8)]
    for fighter in fighters:
        fighter.start()
    for fighter in fighters:
        fighter.join()
    assert wins
    assert set(most) == {1}
    assert lab.cli_status("configure exclusive") == 0


def test_agent_shuts_a_port_while_the_configuration_is_locked(lab):
    lab.configure("loop-detect enable shutdown access-mode")
    holder = Session(lab)
    assert holder.type("configure exclusive")["result"] == 0
    lab.cli("test loop plug swp1 swp2")
    wait_for(lambda: lab.cli("show running-config").count("apply shutdown-port") == 2, 10, "both ports are shut")
    holder.close()


def test_agent_killed_during_a_trial_rolls_back_after_the_restart(lab):
    lab.configure("loop-detect shutdown-recover-time 90")
    wait_for(lambda: "recover-time 90" in lab.saved(), 10, "the configuration before is saved")
    lab.cli("configure terminal revert 60", "loop-detect enable", "interface swp3", "shutdown")
    wait_for(lambda: "loop-detect enable" in lab.saved() and "\n shutdown\n" in lab.saved(), 10, "the trial is saved")
    lab.kill_agent()

    lab.start_agent()
    wait_for(lambda: "was not confirmed before the restart: it goes back at" in lab.log(), 10, "the return is pending")
    running = lab.cli("show running-config")
    assert "loop-detect enable" in running
    assert "\n shutdown\n" in running
    lab.kill_agent()

    make_overdue(return_file(lab))
    lab.start_agent()
    wait_for(lambda: "loop-detect enable" not in lab.cli("show running-config"), 30, "the configuration is back")
    wait_for(lambda: not return_file(lab).exists(), 10, "the return is over")
    assert "loop-detect enable" not in lab.saved()
    assert "\n shutdown\n" not in lab.saved()
    assert "recover-time 90" in lab.saved()
    assert "was not confirmed in time: the one before is back." in lab.log()


def test_confirmed_trial_survives_an_immediate_kill(lab):
    lab.cli("configure terminal revert 60", "loop-detect enable", "end", "configure confirm")
    assert not return_file(lab).exists()
    wait_for(lambda: "loop-detect enable" in lab.saved(), 10, "the configuration is saved")
    lab.kill_agent()
    lab.start_agent()
    wait_for(lambda: "loop-detect enable" in lab.cli("show running-config"), 10, "it is in force again")
    assert "goes back" not in lab.log()


@pytest.mark.patient
def test_trial_rolls_back_after_a_real_minute_without_its_shell(lab):
    begun = time.monotonic()
    lab.cli("configure terminal revert 1", "loop-detect enable")
    assert "loop-detect enable" in lab.cli("show running-config")
    wait_for(lambda: "loop-detect enable" not in lab.cli("show running-config"), 120, "the configuration is back")
    assert time.monotonic() - begun > 55


def test_idle_shell_prints_that_its_session_timed_out():
    with Lab() as lab:
        text = lab.platform_file.read_text()
        lab.platform_file.write_text(text.replace("[cli]\n", "[cli]\nidle_timeout = 2\n"))
        lab.start_agent()
        master, slave = pty.openpty()
        shell = subprocess.Popen([str(BUILD / "tools/ldash/ldash"), "-s", str(lab.cli_socket)], stdin=slave,
                                 stdout=slave, stderr=slave, env={**os.environ, "TERM": "vt100"})
        os.close(slave)
        assert shell.wait(60) == 2
        shown = os.read(master, 65536).decode()
        os.close(master)
        assert "ldash: Session closed: it was idle for too long." in shown


def test_file_is_checked_without_being_applied(lab, tmp_path):
    lab.configure("tarn enable")
    before = lab.cli("show running-config")
    file = tmp_path / "new cfg"
    tmp_path.chmod(0o755)

    def check():
        done = subprocess.run([BUILD / "tools/ldash/ldash", "-s", str(lab.cli_socket), "--check", file.name],
                              cwd=tmp_path, capture_output=True, text=True, timeout=60, check=False)
        assert done.stdout == ""
        return done.returncode, done.stderr

    file.write_text(before + "end\n")
    assert check() == (0, "")
    file.write_text("loop-detect enable shutdown accessmode\nloop-detect enable\n"
                    "interface swp1\n loop-detect apply\nend\n")
    assert check() == (1, f"{file}:1: Unknown command: 'accessmode'.\n{file}:4: Incomplete command.\n")
    file.unlink()
    assert check() == (1, f"{file}: No such file or directory.\n")
    assert lab.cli("show running-config") == before
