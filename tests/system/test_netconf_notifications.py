"""NETCONF notifications: real records raise and clear loops, and real subscribers are notified."""

import contextlib
import fcntl
import os
import re
import select
import signal
import time

import pytest
from lab import LOCAL_DB, p_nc, wait_for
from ncclient.operations import RPCError
from ncclient.xml_ import to_ele
from netconf_lab import BASE, EVENT, LOOP_DETECT, MODEL, NOTIFICATION, policy_config, running_front

CHANNEL = f"mom/{LOCAL_DB}/p_nc.notification"
SUBSCRIBE = f'<create-subscription xmlns="{EVENT}"/>'
STATE = f'<loop-detect-state xmlns="{NOTIFICATION}">{{}}</loop-detect-state>'


@contextlib.contextmanager
def new_front():
    # At this speed an ended loop is cleared after a second.
    with running_front(speed=60) as the_front:
        yield the_front


@pytest.fixture(scope="module")
def shared_front():
    with new_front() as the_front:
        yield the_front


@pytest.fixture
def front(shared_front):
    """For tests in which the agent sends nothing by itself. Nobody is subscribed yet."""
    wait_for(lambda: listeners(shared_front) == 0, 5, "earlier sessions are gone")
    return shared_front


@pytest.fixture
def own_front():
    """For tests with loops, and for tests that stop something."""
    with new_front() as the_front:
        yield the_front


def leaves(text):
    """(name, notify-type, vid, policy, src-port) of a notification."""
    values = re.findall(r"<(name|notify-type|vid|policy|src-port)>([^<]*)<", text)
    assert [name for name, _ in values] == ["name", "notify-type", "vid", "policy", "src-port"]
    return tuple(value for _, value in values)


def next_leaves(session, timeout=10):
    notification = session.take_notification(timeout=timeout)
    assert notification is not None, "no notification came"
    return leaves(notification.notification_xml)


def listeners(front):
    return front.lab.database(0).pubsub_numsub(CHANNEL)[0][1]


def publish(front, name="swp1", kind=1, leaves=None, module="qv-loop-detect-server-notification"):
    """Notifies the subscribers of a loop, as the agent would."""
    record = p_nc.notification(name=f"{module}:loop-detect-state", time_ms=1000)
    record.index.sequence = 1
    for leaf, code, value in leaves or [("notify-type", 20, kind), ("vid", 20, 0), ("policy", 20, 1),
                                        ("src-port", 8, 1)]:
        record.leaves.add(path=f"/{module}:loop-detect-state/loop-notify/notify-entry[name='{name}']/{leaf}",
                          type=code, value=value)
    front.lab.database(LOCAL_DB).publish(CHANNEL, b"\2" + record.SerializeToString())


def test_two_subscribers_see_the_same_in_order(own_front):
    with own_front.connect() as one, own_front.connect() as other:
        one.edit_config(target="running", config=policy_config(1))
        one.create_subscription()
        other.create_subscription()
        own_front.lab.report_loop(1, is_loop=1)
        assert next_leaves(one) == next_leaves(other) == ("swp1", "1", "0", "0", "1")
        own_front.lab.report_loop(3, is_loop=1)
        assert next_leaves(one) == next_leaves(other) == ("swp3", "1", "0", "0", "1")
        own_front.lab.report_loop(1, is_loop=0)
        own_front.lab.report_loop(3, is_loop=0)
        rest = [next_leaves(one, 30) for _ in range(2)]
        assert rest == [next_leaves(other) for _ in range(2)]
        assert sorted(rest) == [("swp1", "2", "0", "0", "1"), ("swp3", "2", "0", "0", "1")]


def test_notification_has_all_leaves_and_a_time(front):
    with front.raw() as session:
        assert "<ok/>" in session.rpc(SUBSCRIBE)
        publish(front)
        assert session.read() == (
            f'<notification xmlns="{EVENT}"><eventTime>1970-01-01T00:00:01.000Z</eventTime>'
            + STATE.format("<sequence>1</sequence><loop-notify><notify-entry><name>swp1</name><notify-type>1</notify-type>"
                           "<vid>0</vid><policy>1</policy><src-port>1</src-port></notify-entry></loop-notify>")
            + "</notification>")


def test_filter_chooses_notifications(front):
    subtree = STATE.format("<loop-notify><notify-entry><name>swp3</name></notify-entry></loop-notify>")
    with front.connect() as by_subtree, front.connect() as by_xpath:
        by_subtree.create_subscription(filter=("subtree", subtree))
        by_xpath.create_subscription(
            filter=("xpath", ({"n": NOTIFICATION}, "//n:notify-entry[n:notify-type = 2]")))
        publish(front, "swp1", 1)
        publish(front, "swp3", 1)
        publish(front, "swp1", 2)
        publish(front, "swp3", 2)
        assert [next_leaves(by_subtree)[:2] for _ in range(2)] == [("swp3", "1"), ("swp3", "2")]
        assert [next_leaves(by_xpath)[:2] for _ in range(2)] == [("swp1", "2"), ("swp3", "2")]
        assert by_subtree.take_notification(timeout=0.3) is None


@pytest.mark.parametrize("prefix, attribute", [("", "type"), ("", "nc:type"), ("nc:", "type")])
def test_filter_may_use_either_namespace(front, prefix, attribute):
    """The standard has the filter in the namespace of notifications; ncclient sends it in that of the base
    protocol."""
    content = STATE.format("<loop-notify><notify-entry><name>swp3</name></notify-entry></loop-notify>")
    with front.raw() as session:
        reply = session.rpc(f'<create-subscription xmlns="{EVENT}" xmlns:nc="{BASE}">'
                            f'<{prefix}filter {attribute}="subtree">{content}</{prefix}filter>'
                            "</create-subscription>")
        assert "<ok/>" in reply
        publish(front, "swp1")
        publish(front, "swp3")
        assert leaves(session.read())[0] == "swp3"


def test_requests_are_answered_during_a_subscription(front):
    with front.connect() as session:
        session.create_subscription()
        for number in range(20):
            publish(front, f"port{number}")
            assert session.edit_config(target="running", config=policy_config(1 + number % 4)).ok
            reply = session.get(filter=("subtree", LOOP_DETECT))
            assert reply.data_ele.findtext(f".//{{{MODEL}}}loop-policy") == str(1 + number % 4)
        assert [next_leaves(session)[0] for _ in range(20)] == [f"port{number}" for number in range(20)]


def test_session_without_a_subscription_gets_no_notifications(front):
    with front.raw() as session:
        assert listeners(front) == 0
        publish(front)
        assert "<rpc-reply" in session.rpc("<get-config><source><running/></source></get-config>")


def subscription(**elements):
    parts = "".join(f"<{name}>{value}</{name}>" for name, value in elements.items())
    return to_ele(f'<create-subscription xmlns="{EVENT}">{parts}</create-subscription>')


@pytest.mark.parametrize("elements, tag, info", [
    ({"stopTime": "2021-01-01T00:00:00Z"}, "missing-element", "<bad-element>startTime</bad-element>"),
    ({"startTime": "2020-01-01T00:00:00Z", "stopTime": "2019-01-01T00:00:00Z"}, "bad-element",
     "<bad-element>stopTime</bad-element>"),
    ({"startTime": "2920-01-01T00:00:00Z"}, "bad-element", "<bad-element>startTime</bad-element>"),
    ({"stream": "ELSEWHERE"}, "invalid-value", ""),
])
def test_impossible_times_and_other_streams_are_refused(front, elements, tag, info):
    with front.connect() as session:
        with pytest.raises(RPCError) as caught:
            session.dispatch(subscription(**elements))
        assert caught.value.tag == tag
        assert info in (caught.value.info or "")
        assert session.dispatch(subscription(stream="NETCONF")).ok


@pytest.mark.parametrize("attributes, tag", [
    ('type="xpath" select="1 + 1"', "invalid-value"),
    ('type="xpath" select="///["', "invalid-value"),
    ('type="xpath"', "missing-attribute"),
])
def test_unusable_filter_is_refused_at_once(front, attributes, tag):
    with front.raw() as session:
        reply = session.rpc(f'<create-subscription xmlns="{EVENT}"><filter {attributes}/></create-subscription>')
        assert f"<error-tag>{tag}</error-tag>" in reply
        assert listeners(front) == 0


def test_second_subscription_is_refused(front):
    with front.connect() as session:
        session.create_subscription()
        with pytest.raises(RPCError) as caught:
            session.create_subscription()
        assert caught.value.tag == "operation-failed"
        assert listeners(front) == 1


@pytest.mark.parametrize("record", [
    b"", b"\2", b"\2garbage", b"\0\0\0\0", b"\2" + b"\xff" * 1000,
], ids=["empty", "bare", "garbage", "another operation", "long"])
def test_invalid_records_are_dropped(front, record):
    with front.raw() as session:
        session.rpc(SUBSCRIBE)
        front.lab.database(LOCAL_DB).publish(CHANNEL, record)
        publish(front, leaves=[("notify-type", 20, 3)])        # outside the range of the model
        publish(front, leaves=[("notify-type", 7, 1)])         # an unknown type code
        publish(front, leaves=[("nothing", 20, 1)])            # a leaf that does not exist
        publish(front, name="it's")                            # a path that does not parse
        publish(front, module="ietf-netconf")                  # another module
        publish(front, name="good")
        assert leaves(session.read())[0] == "good"
        who = f"session {session.session_id} ("
    dropped = [line for line in front.log().splitlines()
               if who in line and "an invalid notification of the switch is dropped: " in line]
    assert len(dropped) >= 5


def test_subscription_is_renewed_after_a_database_restart(own_front):
    with own_front.connect() as session:
        session.create_subscription()
        for name in ("one", "two"):
            own_front.lab.kill_redis()
            time.sleep(0.5)
            own_front.lab.start_redis()
            wait_for(lambda: listeners(own_front) == 1, 10, "the session listens again")
            publish(own_front, name)
            assert next_leaves(session)[0] == name
        # The agent also reconnects to the database, and its own notifications arrive.
        session.edit_config(target="running", config=policy_config(1))
        own_front.lab.report_loop(2, is_loop=1)
        assert next_leaves(session, 20)[:2] == ("swp2", "1")
    log = own_front.log()
    assert log.count("notifications pause, the object database is away: ") == 2
    assert log.count("notifications continue, the object database is back") == 2


def test_subscription_without_a_database_is_refused(own_front):
    with own_front.connect() as session:
        own_front.lab.kill_redis()
        started = time.monotonic()
        with pytest.raises(RPCError) as caught:
            session.create_subscription()
        assert "cannot be reached" in caught.value.message
        assert time.monotonic() - started < 3
        own_front.lab.start_redis()
        assert session.create_subscription().ok


def test_subscriber_that_never_reads_delays_no_other(front):
    """It is cut off when a thousand notifications have waited for 5 s; until then the others notice nothing."""
    with front.raw() as lazy, front.raw() as eager:
        lazy.rpc(SUBSCRIBE)
        eager.rpc(SUBSCRIBE)
        eager.rpc("<get-config><source><running/></source></get-config>")
        slowest = 0
        for number in range(1500):
            started = time.monotonic()
            publish(front, f"port{number}")
            assert leaves(eager.read())[0] == f"port{number}"
            slowest = max(slowest, time.monotonic() - started)
        assert slowest < 1
        assert lazy.process.wait(timeout=20) == 1
        started = time.monotonic()
        assert front.lab.cli_status("show loop-detect") == 0
        assert time.monotonic() - started < 2
        assert "<rpc-reply" in eager.rpc("<get-config><source><running/></source></get-config>")
    assert "ended: the client leaves 1000 notifications unread" in front.log()


def test_burst_does_not_disconnect_the_client(front):
    """More notifications than may wait arrive while the session is busy; the client reads them all, late."""
    with front.raw() as session:
        session.rpc(SUBSCRIBE)
        session.process.send_signal(signal.SIGSTOP)
        for number in range(1500):
            publish(front, f"port{number}")
        session.process.send_signal(signal.SIGCONT)
        time.sleep(1)  # time for the session to fill the pipe and its queue
        assert [leaves(session.read())[0] for _ in range(1500)] == [f"port{number}" for number in range(1500)]


def test_request_waits_until_the_client_reads(front):
    with front.raw() as session, front.raw() as other:
        other.rpc(f"<edit-config><target><running/></target>{policy_config(1)}</edit-config>")
        session.rpc(SUBSCRIBE)
        for number in range(900):
            publish(front, f"port{number}")
        wait_for(lambda: output_is_full(session), 10, "the session has filled its pipe")
        session.request(f"<edit-config><target><running/></target>{policy_config(3)}</edit-config>")
        for _ in range(3):
            reply = other.rpc("<get-config><source><running/></source></get-config>")
            assert "<loop-policy>1</loop-policy>" in reply
        while "<ok/>" not in session.read():
            pass
        reply = other.rpc("<get-config><source><running/></source></get-config>")
        assert "<loop-policy>3</loop-policy>" in reply


def output_is_full(session):
    """Whether a write of the session would block."""
    descriptor = os.open(f"/proc/{session.process.pid}/fd/1", os.O_WRONLY | os.O_NONBLOCK)
    try:
        return not select.select([], [descriptor], [], 0)[1]
    finally:
        os.close(descriptor)


def test_client_that_reads_no_replies_ends_only_its_own_session(front):
    """Its requests are not read or executed, and the session can be killed."""
    with front.raw() as lazy, front.connect() as session:
        fcntl.fcntl(lazy.process.stdin, fcntl.F_SETFL, os.O_NONBLOCK)
        text = f'<rpc xmlns="{BASE}" message-id="1"><get/></rpc>'.encode()
        sent = 0
        while sent is not None and sent < 200000:
            written = lazy.process.stdin.write(b"\n#%d\n%s\n##\n" % (len(text), text))
            sent = sent + written if written else None
        assert session.edit_config(target="running", config=policy_config(2)).ok
        assert session.kill_session(str(lazy.session_id)).ok
        assert lazy.process.wait(timeout=20) == 0


def test_notifications_continue_after_an_agent_restart(own_front):
    with own_front.connect() as session:
        session.create_subscription()
        own_front.lab.kill_agent(signal.SIGKILL)
        own_front.lab.start_agent()
        session.edit_config(target="running", config=policy_config(1))
        own_front.lab.report_loop(1, is_loop=1)
        assert next_leaves(session, 20) == ("swp1", "1", "0", "0", "1")
