"""Disturbs two agents that share a lease, and looks for moments at which both act, or none for too long.

    lease_rounds.py --seed 1 --rounds 300 [--kind kill-master]...

After each round one agent must act within the time of the lease and a second from the end of the disturbance. A
disturbance that hits only the standby must not stop the master. Round N of a seed always draws the same:
`--seed S --first N --rounds 1` repeats one. The exit status is 1 when a round was bad.
"""

import argparse
import dataclasses
import pathlib
import random
import signal
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parents[1] / "support")]

from lab import wait_for  # noqa: E402  (the path comes first)
from lease_lab import LEASE_S, LeaseLab  # noqa: E402

GAP_S = LEASE_S + 1.0
ON_ITS_WAY_S = 0.05
AN_HOUR_S = 3600


@dataclasses.dataclass
class Round:
    number: int
    kind: str
    gap_s: float = 0.0  # from the end of the disturbance until an agent acts
    problems: list = dataclasses.field(default_factory=list)

    def __str__(self):
        return f"round {self.number}: {self.kind}, gap {self.gap_s:.2f} s: {'; '.join(self.problems) or 'good'}"


# ---- Disturbances: each returns the moment from which nothing keeps an agent from acting ----

def stop_for(process, seconds):
    """Stops a process, and lets it continue. Returns when it was stopped."""
    process.send_signal(signal.SIGSTOP)
    stopped = time.monotonic()
    time.sleep(seconds)
    process.send_signal(signal.SIGCONT)
    return stopped


def kill_master(lab, draw):
    lab.wait_for_master().signal(signal.SIGKILL)
    return time.monotonic()


def kill_standby(lab, draw):
    lab.standby().signal(signal.SIGKILL)
    return time.monotonic()


def kill_both(lab, draw):
    for agent in lab.agents:
        agent.signal(signal.SIGKILL)
    return time.monotonic() + 0.1  # until the supervisor has started them


def stop_master(lab, draw):
    """For long, or for about as long as its lease runs."""
    seconds = draw.choice((draw.uniform(0.1, 2.5), draw.uniform(0.8, 1.2) * LEASE_S, LEASE_S + 1.5))
    stopped = stop_for(lab.wait_for_master().process, seconds)
    return stopped if seconds > GAP_S else time.monotonic()


def stop_standby(lab, draw):
    stop_for(lab.standby().process, draw.uniform(0.1, 2.5))
    return time.monotonic()


def stop_redis(lab, draw):
    stop_for(lab.redis_server, draw.choice((draw.uniform(0.05, 0.5), draw.uniform(0.5, 2.0))))
    return time.monotonic()


def restart_redis(lab, draw):
    lab.kill_redis(forget=draw.random() < 0.5)
    time.sleep(draw.choice((0, draw.uniform(0, 1.5))))
    lab.start_redis()
    return time.monotonic()


def stop_master_and_restart_redis(lab, draw):
    master = lab.wait_for_master().process
    master.send_signal(signal.SIGSTOP)
    calm = restart_redis(lab, draw)
    time.sleep(draw.uniform(0, 2.0))
    master.send_signal(signal.SIGCONT)
    return calm


def stop_both(lab, draw):
    for agent in lab.agents:
        agent.signal(signal.SIGSTOP)
    time.sleep(draw.uniform(0.1, 1.5))
    for agent in draw.sample(lab.agents, 2):
        agent.signal(signal.SIGCONT)
        time.sleep(draw.choice((0, 0.05)))
    return time.monotonic()


def flush_redis(lab, draw):
    lab.database().flushall()
    return time.monotonic()


def jump_wall_clock(lab, draw):
    """Of the server and of both agents."""
    lab.clock.ahead(draw.choice((-AN_HOUR_S, AN_HOUR_S)))
    time.sleep(draw.uniform(0, 1.0))
    if draw.random() < 0.5:
        return kill_master(lab, draw)
    return time.monotonic()


KINDS = {"kill-master": kill_master, "stop-master": stop_master, "stop-redis": stop_redis,
         "restart-redis": restart_redis, "jump-wall-clock": jump_wall_clock,
         "stop-master-restart-redis": stop_master_and_restart_redis, "stop-both": stop_both,
         "stop-standby": stop_standby, "flush-redis": flush_redis, "kill-both": kill_both,
         "kill-standby": kill_standby}
KEEP_THE_MASTER = {"stop-standby", "flush-redis", "kill-standby"}


# ---- One round ----

def play_round(lab, seed, number, kinds):
    draw = random.Random(f"{seed}/{number}")
    played = Round(number, kinds[number % len(kinds)])
    try:
        master = lab.wait_for_master()
        time.sleep(draw.uniform(0.1, 0.5))  # the other agent stands by now
        before = master.incarnations[-1].pid
        calm = KINDS[played.kind](lab, draw)
        # A little later, because an answer may have been on its way when its agent was killed.
        acted = wait_for(lambda: lab.acted_after(calm + ON_ITS_WAY_S), 10, "an agent acts")
        played.gap_s = acted - calm
        if played.gap_s > GAP_S:
            played.problems.append("nobody acted for too long")
        if played.kind in KEEP_THE_MASTER and lab.wait_for_master().incarnations[-1].pid != before:
            played.problems.append("the master has changed")
        lab.clock.ahead(0)
    except (AssertionError, IndexError, ValueError) as problem:
        played.problems.append(f"broken: {problem!r}")
    played.problems += lab.overlaps()
    return played


def play_rounds(seed, rounds, kinds=(), first=0):
    """Yields each Round when it has been played."""
    with LeaseLab() as lab:
        for number in range(first, first + rounds):
            yield play_round(lab, seed, number, list(kinds) or list(KINDS))
            lab.forget()


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--rounds", type=int, default=20)
    parser.add_argument("--first", type=int, default=0, help="number of the first round")
    parser.add_argument("--kind", action="append", choices=list(KINDS), default=[])
    options = parser.parse_args()
    started, bad, longest = time.monotonic(), 0, 0.0
    for played in play_rounds(options.seed, options.rounds, options.kind, options.first):
        longest = max(longest, played.gap_s)
        if played.problems:
            bad += 1
            print(played, flush=True)
    print(f"seed {options.seed}: {options.rounds} rounds, {bad} bad, longest gap {longest:.2f} s, "
          f"{60 * options.rounds / (time.monotonic() - started):.0f} rounds a minute")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
