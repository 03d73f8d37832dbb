"""Policy requests and notifications as records of a real server, byte for byte."""

import contextlib

import pytest

from lab import LOCAL_DB, Lab, p_nc, wait_for

REQUEST = "p_app.lda_nc_policy"
ANSWERS = "mom/3/p_mng.ui_operate"
NOTIFICATIONS = "mom/3/p_nc.notification"


@pytest.fixture
def lab():
    with Lab(store="redis", ports=4) as the_lab:
        the_lab.start_redis()
        the_lab.start_agent()
        the_lab.configure("loop-detect enable")
        yield the_lab


@contextlib.contextmanager
def listening(lab, channel):
    """A function that waits for the next message of the channel and returns its bytes."""
    with lab.database(LOCAL_DB).pubsub() as pubsub:
        pubsub.subscribe(channel)
        assert pubsub.get_message(timeout=5)["type"] == "subscribe"
        yield lambda: wait_for(lambda: pubsub.get_message(timeout=0.1), 5, f"a message on {channel}")["data"]


# loop_policy_cli 4, requested by "nc" with oid 41 and source 2 (NETCONF).
def request(kind):
    return b"\x28\x04\x32\x0c\x2a\x08\x0a\x02nc\x10" + bytes([kind]) + b"\x18\x29\x38\x02"


@pytest.mark.parametrize("packed, answer, applied", [
    (request(1), b"\x02\x2a\x08\x0a\x02nc\x10\x01\x18\x29\x32\x02\x08\x01\x38\x02", False),
    (request(2), b"\x02\x2a\x08\x0a\x02nc\x10\x02\x18\x29\x32\x00\x38\x02", True),
    (request(3), b"\x02\x2a\x08\x0a\x02nc\x10\x03\x18\x29\x32\x00\x38\x02", True),
    (request(4), b"\x02\x2a\x08\x0a\x02nc\x10\x04\x18\x29\x32\x00\x38\x02", True),
    (request(5), b"\x02\x2a\x08\x0a\x02nc\x10\x05\x18\x29\x32\x00\x38\x02", True),
    (request(6), b"\x02\x2a\x08\x0a\x02nc\x10\x06\x18\x29\x32\x00\x38\x02", True),
    (request(7), b"\x02\x2a\x08\x0a\x02nc\x10\x07\x18\x29\x32\x02\x08\x01\x38\x02", False),
    (b"\x28\x04", b"\x02\x2a\x00\x32\x02\x08\x01", False),  # nobody asks
    (b"\x28\x04\x32\x02\x38\x05", b"\x02\x2a\x00\x32\x02\x08\x01\x38\x05", False),  # no index
    (b"\x28\x06\x32\x04\x2a\x02\x10\x02", b"\x02\x2a\x02\x10\x02\x32\x00", False),  # no such policy
], ids=["type-1", "type-2", "type-3", "type-4", "type-5", "type-6", "type-7", "no-requester", "no-index",
        "policy-6"])
def test_request_is_answered_byte_for_byte(lab, packed, answer, applied):
    with listening(lab, ANSWERS) as next_answer:
        lab.set_record(LOCAL_DB, REQUEST, "", packed)
        assert next_answer() == answer
    line = "loop-detect enable shutdown access-hybrid-mode\n"
    assert (line in lab.cli("show running-config")) == applied


def test_request_is_answered_after_a_restart_of_the_server(lab):
    lab.kill_redis()
    lab.start_redis()
    with listening(lab, ANSWERS) as next_answer:
        database = lab.database(LOCAL_DB)
        wait_for(lambda: database.pubsub_numsub("mom/3/" + REQUEST)[0][1] == 1, 10, "the agent subscribes again")
        lab.set_record(LOCAL_DB, REQUEST, "", request(2))
        assert next_answer() == b"\x02\x2a\x08\x0a\x02nc\x10\x02\x18\x29\x32\x00\x38\x02"


def test_loops_are_notified_in_order(lab):
    base = "/qv-loop-detect-server-notification:loop-detect-state/loop-notify/notify-entry[name='swp2']/"
    with listening(lab, NOTIFICATIONS) as next_notice:
        lab.cli("test loop plug swp2 swp3")
        notice = next_notice()
        assert notice[0] == 2
        first = p_nc.notification.FromString(notice[1:])
        assert first.index.sequence == 1
        assert first.name == "qv-loop-detect-server-notification:loop-detect-state"
        assert [(leaf.path, leaf.type, leaf.value) for leaf in first.leaves] == [
            (base + "notify-type", 20, 1), (base + "vid", 20, 0), (base + "policy", 20, 0),
            (base + "src-port", 8, 1)]
        assert p_nc.notification.FromString(next_notice()[1:]).index.sequence == 2
    assert sorted(lab.database(LOCAL_DB).keys("p_nc.*")) == [
        b"p_nc.kept_notification/slot=1", b"p_nc.kept_notification/slot=2", b"p_nc.notification_log/"]
