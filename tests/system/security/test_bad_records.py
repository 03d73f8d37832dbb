"""A program that writes invalid records and long notices into the object database."""

import re

from lab import APP_DB, Lab, wait_for

TYPE = "p_bridge.tarn_loop_info"
LINE = re.compile(r"%MOM-4-BAD_\w+: (.*)")
COUNT = re.compile(r"(\d+) more invalid records or notices were dropped in the last second\.")


def lines(lab):
    return LINE.findall(lab.agent_log.read_text(errors="replace"))


def reported(lab):
    """How many invalid records the log knows of."""
    counts = [COUNT.fullmatch(line) for line in lines(lab)]
    return sum(int(count[1]) if count else 1 for count in counts)


def test_flood_of_invalid_records_has_a_line_a_second_and_all_are_counted():
    with Lab(store="redis") as lab:
        lab.start_redis()
        lab.start_agent()
        database = lab.database(APP_DB)
        wait_for(lambda: database.pubsub_numsub(f"mom/{APP_DB}/{TYPE}")[0][1] > 0, 10, "the agent listens")
        for _ in range(2000):
            database.publish(f"mom/{APP_DB}/{TYPE}", b"\0\xff")
        for _ in range(20):
            database.publish(f"mom/{APP_DB}/{TYPE}", b"\0" * 70000)
        wait_for(lambda: reported(lab) == 2020, 10, "all are counted")
        assert lines(lab)[0] == f"Record of {TYPE} in database {APP_DB} dropped: 1 bytes do not unpack."
        assert 2 <= len(lines(lab)) <= 10
        assert lab.cli_status("show loop-detect") == 0


def test_long_notice_is_dropped_and_the_next_one_is_taken():
    with Lab(store="redis") as lab:
        lab.start_redis()
        lab.start_agent()
        lab.configure("loop-detect enable")
        database = lab.database(APP_DB)
        wait_for(lambda: database.pubsub_numsub(f"mom/{APP_DB}/{TYPE}")[0][1] > 0, 10, "the agent listens")
        database.publish(f"mom/{APP_DB}/{TYPE}", b"\0" + b"x" * 65536)
        wait_for(lambda: lines(lab), 10, "the log says so")
        assert lines(lab) == [f"Notice of {TYPE} in database {APP_DB} dropped: 65537 bytes are too many."]
        lab.report_loop(1, 1)
        wait_for(lambda: lab.loop_entries(), 10, "the next loop is handled")
