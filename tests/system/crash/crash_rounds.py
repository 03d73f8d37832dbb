"""Kills the agent at bad moments, starts it again and looks for ports that nobody will bring up.

    crash_rounds.py --seed 1 --rounds 1000 [--kind burst]... [--signal kill]... [--slow-sync]

A port is an orphan when it is administratively down, the running configuration does not mark it as shut by loop
detection, and no operator has shut it. Once the agent is ready and idle, there must be none; every marked port
must be down; and a port must still be in the state that the operator gave it more than a second before the
agent died.

Round N of a seed always draws the same: `--seed S --first N --rounds 1` repeats one. The exit status is 1 when a
round was bad.
"""

import argparse
import collections
import contextlib
import dataclasses
import pathlib
import random
import signal
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parents[1] / "support")]

from crash_kinds import KINDS  # noqa: E402  (the path comes first)
from crash_lab import CrashLab  # noqa: E402

WINDOW_S = 0.3  # from an event to the latest kill
STABLE_S = 0.03  # how long a good state must last, and a bad one:
GIVE_UP_AFTER_S = 5.0
SIGNALS = {"kill": signal.SIGKILL, "term": signal.SIGTERM, "int": signal.SIGINT}


@dataclasses.dataclass
class Round:
    number: int
    kind: str
    signal: str
    killed_at: float  # seconds after the first event
    reboots: bool  # the kernel's ports are all up when the next agent starts
    problems: list

    def __str__(self):
        reboot = ", ports up meanwhile" if self.reboots else ""
        return (f"round {self.number}: {self.kind}, SIG{self.signal.upper()} at {1000 * self.killed_at:.1f} ms"
                f"{reboot}: {'; '.join(self.problems) or 'good'}")


# ---- Judging ----

def problems_of(lab):
    """The present faults, port by port."""
    config, found = lab.running(), []
    for port in lab.port_names:
        up, marked = lab.is_up(port), config.is_marked(port)
        if lab.shut_by_operator.get(port):
            if up:
                found.append(f"{port}: shut by the operator, but up")
        elif marked and up:
            found.append(f"{port}: marked, but up")
        elif not marked and not up:
            found.append(f"{port}: orphan")
    return found


def settle(lab):
    """Waits until the state is good and everything is delivered, or is bad and stays so; returns the faults."""
    previous, since = None, time.monotonic()
    while True:
        assert lab.agent.poll() is None, f"the agent has ended with status {lab.agent.returncode}"
        delivered = lab.delivered()
        found = problems_of(lab)
        now = time.monotonic()
        seen = found or delivered  # the delivery thread looks for work once a second
        if seen != previous or (delivered[0] != "S" and not found):
            previous, since = seen, now
        if now - since > (GIVE_UP_AFTER_S if found else STABLE_S):
            return found
        time.sleep(0.005)


# ---- One round ----

def sleep_until(moment):
    time.sleep(max(0.0, moment - time.monotonic()))


def run_events(events, started, until=None):
    """Runs the events before `until` at their times; returns the others that must happen."""
    late = []
    for event in sorted(events, key=lambda event: event.at):
        if until is None or event.at < until:
            sleep_until(started + event.at)
            event.act()
        elif event.must:
            late.append(event)
    return late


def play(lab, draw, plan, how, reboots):
    """Runs a plan and returns the moment of the kill and the ports that were down then; an agent runs again."""
    killed_at = draw.choice(plan.events).at + WINDOW_S * draw.random() ** 4
    started = time.monotonic()
    late = run_events(plan.events, started, killed_at)
    sleep_until(started + killed_at)
    lab.kill(how)
    down = [port for port in lab.loop_ports if not lab.is_up(port)] if plan.keeps_shut else []
    if draw.random() < 0.8:
        lab.forget_loops()
    for after in plan.again:
        lab.start()
        time.sleep(after)
        lab.kill(how)
    while_dead = draw.random() < 0.5
    if late and while_dead:
        run_events(late, 0)
    if reboots:
        for port in lab.port_names:
            lab.set_up(port)
        down = []
    lab.start()
    if late and not while_dead:
        time.sleep(draw.uniform(0, 0.05))
        run_events(late, 0)
    return killed_at, down


def play_round(lab, seed, number, kinds, signals):
    draw = random.Random(f"{seed}/{number}")
    kind, how = kinds[number % len(kinds)], draw.choice(signals)
    if draw.random() < 0.1:
        lab.set_operator_shut(draw.choice(lab.operator_ports), draw.random() < 0.5)
    plan = KINDS[kind](lab, draw)
    reboots = draw.random() < 0.2 and not any(event.must for event in plan.events)
    killed_at, down = play(lab, draw, plan, SIGNALS[how], reboots)
    lab.wait_ready()
    problems = settle(lab)
    problems += [f"{port}: came back unasked" for port in down if lab.is_up(port)]
    return Round(number, kind, how, killed_at, reboots, problems)


# ---- All rounds ----

def play_rounds(seed, rounds, kinds=(), signals=(), slow_sync=False, first=0):
    """Yields each Round when it has been played. A round that breaks the laboratory spoils only itself."""
    kinds, signals = list(kinds) or list(KINDS), list(signals) or list(SIGNALS)
    number = first
    while number < first + rounds:
        with contextlib.ExitStack() as stack:
            lab = stack.enter_context(CrashLab(slow_sync))
            broken = False
            while number < first + rounds and not broken:
                try:
                    played = play_round(lab, seed, number, kinds, signals)
                except (AssertionError, OSError, subprocess.SubprocessError) as problem:
                    played = Round(number, kinds[number % len(kinds)], "?", 0, False, [f"broken: {problem}"])
                    broken = True
                yield played
                number += 1


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--rounds", type=int, default=60)
    parser.add_argument("--first", type=int, default=0, help="number of the first round")
    parser.add_argument("--kind", action="append", choices=list(KINDS), default=[])
    parser.add_argument("--signal", action="append", choices=list(SIGNALS), default=[])
    parser.add_argument("--slow-sync", action="store_true", help="every fsync takes 50 ms longer")
    options = parser.parse_args()
    # A script's background jobs ignore SIGINT, and the agent would inherit that.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    started, totals = time.monotonic(), collections.defaultdict(lambda: [0, 0, 0])
    for played in play_rounds(options.seed, options.rounds, options.kind, options.signal, options.slow_sync,
                              options.first):
        if played.problems:
            print(played, flush=True)
        for key in (played.kind, f"SIG{played.signal.upper()}", "all"):
            totals[key][0] += 1
            totals[key][1] += bool(played.problems)
            totals[key][2] += len(played.problems)
    for key, (rounds, bad, problems) in totals.items():
        print(f"{key:24}{rounds:6} rounds, {bad:5} bad ({100 * bad / rounds:5.1f} %), {problems:5} problems")
    print(f"seed {options.seed}: {60 * options.rounds / (time.monotonic() - started):.0f} rounds a minute")
    return 1 if totals["all"][1] else 0


if __name__ == "__main__":
    sys.exit(main())
