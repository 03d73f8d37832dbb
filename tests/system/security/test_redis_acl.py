"""The object database with a user for each program: enough for their work, and for nothing else."""

import pathlib
import signal

import pytest
import redis

from acl_lab import PROGRAMS, AclFront, AclLab, password_of
from lab import LOCAL_DB, wait_for
from netconf_lab import EVENT, policy_config

LONG_AGO = "2020-01-01T00:00:00Z"


@pytest.fixture
def lab(kernel_ports):
    with AclLab(ports=4) as the_lab:
        yield the_lab


def command_lines(lab):
    processes = [lab.agent, lab.tarnd, lab.redis_server]
    return "".join(pathlib.Path(f"/proc/{process.pid}/cmdline").read_text() for process in processes)


def test_programs_do_their_main_jobs_with_their_users(lab):
    lab.start_tarnd()
    with AclFront(lab) as front:
        with front.raw() as session:
            policy = f"<edit-config><target><running/></target>{policy_config(2)}</edit-config>"
            assert "<ok/>" in session.rpc(policy)
            wait_for(lambda: len(lab.watched_ports()) == 4, 20, "every port is watched")
            with lab.broadcasts("swp3-far", count=200), lab.looped("swp1", "swp2"):
                wait_for(lambda: set(lab.down_ports()) == {"swp1", "swp2"}, 20, "the loop is cut")
                wait_for(lambda: lab.cli("show errdisable").count("loop") >= 2, 10, "the agent owns both ports")
            shown = session.rpc("<get/>")
            assert "<looped-port>" in shown and "<shut-last-day>" in shown
            assert "<loop-policy>2</loop-policy>" in shown
        with front.raw() as session:
            start = f'<create-subscription xmlns="{EVENT}"><startTime>{LONG_AGO}</startTime></create-subscription>'
            assert "<ok/>" in session.rpc(start)
            assert "<name>swp" in session.read()
        errors = front.log()
    told = lab.cli("show tech-support") + command_lines(lab)
    role = lab.cli("show role")
    assert "Role: master" in role and "Mode: lease" in role
    assert lab.refusals() == []
    assert lab.end_tarnd() == -signal.SIGTERM  # it ends its records
    assert lab.refusals() == []
    # The agent sets its records again.
    lab.kill_redis()
    lab.start_redis()
    wait_for(lambda: len(lab.watched_ports()) == 4, 20, "the records are back")
    wait_for(lambda: lab.loop_entries(), 20, "the loop entries are back")
    assert lab.refusals() == []
    told += lab.log() + errors + lab.agent_log.read_text()
    assert [user for user in PROGRAMS if password_of(user) in told] == []


MAY_NOT = [
    ("agent", ("SET", "p_bridge.tarn_loop_info/ifx=1", "")),
    ("agent", ("SET", "other", "")),
    ("agent", ("FLUSHALL",)),
    ("agent", ("CONFIG", "GET", "*")),
    ("agent", ("ACL", "LIST")),
    ("agent", ("EVAL", "return redis.call('GET', 'other')", "0")),
    ("tarnd", ("SET", "p_app.lda_nc_policy/", "")),
    ("tarnd", ("SET", "p_bridge.tarn_config/", "")),
    ("tarnd", ("SET", "lda/lease", "")),
    ("tarnd", ("PUBLISH", "mom/3/p_app.lda_nc_policy", "")),
    ("front", ("SET", "p_bridge.tarn_loop_info/ifx=1", "")),
    ("front", ("SET", "p_app.lda_loop_entry/name=swp1", "")),
    ("front", ("DEL", "p_app.lda_nc_policy/")),
    ("front", ("GET", "lda/lease")),
    ("front", ("PUBLISH", "mom/22/p_app.lda_nc_policy", "")),
    ("front", ("PUBLISH", "mom/4/p_bridge.tarn_loop_info", "")),
    ("front", ("EVAL", "return 1", "0")),
    ("reader", ("SET", "p_app.lda_nc_policy/", "")),
    ("reader", ("PUBLISH", "mom/4/p_bridge.tarn_loop_info", "")),
    ("reader", ("GET", "other")),
    ("reader", ("EVAL", "return 1", "0")),
    ("reader", ("SHUTDOWN",)),
]


def test_users_are_refused_what_is_not_theirs(lab):
    admin = lab.database(0)
    for user, command in MAY_NOT:
        admin.acl_log_reset()
        with pytest.raises(redis.exceptions.ResponseError):
            lab.database(LOCAL_DB, user).execute_command(*command)
            pytest.fail(f"{user} may {command}")
        assert [entry["username"] for entry in lab.refusals()] == [user], command
    with pytest.raises(redis.exceptions.AuthenticationError):
        redis.Redis(unix_socket_path=str(lab.redis_socket)).ping()
    assert lab.database(LOCAL_DB, "reader").get("p_app.lda_nc_policy/") is None
    with lab.database(LOCAL_DB, "reader").pubsub() as notices:
        notices.psubscribe("mom/*")
        assert notices.get_message(timeout=5)["type"] == "psubscribe"


def test_refused_login_is_logged_once_and_tried_again(lab):
    lab.configure("hostname before")
    lab.kill_agent(signal.SIGTERM)
    lab.set_password("agent", "wrong")
    lab.platform_file.write_text(lab.platform_file.read_text().replace('mode = "lease"', 'mode = "solo"'))
    lab.start_agent()
    refused = "%MOM-3-LOGIN_REFUSED: "
    wait_for(lambda: refused in lab.log(), 10, "the log says so")
    wait_for(lambda: len(lab.refusals()) > 0 and lab.database(0).acl_log()[0]["count"] >= 12, 20, "some retries")
    lines = [line for line in lab.log().splitlines() if refused in line]
    assert all("the login of agent is refused: WRONGPASS" in line and "wrong " not in line for line in lines)
    assert len(lines) == 1
    lab.set_password("agent", password_of("agent"), mode=0o644)
    wait_for(lambda: "is open to other users" in lab.log(), 10, "the log says what is wrong now")
    lab.set_password("agent", password_of("agent"))
    wait_for(lambda: "MOM-6-STORE_UP" in lab.log(), 20, "the agent is logged in")
    assert lab.log().count(refused) == 2
