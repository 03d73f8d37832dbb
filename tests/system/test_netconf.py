"""NETCONF operations: ncclient over a private sshd, a running agent, redis between them."""

import os
import pathlib
import re
import signal
import subprocess
import time

import pytest
from lab import APP_DB, CFG_DB, LOCAL_DB, Lab, p_app, p_mng, wait_for
from ncclient.operations import RPCError
from ncclient.xml_ import to_ele
from netconf_lab import BASE, EVENT, LOOP_DETECT, MODEL, MONITORING, Front, policy_config

MODULES = {
    "ietf-inet-types", "ietf-netconf", "ietf-netconf-monitoring", "ietf-netconf-with-defaults",
    "ietf-yang-metadata", "ietf-yang-schema-mount", "ietf-yang-structure-ext", "ietf-yang-types",
    "nc-notifications", "notifications", "qv-loop-detect-server", "qv-loop-detect-server-notification",
    "yang",
}
RUNNING_CONFIG = {
    0: None,
    1: "loop-detect enable",
    2: "loop-detect enable shutdown access-mode",
    3: "loop-detect enable shutdown hybrid-mode",
    4: "loop-detect enable shutdown access-hybrid-mode",
}
DEFAULTS = "urn:ietf:params:xml:ns:yang:ietf-netconf-with-defaults"
REQUESTS = f"mom/{LOCAL_DB}/p_app.lda_nc_policy"


@pytest.fixture(scope="module")
def front():
    with Lab(store="redis", speed=60) as lab:
        lab.start_redis()
        lab.start_agent()
        with Front(lab) as the_front:
            yield the_front


@pytest.fixture(scope="module")
def shared_session(front):
    with front.connect() as session:
        yield session


@pytest.fixture
def session(shared_session):
    """A session that most tests share, as each handshake takes half a second; the policy is 1."""
    shared_session.edit_config(target="running", config=policy_config(1))
    return shared_session


@pytest.fixture
def requests(front):
    """What the agent is asked meanwhile, as a list of records; call it to have those that came."""
    listener = front.lab.database(LOCAL_DB).pubsub(ignore_subscribe_messages=True)
    listener.subscribe(REQUESTS)
    wait_for(lambda: listener.subscribed and front.lab.database(0).pubsub_numsub(REQUESTS)[0][1] == 2, 5,
             "the requests are listened to")

    def arrived():
        records = []
        while message := listener.get_message(timeout=0.05):
            records.append(p_app.lda_nc_policy.FromString(message["data"][1:]))
        return records

    listener.get_message(timeout=0.1)
    yield arrived
    listener.close()


def set_policy(session, policy, operation=None, **options):
    return session.edit_config(target="running", config=policy_config(policy, operation), **options)


def policy_of(session, **options):
    """The policy in <get-config>, None when it is not reported."""
    reply = session.get_config("running", **options)
    leaf = reply.data_ele.find(f"{{{MODEL}}}loop-detect/{{{MODEL}}}loop-policy")
    return None if leaf is None else int(leaf.text)


def agent_policy(front):
    """The policy that the agent has published."""
    packed = front.lab.database(CFG_DB).get("p_app.lda_nc_policy/")
    return p_app.lda_nc_policy.FromString(packed).loop_policy_cli


def refusal(call, *arguments, **options):
    with pytest.raises(RPCError) as caught:
        call(*arguments, **options)
    return caught.value


def error_of(error):
    return (error.type, error.tag, error.path, error.message)


# ---- the session ----

def test_hello_announces_what_is_there(session):
    plain = {text for text in session.server_capabilities if "?module=" not in text}
    assert plain == {
        "urn:ietf:params:netconf:base:1.0",
        "urn:ietf:params:netconf:base:1.1",
        "urn:ietf:params:netconf:capability:writable-running:1.0",
        "urn:ietf:params:netconf:capability:rollback-on-error:1.0",
        "urn:ietf:params:netconf:capability:validate:1.1",
        "urn:ietf:params:netconf:capability:xpath:1.0",
        "urn:ietf:params:netconf:capability:with-defaults:1.0?basic-mode=trim&also-supported=report-all,trim",
        "urn:ietf:params:netconf:capability:notification:1.0",
        "urn:ietf:params:netconf:capability:interleave:1.0",
    }
    modules = {text for text in session.server_capabilities if "?module=qv-" in text}
    assert modules == {
        "urn:qv:yang:qv-loop-detect-server?module=qv-loop-detect-server&revision=2026-11-21",
        "urn:qv:yang:qv-loop-detect-server-notification"
        "?module=qv-loop-detect-server-notification&revision=2026-11-21",
    }


def test_every_schema_is_handed_out_and_parses(session, tmp_path):
    listed = session.get(filter=("subtree", f'<netconf-state xmlns="{MONITORING}"><schemas/></netconf-state>'))
    names = {}
    for schema in listed.data_ele.iter(f"{{{MONITORING}}}schema"):
        name = schema.findtext(f"{{{MONITORING}}}identifier")
        names[name] = schema.findtext(f"{{{MONITORING}}}version")
    assert set(names) == MODULES
    for name, version in names.items():
        text = session.get_schema(name, version=version).data
        (tmp_path / f"{name}@{version}.yang").write_text(text)
    # The modules that libyang has built in are taken from there, whatever is in the folder.
    ours = [path for path in sorted(tmp_path.iterdir()) if not path.name.startswith("yang@")]
    checked = subprocess.run(["yanglint", "-p", str(tmp_path), *map(str, ours)],
                             capture_output=True, text=True, check=False)
    assert (checked.returncode, checked.stderr) == (0, "")


def test_modules_of_the_tree_are_clean():
    folder = pathlib.Path(__file__).resolve().parents[2] / "yang"
    checked = subprocess.run(["yanglint", "-p", str(folder), *map(str, sorted(folder.glob("*.yang")))],
                             capture_output=True, text=True, check=False)
    assert (checked.returncode, checked.stdout + checked.stderr) == (0, "")


def test_schema_that_is_not_there_is_refused(session):
    assert refusal(session.get_schema, "no-such-module").tag == "invalid-value"
    assert refusal(session.get_schema, "qv-loop-detect-server", version="1999-01-01").tag == "invalid-value"


@pytest.mark.parametrize("form, text", [
    ("yin", '&lt;module name="qv-loop-detect-server"'),
    ("yang", "module qv-loop-detect-server {"),
    ("xsd", "<error-tag>invalid-value</error-tag>"),
])
def test_schema_comes_in_the_format_that_is_asked_for(front, form, text):
    with front.raw() as session:
        assert text in session.rpc(
            f'<get-schema xmlns="{MONITORING}"><identifier>qv-loop-detect-server</identifier>'
            f'<format xmlns:ncm="{MONITORING}">ncm:{form}</format></get-schema>')


def test_session_numbers_differ_and_the_sessions_are_listed(front):
    with front.connect() as one, front.connect() as other:
        assert one.session_id != other.session_id
        state = one.get(filter=("subtree", f'<netconf-state xmlns="{MONITORING}"><sessions/></netconf-state>'))
        numbers = {leaf.text for leaf in state.data_ele.iter(f"{{{MONITORING}}}session-id")}
        assert {one.session_id, other.session_id} <= numbers


def test_log_tells_of_the_beginning_and_the_end(front):
    with front.connect() as session:
        who = f"session {session.session_id} ("
    wait_for(lambda: re.search(re.escape(who) + r"\w+\): closed\n", front.log()), 5, "the end is logged")
    assert re.search(re.escape(who) + r"\w+\): begins\n", front.log())


# ---- the policy ----

@pytest.mark.parametrize("policy", [4, 3, 2, 1, 0])
def test_policy_reaches_the_running_configuration(front, session, policy):
    assert set_policy(session, policy).ok
    lines = [line.strip() for line in front.lab.cli("show running-config").splitlines()
             if line.strip().startswith("loop-detect enable")]
    assert lines == ([RUNNING_CONFIG[policy]] if policy else [])
    assert agent_policy(front) == policy
    assert policy_of(session) == (policy or None)
    assert policy_of(session, with_defaults="report-all") == policy


def test_policy_typed_by_the_operator_is_read_back(front, session):
    front.lab.configure("loop-detect enable shutdown hybrid-mode")
    assert policy_of(session) == 3


def test_request_names_its_sender(session, requests):
    set_policy(session, 4)
    set_policy(session, 4)
    first, second = requests()
    assert first.loop_policy_cli == 4
    assert (first.rst.index.type, first.rst.src) == (2, p_mng.NETCONF)
    assert re.fullmatch(r"netconf-[0-9]+", first.rst.index.publisher)
    assert second.rst.index.publisher == first.rst.index.publisher
    assert second.rst.index.oid != first.rst.index.oid


@pytest.mark.parametrize("value", ["5", "4294967296", "-1", "text", "", "2 3", "2.0"])
def test_value_outside_the_model_is_refused(front, session, requests, value):
    error = refusal(set_policy, session, value)
    assert error_of(error) == (
        "application", "invalid-value", "/qv-loop-detect-server:loop-detect/loop-policy",
        f'loop-policy is a number from 0 to 4, not "{value}"')
    assert requests() == []
    assert agent_policy(front) == 1


def test_operations_follow_the_data_in_force(front, session, requests):
    assert refusal(set_policy, session, 2, "create").tag == "data-exists"
    assert set_policy(session, None, "delete").ok
    assert agent_policy(front) == 0
    assert refusal(set_policy, session, None, "delete").tag == "data-missing"
    assert set_policy(session, None, "remove").ok
    assert set_policy(session, 2, "create").ok
    assert set_policy(session, 3, "replace").ok
    assert set_policy(session, None, "remove").ok
    assert agent_policy(front) == 0
    assert [(record.rst.index.type, record.loop_policy_cli) for record in requests()] == [
        (3, 0), (2, 2), (2, 3), (4, 0)]


def test_container_can_be_deleted_and_replaced(front, session, requests):
    def edit(content):
        return session.edit_config(target="running", config=(
            f'<config xmlns="{BASE}" xmlns:nc="{BASE}">{content}</config>'))

    assert edit(f'<loop-detect xmlns="{MODEL}" nc:operation="replace"/>').ok
    assert agent_policy(front) == 0
    set_policy(session, 4)
    assert edit(f'<loop-detect xmlns="{MODEL}" nc:operation="delete"/>').ok
    assert refusal(edit, f'<loop-detect xmlns="{MODEL}" nc:operation="delete"/>').tag == "data-missing"
    assert [record.rst.index.type for record in requests()] == [3, 2, 3]


def test_default_operation_counts_where_none_is_given(front, session, requests):
    assert set_policy(session, 3, default_operation="none").ok
    assert requests() == []
    assert set_policy(session, 3, "merge", default_operation="none").ok
    assert agent_policy(front) == 3
    empty = f'<config xmlns="{BASE}"/>'
    assert session.edit_config(target="running", config=empty, default_operation="merge").ok
    assert agent_policy(front) == 3
    assert session.edit_config(target="running", config=empty, default_operation="replace").ok
    assert agent_policy(front) == 0
    assert refusal(set_policy, session, 3, default_operation="none").tag == "data-missing"


def test_test_only_changes_nothing(front, session, requests):
    assert set_policy(session, 4, test_option="test-only").ok
    assert refusal(set_policy, session, 9, test_option="test-only").tag == "invalid-value"
    assert refusal(set_policy, session, 4, "create", test_option="test-only").tag == "data-exists"
    assert requests() == []
    assert set_policy(session, 4, test_option="set", error_option="rollback-on-error").ok
    assert agent_policy(front) == 4


def test_copy_and_validate_take_a_whole_configuration(front, session):
    def source(content):
        return to_ele(f'<source xmlns="{BASE}"><config>{content}</config></source>')

    good = f'<loop-detect xmlns="{MODEL}"><loop-policy>2</loop-policy></loop-detect>'
    bad = f'<loop-detect xmlns="{MODEL}"><loop-policy>7</loop-policy></loop-detect>'
    assert session.validate(source=to_ele(f'<config xmlns="{BASE}">{good}</config>')).ok
    assert session.validate(source="running").ok
    assert agent_policy(front) == 1
    assert session.copy_config(source=source(good), target="running").ok
    assert agent_policy(front) == 2
    assert session.copy_config(source=source(""), target="running").ok
    assert agent_policy(front) == 0
    assert refusal(session.copy_config, source=source(bad), target="running").tag == "invalid-value"
    error = refusal(session.validate, source=to_ele(f'<config xmlns="{BASE}">{bad}</config>'))
    assert error.tag == "invalid-value"


@pytest.mark.parametrize("content, tag, path", [
    ('<other xmlns="urn:example:other"/>', "unknown-namespace", None),
    (f'<other xmlns="{MODEL}"/>', "unknown-element", "/"),
    (f'<loop-detect xmlns="{MODEL}"><other/></loop-detect>', "unknown-element",
     "/qv-loop-detect-server:loop-detect"),
    (f'<loop-detect xmlns="{MODEL}"><looped-port><name>swp1</name></looped-port></loop-detect>',
     "invalid-value", "/qv-loop-detect-server:loop-detect/looped-port"),
    (f'<loop-detect xmlns="{MODEL}"><loop-policy>2</loop-policy><loop-policy>3</loop-policy></loop-detect>',
     "bad-element", "/qv-loop-detect-server:loop-detect/loop-policy"),
    (f'<loop-detect xmlns="{MODEL}"><loop-policy>2</loop-policy></loop-detect>'
     f'<loop-detect xmlns="{MODEL}"/>', "bad-element", "/qv-loop-detect-server:loop-detect"),
])
def test_configuration_that_is_not_the_models_is_refused(session, requests, content, tag, path):
    error = refusal(session.edit_config, target="running", config=f'<config xmlns="{BASE}">{content}</config>')
    assert (error.tag, error.path) == (tag, path)
    assert requests() == []


def test_datastores_and_operations_that_are_not_announced_are_refused(session):
    refusal(set_policy_in, session, "candidate")
    refusal(set_policy_in, session, "startup")
    refusal(session.dispatch, to_ele(f'<commit xmlns="{BASE}"/>'))
    refusal(session.dispatch, to_ele(f'<delete-config xmlns="{BASE}"><target><startup/></target></delete-config>'))
    assert policy_of(session) == 1


def set_policy_in(session, datastore):
    text = policy_config(2)
    return session.dispatch(to_ele(
        f'<edit-config xmlns="{BASE}"><target><{datastore}/></target>{text}</edit-config>'))


# ---- locks and kills ----

def test_lock_keeps_other_sessions_from_editing(front, session, requests):
    with front.connect() as other:
        assert other.lock("running").ok
        error = refusal(set_policy, session, 4)
        assert (error.tag, error.message) == ("in-use", f"session {other.session_id} holds the lock")
        denied = refusal(session.lock, "running")
        assert denied.tag == "lock-denied"
        assert f"<session-id>{other.session_id}</session-id>" in denied.info
        assert refusal(session.unlock, "running").tag == "operation-failed"
        assert refusal(other.lock, "running").tag == "lock-denied"
        assert requests() == []
        assert set_policy(other, 2).ok
        state = session.get(filter=("subtree", f'<netconf-state xmlns="{MONITORING}"><datastores/></netconf-state>'))
        assert other.session_id in [
            leaf.text for leaf in state.data_ele.iter(f"{{{MONITORING}}}locked-by-session")]
        assert other.unlock("running").ok
        assert set_policy(session, 4).ok
    assert agent_policy(front) == 4


def test_lock_goes_with_its_session_however_that_ends(front, session):
    with front.connect() as other:
        other.lock("running")
    wait_for(lambda: lock_is_free(session), 5, "the lock of a closed session is free")
    with front.raw() as other:
        assert "<ok/>" in other.rpc("<lock><target><running/></target></lock>")
        assert not lock_is_free(session)
        other.process.send_signal(signal.SIGKILL)
        other.process.wait()
        assert lock_is_free(session)


def lock_is_free(session):
    try:
        session.lock("running")
    except RPCError:
        return False
    session.unlock("running")
    return True


def test_killed_session_ends_and_loses_its_lock(front, session):
    with front.raw() as other:
        other.rpc("<lock><target><running/></target></lock>")
        assert session.kill_session(str(other.session_id)).ok
        assert other.process.wait(timeout=5) == 0
        assert lock_is_free(session)
        assert refusal(session.kill_session, str(other.session_id)).tag == "invalid-value"
    assert refusal(session.kill_session, session.session_id).tag == "invalid-value"
    assert f"session {other.session_id} (" in front.log() and "terminated from outside" in front.log()


# ---- filters ----

def entries(front):
    return len(front.lab.database(APP_DB).keys("p_app.lda_loop_entry/*"))


@pytest.fixture
def looped(front, session):
    """Two ports in the loop state."""
    for port in (1, 3):
        front.lab.report_loop(port, is_loop=1)
    wait_for(lambda: entries(front) == 2, 10, "two entries are published")
    yield session
    for port in (1, 3):
        front.lab.report_loop(port, is_loop=0)
    wait_for(lambda: entries(front) == 0, 20, "the entries are withdrawn")


def found(reply):
    """The names of what is in the model's container, with values, in order."""
    container = reply.data_ele.find(f"{{{MODEL}}}loop-detect")
    if container is None:
        return None
    return [(node.tag.split("}")[1], node.text) for node in container.iter()
            if len(node) == 0 and node is not container]


PORT_1 = [("name", "swp1"), ("policy", "0"), ("src-port", "true")]
PORT_3 = [("name", "swp3"), ("policy", "0"), ("src-port", "true")]


@pytest.mark.parametrize("content, expected", [
    ("<loop-policy/>", [("loop-policy", "1")]),
    ("<looped-port/>", PORT_1 + PORT_3),
    ("<looped-port><name>swp3</name></looped-port>", PORT_3),
    ("<looped-port><name>swp3</name><src-port/></looped-port>", [("name", "swp3"), ("src-port", "true")]),
    ("<looped-port><src-port/></looped-port>",
     [("name", "swp1"), ("src-port", "true"), ("name", "swp3"), ("src-port", "true")]),
    ("<looped-port><name>swp2</name></looped-port>", None),
    ("<loop-policy>2</loop-policy>", None),
    ("<loop-policy>1</loop-policy><looped-port><name>swp1</name></looped-port>",
     [("loop-policy", "1")] + PORT_1),
    ("<nothing/>", None),
    ("", [("loop-policy", "1")] + PORT_1 + PORT_3),
])
def test_subtree_filter_selects(looped, content, expected):
    reply = looped.get(filter=("subtree", f'<loop-detect xmlns="{MODEL}">{content}</loop-detect>'))
    assert found(reply) == expected
    assert len(reply.data_ele) == (0 if expected is None else 1)


@pytest.mark.parametrize("select, expected", [
    ("/m:loop-detect", [("loop-policy", "1")] + PORT_1 + PORT_3),
    ("/m:loop-detect/m:looped-port[m:name='swp3']", PORT_3),
    ("//m:src-port[../m:name='swp1']", [("name", "swp1"), ("src-port", "true")]),
    ("/m:loop-detect/m:loop-policy[. > 1]", None),
    ("/m:loop-detect/m:loop-policy | //m:looped-port[1]", [("loop-policy", "1")] + PORT_1),
])
def test_xpath_filter_selects(looped, select, expected):
    reply = looped.get(filter=("xpath", ({"m": MODEL}, select)))
    assert found(reply) == expected


def test_configuration_has_no_state(looped):
    assert found(looped.get_config("running")) == [("loop-policy", "1")]
    assert found(looped.get_config("running", filter=("subtree", LOOP_DETECT))) == [("loop-policy", "1")]


def test_unusable_filters_are_refused(session):
    refusal(session.get, filter=("xpath", "///["))
    bare = f'<get xmlns="{BASE}"><filter type="xpath"/></get>'
    assert refusal(session.dispatch, to_ele(bare)).tag == "missing-attribute"
    empty = session.dispatch(to_ele(f'<get xmlns="{BASE}"><filter type="subtree"/></get>'))
    assert "<data/>" in empty.xml


def test_defaults_in_other_modes_are_refused(front):
    with front.raw() as session:
        for mode in ("explicit", "report-all-tagged"):
            reply = session.rpc(
                "<get-config><source><running/></source>"
                f'<with-defaults xmlns="{DEFAULTS}">{mode}</with-defaults></get-config>')
            assert "<error-tag>operation-not-supported</error-tag>" in reply


# ---- trouble behind the front ----

def seconds_of(call, *arguments):
    started = time.monotonic()
    error = refusal(call, *arguments)
    return error, time.monotonic() - started


def restart_agent(front):
    front.lab.start_agent()
    wait_for(lambda: front.lab.database(0).pubsub_numsub(REQUESTS)[0][1] == 1, 10, "the agent takes requests")


def test_stopped_agent_is_told_at_once_and_nothing_is_written(front, session):
    front.lab.kill_agent()
    try:
        wait_for(lambda: front.lab.database(0).pubsub_numsub(REQUESTS)[0][1] == 0, 5, "the agent is gone")
        before = front.lab.database(LOCAL_DB).get("p_app.lda_nc_policy/")
        error, seconds = seconds_of(set_policy, session, 4)
        assert error_of(error) == (
            "application", "operation-failed", "/qv-loop-detect-server:loop-detect/loop-policy",
            "the loop-detection agent is not running; nothing was changed")
        assert seconds < 3
        assert front.lab.database(LOCAL_DB).get("p_app.lda_nc_policy/") == before
        assert policy_of(session) == 1
    finally:
        restart_agent(front)
    assert set_policy(session, 4).ok


def test_agent_that_does_not_answer_is_waited_for_two_seconds(front, session):
    os.kill(front.lab.agent.pid, signal.SIGSTOP)
    try:
        error, seconds = seconds_of(set_policy, session, 4)
        assert error.tag == "operation-failed"
        assert error.message == ("the loop-detection agent did not answer within 2 s; "
                                 "it may still do what was asked")
        assert 1.9 < seconds < 3
    finally:
        os.kill(front.lab.agent.pid, signal.SIGCONT)
    wait_for(lambda: agent_policy(front) == 4, 5, "the agent has caught up")


@pytest.mark.parametrize("answer, message", [
    ({"result": 1}, "the loop-detection agent refused the request (result 1); nothing was changed"),
    ({"result": 0, "oid": 1}, "the loop-detection agent did not answer within 2 s; "
                              "it may still do what was asked"),
])
def test_only_the_answer_to_the_request_counts(front, session, answer, message):
    """In place of the agent, a program that answers as told."""
    front.lab.kill_agent()
    listener = front.lab.database(LOCAL_DB).pubsub(ignore_subscribe_messages=True)

    def reply(notice):
        record = p_mng.ui_operate.FromString(
            p_app.lda_nc_policy.FromString(notice["data"][1:]).rst.SerializeToString())
        record.rst.result = answer["result"]
        record.index.oid += answer.get("oid", 0)
        front.lab.database(LOCAL_DB).publish(
            f"mom/{LOCAL_DB}/p_mng.ui_operate", b"\2" + record.SerializeToString())

    listener.subscribe(**{REQUESTS: reply})
    thread = listener.run_in_thread(sleep_time=0.01)
    try:
        wait_for(lambda: front.lab.database(0).pubsub_numsub(REQUESTS)[0][1] == 1, 5, "only one listens")
        error, seconds = seconds_of(set_policy, session, 4)
        assert (error.tag, error.message) == ("operation-failed", message)
        assert seconds < 3
    finally:
        thread.stop()
        thread.join()
        listener.close()
        restart_agent(front)


def test_database_that_is_away_is_told_within_three_seconds(front, session):
    front.lab.kill_redis()
    try:
        for call in (lambda: set_policy(session, 4), lambda: session.get_config("running"), session.get):
            error, seconds = seconds_of(call)
            assert error.tag == "operation-failed"
            assert "the object database at " in error.message and "cannot be reached" in error.message
            assert seconds < 3
    finally:
        front.lab.start_redis()
    wait_for(lambda: front.lab.database(0).pubsub_numsub(REQUESTS)[0][1] == 1, 10, "the agent is back")
    assert set_policy(session, 2).ok


def test_database_that_hangs_is_told_within_three_seconds(front, session):
    front.lab.redis_server.send_signal(signal.SIGSTOP)
    try:
        error, seconds = seconds_of(set_policy, session, 4)
        assert error.tag == "operation-failed"
        assert seconds < 3
    finally:
        front.lab.redis_server.send_signal(signal.SIGCONT)
    wait_for(lambda: policy_of(session) == 1, 5, "the database answers again")


@pytest.mark.parametrize("arguments, status, text", [
    (["--help"], 0, "usage: lda-netconf"),
    (["--nonsense"], 2, "bad argument: --nonsense"),
    (["word"], 2, "bad argument: word"),
    (["--platform", "/nowhere.toml"], 2, "/nowhere.toml:0: cannot be read"),
    (["--yang", "/nowhere"], 2, "YANG modules"),
    (["--runtime", "/proc/nowhere"], 2, "/proc/nowhere: "),
])
def test_start_that_fails_says_why(front, tmp_path, arguments, status, text):
    runtime = [] if "--runtime" in arguments else ["--runtime", str(tmp_path / "run")]
    done = subprocess.run([str(front.command()[0]), *runtime, *arguments], capture_output=True, text=True,
                          check=False, stdin=subprocess.DEVNULL)
    assert done.returncode == status
    assert text in done.stdout + done.stderr


def test_requests_before_a_hang_up_are_answered(front):
    """As with `lda-netconf < file`."""
    with front.raw() as session:
        session.request("<get-config><source><running/></source></get-config>")
        session.request(f'<create-subscription xmlns="{EVENT}"/>')
        session.process.stdin.close()
        assert "<data" in session.read()
        assert "<ok/>" in session.read()
        assert session.process.wait(timeout=5) == 0
