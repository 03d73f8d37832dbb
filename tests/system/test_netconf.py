"""NETCONF operations: ncclient over a private sshd, and a running agent, with redis between them."""

import concurrent.futures
import contextlib
import fcntl
import os
import pathlib
import re
import signal
import subprocess
import time

import pytest
from lab import CFG_DB, LOCAL_DB, p_app, p_mng, wait_for
from ncclient.operations import RPCError
from ncclient.xml_ import to_ele
from netconf_lab import BASE, EVENT, LOOP_DETECT, MODEL, MONITORING, policy_config, refusal, running_front, set_policy

MODULES = {
    "ietf-inet-types", "ietf-netconf", "ietf-netconf-monitoring", "ietf-netconf-with-defaults",
    "ietf-yang-metadata", "ietf-yang-schema-mount", "ietf-yang-structure-ext", "ietf-yang-types",
    "nc-notifications", "notifications", "qv-errdisable", "qv-loop-detect-server",
    "qv-loop-detect-server-notification", "qv-netconf-deviations", "yang",
}
RUNNING_CONFIG = {
    0: None,
    1: "loop-detect enable",
    2: "loop-detect enable shutdown access-mode",
    3: "loop-detect enable shutdown hybrid-mode",
    4: "loop-detect enable shutdown access-hybrid-mode",
}
PUBLISHED_MODULES = "/usr/share/yuma/modules/ietf"
DEFAULTS = "urn:ietf:params:xml:ns:yang:ietf-netconf-with-defaults"
REQUESTS = f"mom/{LOCAL_DB}/p_app.lda_nc_policy"
ANSWERS = f"mom/{LOCAL_DB}/p_mng.ui_operate"
CONTAINER_PATH = "/qvld:loop-detect"
LEAF_PATH = "/qvld:loop-detect/qvld:loop-policy"


@pytest.fixture(scope="module")
def front():
    with running_front(speed=60) as the_front:
        yield the_front


@pytest.fixture(scope="module", autouse=True)
def silent(front):
    """A session without a hello. It lasts half a minute, so it starts first and is checked last."""
    with front.raw(hello=False) as session:
        session.started = time.monotonic()
        yield session


@pytest.fixture(scope="module", autouse=True)
def deaf(front):
    """A session that reads none of its answers; only the beginning of one of them fits."""
    with front.raw() as session:
        session.started = time.monotonic()
        for _ in range(8):
            session.request(f'<get-schema xmlns="{MONITORING}"><identifier>ietf-netconf</identifier></get-schema>')
        yield session


@pytest.fixture(scope="module", autouse=True)
def idle(front):
    """A session that sends one request and is then left alone for longer than any time limit."""
    with front.raw() as session:
        session.rpc("<get/>")
        yield session


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
    """The requests to the agent meanwhile, as a function that returns the list of records."""
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


def policy_of(session, **options):
    """The policy in <get-config>, None when it is not reported."""
    reply = session.get_config("running", **options)
    leaf = reply.data_ele.find(f"{{{MODEL}}}loop-detect/{{{MODEL}}}loop-policy")
    return None if leaf is None else int(leaf.text)


def agent_policy(front):
    """The policy that the agent has published."""
    packed = front.lab.database(CFG_DB).get("p_app.lda_nc_policy/")
    return p_app.lda_nc_policy.FromString(packed).loop_policy_cli


def error_of(error):
    return (error.type, error.tag, error.path, error.message)


# ---- the session ----

def test_hello_announces_the_capabilities(session):
    plain = {text for text in session.server_capabilities if "?module=" not in text}
    assert plain == {
        "urn:ietf:params:netconf:base:1.0",
        "urn:ietf:params:netconf:base:1.1",
        "urn:ietf:params:netconf:capability:writable-running:1.0",
        "urn:ietf:params:netconf:capability:validate:1.1",
        "urn:ietf:params:netconf:capability:xpath:1.0",
        "urn:ietf:params:netconf:capability:with-defaults:1.0?basic-mode=trim&also-supported=report-all,trim",
        "urn:ietf:params:netconf:capability:notification:1.0",
        "urn:ietf:params:netconf:capability:interleave:1.0",
    }
    modules = {text for text in session.server_capabilities if "?module=qv-" in text}
    assert modules == {
        "urn:qv:yang:qv-errdisable?module=qv-errdisable&revision=2026-11-23",
        "urn:qv:yang:qv-loop-detect-server?module=qv-loop-detect-server&revision=2026-11-21",
        "urn:qv:yang:qv-loop-detect-server-notification"
        "?module=qv-loop-detect-server-notification&revision=2026-11-23",
        "urn:qv:yang:qv-netconf-deviations?module=qv-netconf-deviations&revision=2026-11-23",
    }


def test_every_schema_is_served_and_parses(session, tmp_path):
    listed = session.get(filter=("subtree", f'<netconf-state xmlns="{MONITORING}"><schemas/></netconf-state>'))
    names = {}
    for schema in listed.data_ele.iter(f"{{{MONITORING}}}schema"):
        name = schema.findtext(f"{{{MONITORING}}}identifier")
        names[name] = schema.findtext(f"{{{MONITORING}}}version")
    assert set(names) == MODULES
    for name, version in names.items():
        text = session.get_schema(name, version=version).data
        (tmp_path / f"{name}@{version}.yang").write_text(text)
    # libyang takes its built-in modules from itself, whatever is in the folder.
    ours = [path for path in sorted(tmp_path.iterdir()) if not path.name.startswith("yang@")]
    checked = subprocess.run(["yanglint", "-p", str(tmp_path), *map(str, ours)],
                             capture_output=True, text=True, check=False)
    assert (checked.returncode, checked.stderr) == (0, "")


def test_yang_modules_pass_the_strict_check():
    folder = pathlib.Path(__file__).resolve().parents[2] / "yang"
    checked = subprocess.run(["yanglint", "-p", str(folder), "-p", PUBLISHED_MODULES,
                              *map(str, sorted(folder.glob("*.yang")))],
                             capture_output=True, text=True, check=False)
    assert (checked.returncode, checked.stdout + checked.stderr) == (0, "")


def test_unknown_schema_is_refused(session):
    unknown = refusal(session.get_schema, "no-such-module")
    assert (unknown.tag, unknown.message) == ("invalid-value", 'there is no schema "no-such-module"')
    other = refusal(session.get_schema, "qv-loop-detect-server", version="1999-01-01")
    assert (other.tag, other.message) == (
        "invalid-value", 'there is no schema "qv-loop-detect-server" of version 1999-01-01')


@pytest.mark.parametrize("form, text", [
    ("yang", "module qv-loop-detect-server {"),
    ("yin", "<error-tag>invalid-value</error-tag>"),
])
def test_schema_is_served_in_the_requested_format(front, form, text):
    with front.raw() as session:
        assert text in session.rpc(
            f'<get-schema xmlns="{MONITORING}"><identifier>qv-loop-detect-server</identifier>'
            f'<format xmlns:ncm="{MONITORING}">ncm:{form}</format></get-schema>')


def test_sessions_have_unique_numbers_and_are_listed(front):
    with front.connect() as one, front.connect() as other:
        assert one.session_id != other.session_id
        state = one.get(filter=("subtree", f'<netconf-state xmlns="{MONITORING}"><sessions/></netconf-state>'))
        numbers = {leaf.text for leaf in state.data_ele.iter(f"{{{MONITORING}}}session-id")}
        assert {one.session_id, other.session_id} <= numbers


def test_session_start_and_end_are_logged(front):
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
        "application", "invalid-value", LEAF_PATH,
        f'loop-policy is a number from 0 to 4, not "{value}"')
    assert requests() == []
    assert agent_policy(front) == 1


def test_operations_respect_existing_data(front, session, requests):
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


def test_default_operation_applies_where_none_is_given(front, session, requests):
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
    assert set_policy(session, 4, test_option="set", error_option="stop-on-error").ok
    assert agent_policy(front) == 4


def test_copy_and_validate_accept_a_whole_configuration(front, session):
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


def test_running_configuration_is_not_copied_onto_itself(front):
    with front.raw() as session:
        reply = session.rpc(f"<copy-config><target>{RUNNING}</target><source>{RUNNING}</source></copy-config>")
    assert "<error-tag>invalid-value</error-tag>" in reply
    assert "the running configuration cannot be copied onto itself" in reply


@pytest.mark.parametrize("content, tag, path", [
    ('<other xmlns="urn:example:other"/>', "unknown-namespace", None),
    (f'<other xmlns="{MODEL}"/>', "unknown-element", "/"),
    (f'<loop-detect xmlns="{MODEL}"><other/></loop-detect>', "unknown-element",
     CONTAINER_PATH),
    (f'<loop-detect xmlns="{MODEL}"><looped-port><name>swp1</name></looped-port></loop-detect>',
     "invalid-value", CONTAINER_PATH + "/qvld:looped-port"),
    (f'<loop-detect xmlns="{MODEL}"><loop-policy>2</loop-policy><loop-policy>3</loop-policy></loop-detect>',
     "bad-element", LEAF_PATH),
    (f'<loop-detect xmlns="{MODEL}"><loop-policy>2</loop-policy></loop-detect>'
     f'<loop-detect xmlns="{MODEL}"/>', "bad-element", CONTAINER_PATH),
    (f'<loop-detect xmlns="{MODEL}">text</loop-detect>', "bad-element", CONTAINER_PATH),
    ("text", "bad-element", None),
])
@pytest.mark.parametrize("operation", ["merge", "replace"])
def test_configuration_outside_the_models_is_refused(session, requests, operation, content, tag, path):
    error = refusal(session.edit_config, target="running", default_operation=operation,
                    config=f'<config xmlns="{BASE}">{content}</config>')
    assert (error.tag, error.path) == (tag, path)
    assert requests() == []


def test_path_of_an_error_declares_its_prefix(front):
    with front.raw() as session:
        reply = session.rpc(f"<edit-config><target><running/></target>{policy_config(9)}</edit-config>")
    assert (f'<error-path xmlns:qvld="{MODEL}">{LEAF_PATH}</error-path>') in reply


RUNNING = "<running/>"
INLINE = f"<config>{LOOP_DETECT}</config>"


@pytest.mark.parametrize("request_text, tag, element", [
    ("<get-config/>", "missing-element", "source"),
    ("<get-config><source/></get-config>", "bad-element", "source"),
    (f"<edit-config><target>{RUNNING}</target></edit-config>", "missing-element", "config"),
    (f"<edit-config><target>{RUNNING}</target><default-operation>replace</default-operation></edit-config>",
     "missing-element", "config"),
    (f"<edit-config>{INLINE}</edit-config>", "missing-element", "target"),
    (f"<edit-config><target/>{INLINE}</edit-config>", "bad-element", "target"),
    (f"<edit-config><target>{RUNNING}</target>{INLINE}<config/></edit-config>", "bad-element", "config"),
    (f"<copy-config><target>{RUNNING}</target></copy-config>", "missing-element", "source"),
    (f"<copy-config><target>{RUNNING}</target><source>{RUNNING}{INLINE}</source></copy-config>", "bad-element",
     "source"),
    ("<validate/>", "missing-element", "source"),
    ("<lock/>", "missing-element", "target"),
    ("<unlock><target/></unlock>", "bad-element", "target"),
    ("<kill-session/>", "missing-element", "session-id"),
    (f'<get-schema xmlns="{MONITORING}"/>', "missing-element", "identifier"),
])
def test_incomplete_request_is_refused(front, session, requests, request_text, tag, element):
    with front.raw() as raw:
        reply = raw.rpc(request_text)
    assert f"<error-type>protocol</error-type><error-tag>{tag}</error-tag>" in reply
    assert f"<error-info><bad-element>{element}</bad-element></error-info>" in reply
    assert requests() == []


@pytest.mark.parametrize("prefix", ["", "nc:"])
def test_operation_needs_no_namespace(front, session, requests, prefix):
    assert session.edit_config(target="running", config=(
        f'<config xmlns="{BASE}" xmlns:nc="{BASE}"><loop-detect xmlns="{MODEL}">'
        f'<loop-policy {prefix}operation="delete">4</loop-policy></loop-detect></config>')).ok
    assert [(record.rst.index.type, record.loop_policy_cli) for record in requests()] == [(3, 0)]


def test_unannounced_datastores_and_operations_are_refused(session):
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


def test_lock_is_released_however_its_session_ends(front, session):
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


def test_request_waits_briefly_for_another_sessions_edit(front, session, requests):
    """The test takes the turn, like a session that hangs in the middle of an edit."""
    with open(front.runtime / "edit.lock", "r+b") as turn:
        fcntl.lockf(turn, fcntl.LOCK_EX)
        for call in (lambda: set_policy(session, 4), lambda: session.lock("running"),
                     lambda: session.unlock("running")):
            error, seconds = seconds_of(call)
            assert (error.tag, error.message) == ("in-use", "another session is editing")
            assert 0.8 < seconds < 3
    assert requests() == []
    assert set_policy(session, 4).ok


def test_stopped_session_can_be_killed(front, session):
    with front.raw() as other:
        other.rpc("<lock><target><running/></target></lock>")
        other.process.send_signal(signal.SIGSTOP)
        assert session.kill_session(str(other.session_id)).ok
        assert other.process.wait(timeout=20) == -signal.SIGKILL
        assert lock_is_free(session)


def test_killed_session_ends_and_loses_its_lock(front, session):
    with front.raw() as other:
        other.rpc("<lock><target><running/></target></lock>")
        assert session.kill_session(str(other.session_id)).ok
        assert other.process.wait(timeout=20) == 0
        assert lock_is_free(session)
        assert refusal(session.kill_session, str(other.session_id)).tag == "invalid-value"
    assert refusal(session.kill_session, session.session_id).tag == "invalid-value"
    assert f"session {other.session_id} (" in front.log() and "terminated from outside" in front.log()
    assert f"): killed session {other.session_id}\n" in front.log()


def test_defaults_in_other_modes_are_refused(front):
    with front.raw() as session:
        for mode in ("explicit", "report-all-tagged"):
            reply = session.rpc(
                "<get-config><source><running/></source>"
                f'<with-defaults xmlns="{DEFAULTS}">{mode}</with-defaults></get-config>')
            assert "<error-tag>operation-not-supported</error-tag>" in reply


# ---- faults of the database and the agent ----

SILENCE = "the loop-detection agent did not answer within 2 s; the agent may still do what was asked"


def seconds_of(call, *arguments):
    started = time.monotonic()
    error = refusal(call, *arguments)
    return error, time.monotonic() - started


def restart_agent(front):
    front.lab.start_agent()
    wait_for(lambda: front.lab.database(0).pubsub_numsub(REQUESTS)[0][1] == 1, 10, "the agent takes requests")


def test_stopped_agent_is_reported_at_once_and_nothing_is_written(front, session):
    front.lab.kill_agent()
    try:
        wait_for(lambda: front.lab.database(0).pubsub_numsub(REQUESTS)[0][1] == 0, 5, "the agent is gone")
        before = front.lab.database(LOCAL_DB).get("p_app.lda_nc_policy/")
        error, seconds = seconds_of(set_policy, session, 4)
        assert error_of(error) == (
            "application", "operation-failed", LEAF_PATH, "the loop-detection agent is not running; nothing was changed")
        assert seconds < 3
        assert front.lab.database(LOCAL_DB).get("p_app.lda_nc_policy/") == before
        assert policy_of(session) == 1
    finally:
        restart_agent(front)
    assert set_policy(session, 4).ok


def test_unanswered_request_times_out_after_two_seconds(front, session):
    os.kill(front.lab.agent.pid, signal.SIGSTOP)
    try:
        error, seconds = seconds_of(set_policy, session, 4)
        assert error.tag == "operation-failed"
        assert error.message == SILENCE
        assert 1.9 < seconds < 3
    finally:
        os.kill(front.lab.agent.pid, signal.SIGCONT)
    wait_for(lambda: agent_policy(front) == 4, 5, "the agent has caught up")


@contextlib.contextmanager
def agent_stand_in(front, react):
    """A program that takes the requests: `react(record)` is called with each `rst` received."""
    front.lab.kill_agent()
    listener = front.lab.database(LOCAL_DB).pubsub(ignore_subscribe_messages=True)
    listener.subscribe(**{REQUESTS: lambda notice: react(p_app.lda_nc_policy.FromString(notice["data"][1:]).rst)})
    thread = listener.run_in_thread(sleep_time=0.01, exception_handler=lambda error, pubsub, worker: worker.stop())
    try:
        wait_for(lambda: front.lab.database(0).pubsub_numsub(REQUESTS)[0][1] == 1, 5, "only one listens")
        yield
    finally:
        thread.stop()
        thread.join()
        listener.close()


def answer(front, request, operation=b"\2", **changes):
    """Publishes the answer to `request`, with `fields` replaced."""
    record = p_mng.ui_operate.FromString(request.SerializeToString())
    record.rst.result = changes.get("result", 0)
    record.index.oid += changes.get("oid", 0)
    record.index.type += changes.get("type", 0)
    record.index.publisher += changes.get("publisher", "")
    front.lab.database(LOCAL_DB).publish(ANSWERS, operation + record.SerializeToString())


def test_refusal_by_the_agent_is_reported(front, session):
    with agent_stand_in(front, lambda request: answer(front, request, result=1)):
        error = refusal(set_policy, session, 4)
        assert error_of(error) == (
            "application", "operation-failed", LEAF_PATH,
            "the loop-detection agent refused the request (result 1); nothing was changed")
    restart_agent(front)


WRONG_ANSWERS = [{"oid": -1}, {"type": 1}, {"publisher": "0"}, {"operation": b"\1"}]


def test_only_the_answer_to_the_request_counts(front, session):
    """Answers to others arrive before and after it; a late answer does not count for the next request."""
    def react(request):
        front.lab.database(LOCAL_DB).publish(ANSWERS, b"\2no record")
        for wrong in WRONG_ANSWERS:
            answer(front, request, **wrong, result=1)
        answer(front, request, result=results.pop(0))
        answer(front, request, result=1)
        answer(front, request)

    results = [0, 1, 0]
    with agent_stand_in(front, react):
        assert set_policy(session, 4).ok
        assert "(result 1)" in refusal(set_policy, session, 4).message
        assert set_policy(session, 4).ok
    restart_agent(front)


def test_other_answers_do_not_extend_the_wait(front, session):
    def react(request):
        for wrong in WRONG_ANSWERS:
            answer(front, request, **wrong)
        time.sleep(1.6)
        answer(front, request, oid=-1)

    with agent_stand_in(front, react):
        error, seconds = seconds_of(set_policy, session, 4)
        assert (error.tag, error.message) == ("operation-failed", SILENCE)
        assert 1.9 < seconds < 3.4
    restart_agent(front)


def test_database_lost_during_an_edit_is_reported_at_once(front, session):
    with agent_stand_in(front, lambda request: None), concurrent.futures.ThreadPoolExecutor() as pool:
        before = front.lab.database(LOCAL_DB).get("p_app.lda_nc_policy/")
        edit = pool.submit(seconds_of, set_policy, session, 4)
        wait_for(lambda: front.lab.database(LOCAL_DB).get("p_app.lda_nc_policy/") != before, 2, "the request is there")
        front.lab.kill_redis()
        error, seconds = edit.result()
        front.lab.start_redis()
    assert error_of(error)[:3] == ("application", "operation-failed", LEAF_PATH)
    assert error.message.startswith("the object database went away: ")
    assert error.message.endswith("; the agent may still do what was asked")
    assert seconds < 1.5
    restart_agent(front)
    assert set_policy(session, 2).ok


def test_missing_database_is_reported_within_three_seconds(front, session):
    front.lab.kill_redis()
    try:
        for call in (lambda: set_policy(session, 4), lambda: session.get_config("running"), session.get):
            error, seconds = seconds_of(call)
            assert (error.type, error.tag) == ("application", "operation-failed")
            assert "the object database at " in error.message and "cannot be reached" in error.message
            assert seconds < 3
    finally:
        front.lab.start_redis()
    wait_for(lambda: front.lab.database(0).pubsub_numsub(REQUESTS)[0][1] == 1, 10, "the agent is back")
    assert set_policy(session, 2).ok


def test_hanging_database_is_reported_within_three_seconds(front, session):
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
    (["--platform", "/nowhere.toml"], 2, "/nowhere.toml: cannot be read"),
    (["--yang", "/nowhere"], 2, "YANG modules"),
    (["--runtime", "/proc/nowhere"], 2, "/proc/nowhere: "),
])
def test_failed_start_prints_its_reason(front, tmp_path, arguments, status, text):
    runtime = [] if "--runtime" in arguments else ["--runtime", str(tmp_path / "run")]
    done = subprocess.run([str(front.command()[0]), *runtime, *arguments], capture_output=True, text=True,
                          check=False, stdin=subprocess.DEVNULL)
    assert done.returncode == status
    assert text in done.stdout + done.stderr


def test_failed_start_is_logged(front, tmp_path):
    done = subprocess.run([str(front.command()[0]), "--yang", "/nowhere", "--runtime", str(tmp_path / "run"), "--stderr"],
                          capture_output=True, text=True, check=False, stdin=subprocess.DEVNULL)
    said, logged = done.stderr.splitlines()
    assert said == "lda-netconf: the folder of the YANG modules cannot be used: /nowhere"
    assert re.fullmatch(r"lda-netconf\[[0-9]+\]: session [0-9]+ \(\w+\): "
                        "the folder of the YANG modules cannot be used: /nowhere", logged)


def test_help_works_with_any_platform_file(front):
    done = subprocess.run([str(front.command()[0]), "--help"], capture_output=True, text=True, check=False,
                          env={**os.environ, "LDA_PLATFORM": "/nowhere.toml"})
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.startswith("usage: lda-netconf")


def test_requests_before_a_disconnect_are_answered(front):
    """As with `lda-netconf < file`."""
    with front.raw() as session:
        session.request("<get-config><source><running/></source></get-config>")
        session.request(f'<create-subscription xmlns="{EVENT}"/>')
        session.process.stdin.close()
        assert "<data" in session.read()
        assert "<ok/>" in session.read()
        assert session.process.wait(timeout=20) == 0


def test_client_without_a_hello_times_out(front, silent):
    left = silent.started + 45 - time.monotonic()
    assert silent.process.wait(timeout=max(1, left)) == 1
    own_lines = [line for line in front.log().splitlines() if f"session {silent.session_id} (" in line]
    assert own_lines[-1].endswith("): ended: the client sent no hello in time")


def test_client_that_reads_no_answer_is_disconnected(front, deaf):
    left = deaf.started + 45 - time.monotonic()
    assert deaf.process.wait(timeout=max(1, left)) == 1
    own_lines = [line for line in front.log().splitlines() if f"session {deaf.session_id} (" in line]
    assert own_lines[-1].endswith("): ended: a message took too long, or nobody reads")


def test_session_may_be_idle_longer_than_the_answer_timeout(front, idle):
    """It is more than half a minute old by now, because earlier tests have waited that long."""
    assert "<rpc-reply" in idle.rpc("<get-config><source><running/></source></get-config>")
