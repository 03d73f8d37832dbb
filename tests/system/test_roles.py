"""The master role by a lease in Redis, with real agents on one machine."""

import json
import re
import signal
import socket
import time

import pytest
import redis

from lab import APP_DB, CFG_DB, Lab, wait_for

LEASE = '[role]\nmode = "lease"\nlease_ms = 1000\n'
LEASE_S = 1.0


@pytest.fixture
def lab():
    with Lab(store="redis") as the_lab:
        the_lab.write_platform_file(LEASE)
        the_lab.started = []
        yield the_lab
        for process in the_lab.started:
            process.kill()
            process.wait()


def start(lab, **options):
    lab.start_agent(**options)
    lab.started.append(lab.agent)
    return lab.agent


def lease(lab):
    return (lab.database(0).get("lda/lease") or b"").decode().split()


def test_role_is_shown(lab):
    lab.start_redis()
    agent = start(lab)
    host = socket.gethostname()
    lines = lab.cli("show role").splitlines()
    assert lines[:4] == ["Role: master", "Mode: lease", f"Holder: process {agent.pid} on {host}",
                         "Fencing number: 1"]
    assert len(lines) == 5
    left = re.fullmatch(r"Time left: (\d+) ms", lines[4])
    assert left and 0 < int(left[1]) <= 900
    shown = json.loads(lab.cli("show role | json"))
    assert 0 < shown.pop("left_ms") <= 900
    assert shown == {"role": "master", "mode": "lease", "host": host, "pid": agent.pid, "fence": 1}


def test_role_of_a_lone_agent_is_shown():
    with Lab() as lab:
        lab.start_agent()
        shown = json.loads(lab.cli("show role | json"))
        assert shown == {"role": "master", "mode": "solo", "host": socket.gethostname(), "pid": lab.agent.pid,
                         "fence": None, "left_ms": None}
        assert lab.cli("show role").splitlines() == [
            "Role: master", "Mode: solo", f"Holder: process {lab.agent.pid} on {socket.gethostname()}"]


def test_standby_reads_the_lease_and_nothing_else(lab):
    lab.start_redis()
    master = start(lab)
    lab.configure("loop-detect enable shutdown access-mode")
    wait_for(lambda: lab.database(CFG_DB).keys(), 10, "the master has written its records")
    clients = {client["id"] for client in lab.database(0).client_list()}
    start(lab, wait=False)
    wait_for(lambda: {client["id"] for client in lab.database(0).client_list()} - clients, 10, "the standby connects")
    lab.database(APP_DB).flushdb()
    lab.database(CFG_DB).flushdb()
    master.send_signal(signal.SIGSTOP)  # for less than its lease: it sets nothing again
    time.sleep(0.5)
    assert lab.database(APP_DB).keys() == [] and lab.database(CFG_DB).keys() == []
    own = [client for client in lab.database(0).client_list() if client["id"] not in clients]
    assert [client["cmd"] for client in own if client["cmd"] not in ("client|list", "client", "flushdb", "keys")] == [
        "get"]
    master.send_signal(signal.SIGCONT)


def test_standby_takes_over_from_a_killed_master_with_its_configuration(lab):
    lab.start_redis()
    master = start(lab)
    standby = start(lab, wait=False)
    lab.configure("hostname core", "loop-detect shutdown-recover-time 700")
    wait_for(lambda: "hostname core" in lab.saved() and "700" in lab.saved(), 10, "the configuration is saved")
    killed = time.monotonic()
    master.kill()
    master.wait()
    wait_for(lambda: lab.cli_status("show role") == 0, 10, "the standby acts")
    assert time.monotonic() - killed < LEASE_S + 1
    assert lease(lab)[0] == "2" and lease(lab)[5] == str(standby.pid)
    wait_for(lambda: "700" in lab.cli("show running-config"), 10, "the saved configuration is applied")
    assert "hostname core" in lab.cli("show running-config")


def test_stopped_master_on_the_same_socket_is_killed(lab):
    lab.start_redis()
    master = start(lab)
    standby = start(lab, wait=False)
    time.sleep(0.5)
    master.send_signal(signal.SIGSTOP)
    stopped = time.monotonic()
    wait_for(lambda: lease(lab)[5] == str(standby.pid), 10, "the standby has the lease")
    assert master.wait(timeout=5) == -signal.SIGKILL
    wait_for(lambda: lab.cli_status("show role") == 0, 10, "the standby acts")
    assert time.monotonic() - stopped < LEASE_S + 1
    assert f"Process {master.pid} had the lease before and still runs on command-line socket" in lab.log()


def test_master_without_its_server_ends_with_status_75(lab):
    lab.start_redis()
    master = start(lab)
    lab.kill_redis()
    assert master.wait(timeout=10) == 75
    log = lab.log()
    assert re.search(r"^lda: the master role is lost: the lease was not renewed in time \(.+\); the next start stands "
                     r"by$", log, re.MULTILINE), log
    assert "RDND-3-LEASE: The lease of the master role cannot be read or renewed, trying again: " in log


def test_frozen_server_ends_the_master(lab):
    lab.start_redis()
    master = start(lab)
    lab.redis_server.send_signal(signal.SIGSTOP)
    assert master.wait(timeout=10) == 75
    lab.redis_server.send_signal(signal.SIGCONT)
    assert "(the server did not answer, or this process was stopped)" in lab.log()


def test_lease_survives_a_server_that_comes_back_empty(lab):
    lab.start_redis()
    master = start(lab)
    before = lease(lab)
    lab.database(0).flushall()
    wait_for(lambda: lease(lab), 10, "the master has written the lease again")
    after = lease(lab)
    assert (after[0], after[3:]) == (before[0], before[3:])
    assert master.poll() is None


def test_lease_of_a_dead_process_is_taken_over(lab):
    lab.start_redis()
    lab.database(0).set("lda/lease", "41 7 1000 0123456789abcdef elsewhere 4711")
    start(lab)
    assert lease(lab)[0] == "42"


@pytest.mark.parametrize("spoil, reason", [
    (lambda server: server.lpush("lda/lease", "x"), "WRONGTYPE "),
    (lambda server: server.execute_command("ACL", "SETUSER", "default", "-get"), "NOPERM "),
    (lambda server: server.execute_command("ACL", "SETUSER", "default", "resetkeys", "~p_*"), "NOPERM ")])
def test_server_that_refuses_is_reported_once(lab, spoil, reason):
    lab.start_redis()
    spoil(lab.database(0))
    agent = start(lab, wait=False)
    wait_for(lambda: "RDND-3-LEASE" in lab.log(), 10, "the refusal is logged")
    time.sleep(1)
    assert lab.log().count("RDND-3-LEASE: The lease of the master role cannot be read or renewed, trying again: "
                           + reason) == 1, lab.log()
    assert lab.log().count("RDND-3-LEASE") == 1
    assert agent.poll() is None
    with pytest.raises(redis.exceptions.ResponseError):
        lab.database(0).get("lda/lease")


def test_agent_on_a_socket_in_use_names_the_other(lab):
    lab.start_redis()
    solo_text = lab.platform_file.read_text().replace('mode = "lease"', 'mode = "solo"')
    lab.platform_file.write_text(solo_text)
    solo = start(lab)
    lab.write_platform_file(LEASE)
    second = start(lab, wait=False)
    assert second.wait(timeout=10) == 1
    assert f"lda: process {solo.pid} already runs on command-line socket {lab.cli_socket}: stop it first" in lab.log()
    assert solo.poll() is None


@pytest.mark.parametrize("how", [signal.SIGKILL, signal.SIGSTOP])
def test_standby_holds_the_ports_of_a_real_bridge_on(kernel_ports, how):
    """The kernel's port stays shut while nobody acts, and the standby brings it back."""
    with Lab(switch="linux", ports=2) as lab:
        lab.write_platform_file(LEASE)
        lab.started = []
        lab.start_redis()
        try:
            master = start(lab)
            standby = start(lab, wait=False)
            lab.configure("loop-detect enable shutdown access-mode")
            lab.report_loop("swp1", is_loop=1)
            wait_for(lambda: not lab.is_up("swp1") and "shutdown-port" in lab.saved(), 10, "swp1 is shut")
            lab.report_loop("swp1", is_loop=0)
            master.send_signal(how)
            wait_for(lambda: lease(lab)[5] == str(standby.pid), 10, "the standby has the lease")
            assert master.wait(timeout=5) == -signal.SIGKILL
            wait_for(lambda: lab.cli_status("show role") == 0, 10, "the standby acts")
            wait_for(lambda: "swp1" in lab.cli("show errdisable"), 10, "the standby knows swp1")
            assert not lab.is_up("swp1") and lab.is_up("swp2")
            lab.cli("clear errdisable interface swp1")
            wait_for(lambda: lab.is_up("swp1"), 10, "swp1 is back")
        finally:
            for process in lab.started:
                process.kill()
                process.wait()
