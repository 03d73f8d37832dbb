"""Replay of notifications: what happened before a client came, without a gap and without a double."""

import contextlib
import datetime
import random
import re
import signal
import time

import pytest
from lab import LOCAL_DB, p_nc, wait_for
from netconf_lab import EVENT, policy_config, running_front

PORTS = range(1, 10)  # swp1 to swp9; the agent counts ten looped ports and notifies of no more
STREAMS = '<get><filter><netconf xmlns="urn:ietf:params:xml:ns:netmod:notification"/></filter></get>'
COMPLETE = '<replayComplete xmlns="urn:ietf:params:xml:ns:netmod:notification"/>'
OVER = '<notificationComplete xmlns="urn:ietf:params:xml:ns:netmod:notification"/>'


@pytest.fixture
def front():
    # At this speed an ended loop is cleared after a second.
    with running_front(speed=60, ports=10) as the_front:
        enable(the_front)
        yield the_front


def enable(front):
    with front.raw() as session:
        assert "<ok/>" in session.rpc(f"<edit-config><target><running/></target>{policy_config(1)}</edit-config>")


def replay(start, stop=None):
    end = f"<stopTime>{stop}</stopTime>" if stop else ""
    return f'<create-subscription xmlns="{EVENT}"><startTime>{start}</startTime>{end}</create-subscription>'


def number_of(text):
    return int(re.search("<sequence>([0-9]+)<", text).group(1))


def port_and_kind(text):
    return tuple(re.findall("<(?:name|notify-type)>([^<]*)<", text))


def kept_numbers(front):
    database = front.lab.database(LOCAL_DB)
    records = [database.get(key) for key in database.keys("p_nc.kept_notification/*")]
    return sorted(p_nc.kept_notification.FromString(record).notification.index.sequence for record in records)


def kept(front, count):
    wait_for(lambda: len(kept_numbers(front)) >= count, 20, f"{count} notifications are kept")


def move_back(front, seconds):
    """Lets the kept notifications have happened earlier: a step of the clock must not mix them with later ones."""
    database = front.lab.database(LOCAL_DB)
    for key in database.keys("p_nc.kept_notification/*"):
        record = p_nc.kept_notification.FromString(database.get(key))
        record.notification.time_ms -= seconds * 1000
        database.set(key, record.SerializeToString())


def now_minus(seconds):
    time_then = datetime.datetime.now(datetime.timezone.utc) - datetime.timedelta(seconds=seconds)
    return time_then.isoformat(timespec="milliseconds")


def read_to(session, end):
    """The messages up to the first one with the text `end`, which is left out."""
    messages = []
    while end not in (text := session.read(20)):
        messages.append(text)
    return messages


def test_client_that_comes_late_learns_what_happened(front):
    front.lab.report_loop(1, is_loop=1)
    kept(front, 1)
    move_back(front, 60)
    between = now_minus(30)
    front.lab.report_loop(2, is_loop=1)
    kept(front, 2)
    with front.raw() as all_of_it, front.raw() as later:
        assert "<ok/>" in all_of_it.rpc(replay("2020-01-01T00:00:00Z"))
        assert "<ok/>" in later.rpc(replay(between))
        past = read_to(all_of_it, COMPLETE)
        assert [port_and_kind(text) for text in past] == [("swp1", "1"), ("swp2", "1")]
        assert [port_and_kind(text) for text in read_to(later, COMPLETE)] == [("swp2", "1")]
        front.lab.report_loop(3, is_loop=1)
        for session in (all_of_it, later):
            live = session.read()
            assert port_and_kind(live) == ("swp3", "1")
            assert number_of(live) == number_of(past[-1]) + 1


def test_numbers_go_on_after_the_agent_was_killed(front):
    front.lab.report_loops(PORTS)
    kept(front, len(PORTS))
    front.lab.kill_agent(signal.SIGKILL)
    before = kept_numbers(front)
    with front.raw() as session:
        assert "<ok/>" in session.rpc(replay("2020-01-01T00:00:00Z"))
        assert [number_of(text) for text in read_to(session, COMPLETE)] == before
        front.lab.start_agent()
        enable(front)
        for port in PORTS:
            front.lab.report_loop(port, is_loop=0)
        front.lab.report_loop(10, is_loop=1)
        live = [session.read(30)]
        while port_and_kind(live[-1])[0] != "swp10":
            live.append(session.read(30))
        assert [number_of(text) for text in live] == [before[-1] + n for n in range(1, len(live) + 1)]


def test_end_in_the_past_ends_the_subscription_at_once(front):
    front.lab.report_loop(1, is_loop=1)
    kept(front, 1)
    move_back(front, 60)
    end = now_minus(30)
    front.lab.report_loop(2, is_loop=1)
    kept(front, 2)
    with front.raw() as session:
        assert "<ok/>" in session.rpc(replay("2020-01-01T00:00:00Z", end))
        assert [port_and_kind(text) for text in read_to(session, COMPLETE)] == [("swp1", "1")]
        assert OVER in session.read()
        assert "<rpc-reply" in session.rpc("<get-config><source><running/></source></get-config>")
        assert "<ok/>" in session.rpc(f'<create-subscription xmlns="{EVENT}"/>')


def test_end_in_the_future_ends_it_when_it_comes(front):
    end = datetime.datetime.now(datetime.timezone.utc) + datetime.timedelta(seconds=2)
    with front.raw() as session:
        assert "<ok/>" in session.rpc(replay("2020-01-01T00:00:00Z", end.isoformat(timespec="milliseconds")))
        assert COMPLETE in session.read()
        front.lab.report_loop(1, is_loop=1)
        assert port_and_kind(session.read()) == ("swp1", "1")
        assert OVER in session.read()
        assert datetime.datetime.now(datetime.timezone.utc) >= end


def test_stream_tells_since_when_it_can_be_replayed(front):
    with front.raw() as session:
        reply = session.rpc(STREAMS)
        assert "<replaySupport>true</replaySupport>" in reply
        created = re.search("<replayLogCreationTime>([^<]+)<", reply).group(1)
        assert created.endswith("+00:00")
        assert "replayLogAgedTime" not in reply
        front.lab.kill_agent()
        front.lab.start_agent()
        assert created in session.rpc(STREAMS)
        front.lab.kill_agent()
        front.lab.database(LOCAL_DB).flushdb()
        assert "<replaySupport>false</replaySupport>" in session.rpc(STREAMS)
        assert "<error-tag>operation-failed</error-tag>" in session.rpc(replay("2020-01-01T00:00:00Z"))


def test_sessions_that_come_while_it_happens_miss_nothing(front):
    chance = random.Random(7)
    first = kept_numbers(front)[:1]
    with contextlib.ExitStack() as stack:
        sessions = []
        for turn in range(8):
            is_loop = 1 - turn % 2
            for port in PORTS:
                front.lab.report_loop(port, is_loop=is_loop)
                if chance.random() < 0.2:
                    session = stack.enter_context(front.raw())
                    session.request(replay("2020-01-01T00:00:00Z"))
                    sessions.append(session)
            time.sleep(0 if is_loop else 1.5)
        kept(front, 8 * len(PORTS))
        numbers = kept_numbers(front)
        assert numbers == list(range(numbers[0], numbers[-1] + 1)) and numbers[:1] >= first
        assert len(sessions) >= 10
        for session in sessions:
            assert "<ok/>" in session.read()
            seen = [session.read(20)]
            while f"<sequence>{numbers[-1]}<" not in seen[-1]:
                seen.append(session.read(20))
            assert len([text for text in seen if COMPLETE in text]) <= 1
            assert [number_of(text) for text in seen if COMPLETE not in text] == numbers
