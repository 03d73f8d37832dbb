"""Disturbs agent and object database while ports enter and leave the loop state, and looks for notifications that
come twice, out of order or not at all.

    replay_rounds.py --seed 1 --rounds 200

In each round loops begin and end, and the agent is killed or stopped, and the server killed, stopped or emptied of
notifications. Then:

- a new session gets, in ascending order, at least every notification that was kept before it came;
- unless the server was emptied, a session that has listened all the time has heard each number at most once, in
  ascending order, and the numbers have gone on.

Round N of a seed always draws the same: `--seed S --first N --rounds 1` repeats one. The exit status is 1 when a
round was bad.
"""

import argparse
import contextlib
import dataclasses
import pathlib
import random
import re
import signal
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parents[1] / "support")]

from lab import LOCAL_DB, Lab, p_nc, wait_for  # noqa: E402  (the path comes first)
from netconf_lab import EVENT, Front, policy_config  # noqa: E402

PORTS = range(1, 10)  # the agent counts ten looped ports and notifies of no more
REPLAY = f'<create-subscription xmlns="{EVENT}"><startTime>2020-01-01T00:00:00Z</startTime></create-subscription>'
LOG_BACK_WITHIN_S = 10  # the agent looks for its records every five


@dataclasses.dataclass
class Round:
    number: int
    steps: list = dataclasses.field(default_factory=list)
    problems: list = dataclasses.field(default_factory=list)

    def __str__(self):
        return f"round {self.number} ({', '.join(self.steps)}): {'; '.join(self.problems) or 'good'}"


def change_loops(lab, draw):
    for port in PORTS:
        lab.report_loop(port, is_loop=draw.randint(0, 1))


def kill_agent(lab, _):
    lab.kill_agent(signal.SIGKILL)
    lab.start_agent()


def kill_server(lab, draw):
    lab.kill_redis()
    time.sleep(draw.uniform(0, 0.5))
    lab.start_redis()


def stop_agent(lab, draw):
    stop(lab.agent, draw.uniform(0, 1))


def stop_server(lab, draw):
    stop(lab.redis_server, draw.uniform(0, 2))


def stop(process, seconds):
    process.send_signal(signal.SIGSTOP)
    time.sleep(seconds)
    process.send_signal(signal.SIGCONT)


def empty_server(lab, _):
    lab.database(LOCAL_DB).flushdb()


STEPS = [change_loops, change_loops, change_loops, kill_agent, kill_server, stop_agent, stop_server, empty_server]


def number_of(text):
    found = re.search("<sequence>([0-9]+)<", text)
    return int(found.group(1)) if found else None


def kept_numbers(lab):
    database = lab.database(LOCAL_DB)
    records = [database.get(key) for key in database.keys("p_nc.kept_notification/*")]
    return sorted(p_nc.kept_notification.FromString(record).notification.index.sequence for record in records)


class Listener:
    """A session that is subscribed all the time."""

    def __init__(self, session):
        self.session = session
        self.heard = []
        assert "<ok/>" in session.rpc(f'<create-subscription xmlns="{EVENT}"/>')

    def listen(self, seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            with contextlib.suppress(TimeoutError):
                self.heard.append(number_of(self.session.read(0.2)))


def replayed(front):
    """The numbers that a new session gets; it waits for the log."""
    with front.raw() as session:
        wait_for(lambda: "<ok/>" in session.rpc(REPLAY), LOG_BACK_WITHIN_S, "there is a log")
        numbers = []
        while "<replayComplete" not in (text := session.read(20)):
            numbers.append(number_of(text))
        return numbers


def play_round(front, listener, seed, number, top):
    draw = random.Random(f"{seed} {number}")
    played = Round(number)
    for _ in range(draw.randint(2, 6)):
        step = draw.choice(STEPS)
        played.steps.append(step.__name__)
        step(front.lab, draw)
        time.sleep(draw.uniform(0, 0.3))
    listener.listen(2)
    wait_for(lambda: front.lab.cli_status("show role") == 0, 10, "the agent answers")
    kept = kept_numbers(front.lab)
    past = replayed(front)
    if past != sorted(set(past)) or not set(kept) <= set(past):
        played.problems.append(f"kept {kept}, replayed {past}")
    if "empty_server" in played.steps:  # an agent that is killed after that begins at 1
        listener.heard.clear()
        return played
    if listener.heard != sorted(set(listener.heard)):
        played.problems.append(f"heard {listener.heard}")
    if kept and kept[-1] < top:
        played.problems.append(f"the numbers went back from {top} to {kept[-1]}")
    return played


def play_rounds(seed, rounds, first=0):
    """Yields each Round when it has been played."""
    with Lab(store="redis", speed=60, ports=len(PORTS)) as lab:
        lab.start_redis()
        lab.start_agent()
        with Front(lab) as front, front.raw() as session:
            with front.raw() as operator:
                operator.rpc(f"<edit-config><target><running/></target>{policy_config(1)}</edit-config>")
            wait_for(lambda: "loop-detect enable" in lab.saved(), 5, "the policy is saved")
            listener = Listener(session)
            top = 0
            for number in range(first, first + rounds):
                played = play_round(front, listener, seed, number, top)
                top = max(kept_numbers(lab), default=0)
                yield played


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--rounds", type=int, default=20)
    parser.add_argument("--first", type=int, default=0, help="number of the first round")
    options = parser.parse_args()
    bad = 0
    for played in play_rounds(options.seed, options.rounds, options.first):
        if played.problems:
            bad += 1
            print(played, flush=True)
    print(f"seed {options.seed}: {options.rounds} rounds, {bad} bad")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
