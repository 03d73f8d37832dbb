"""Disturbs tarnd around the moment at which a loop closes, and looks for ports that stay dark and storms that stay.

    tarn_rounds.py --seed 1 --rounds 200 [--kind looped-hub]... [--how kill]...

In each round a loop is plugged in under a policy that shuts ports, or only reports, while a host talks. Shortly
before or after, tarnd is killed, ended, stopped for a while, or slowed down; it runs again later. Then:

- where the policy shuts ports, the storm ends while the loop is still there;
- once the loop is gone and the agent has recovered its ports, every port is up and forwards, and no loop is on
record.

Round N of a seed always draws the same: `--seed S --first N --rounds 1` repeats one. The exit status is 1 when a
round was bad.
"""

import argparse
import dataclasses
import pathlib
import random
import signal
import subprocess
import sys
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parents[1] / "support")]

from lab import wait_for  # noqa: E402  (the path comes first)
from tarn_lab import TarnLab  # noqa: E402
from tarn_loops import KINDS, Traffic  # noqa: E402

EARLY_S, LATE_S = 0.05, 1.5  # from the loop to the disturbance
STORM_OVER_WITHIN_S = 25  # the agent's storm detection needs half of it
RECOVERED_WITHIN_S = 15  # tarnd undoes a cut that nobody takes over after five


def kill(lab, draw):
    lab.end_tarnd(signal.SIGKILL)


def end(lab, draw):
    lab.end_tarnd(signal.SIGTERM)


def stop(lab, draw):
    lab.tarnd.send_signal(signal.SIGSTOP)
    time.sleep(draw.uniform(0.02, 2))
    lab.tarnd.send_signal(signal.SIGCONT)


def slow(lab, draw):
    """Lets it run a tenth of the time."""
    for _ in range(draw.randint(5, 60)):
        lab.tarnd.send_signal(signal.SIGSTOP)
        time.sleep(0.018)
        lab.tarnd.send_signal(signal.SIGCONT)
        time.sleep(0.002)


HOWS = {"kill": kill, "end": end, "stop": stop, "slow": slow}


@dataclasses.dataclass
class Round:
    number: int
    kind: str
    how: str
    policy: str
    agent: str
    at: float = 0  # seconds after the loop
    problems: list = dataclasses.field(default_factory=list)

    def __str__(self):
        return (f"round {self.number}: {self.kind}, {self.how} at {1000 * self.at:.1f} ms, {self.policy}, {self.agent}: "
                f"{'; '.join(self.problems) or 'good'}")


def disturb(lab, draw, played):
    """Disturbs tarnd, which runs again on return, perhaps after a short-lived restart."""
    HOWS[played.how](lab, draw)
    if lab.tarnd is None:
        for _ in range(draw.choice((0, 0, 1, 2))):
            time.sleep(draw.uniform(0, 0.3))
            lab.start_tarnd()
            time.sleep(draw.uniform(0, 0.1))
            lab.end_tarnd(signal.SIGKILL)
        time.sleep(draw.uniform(0, 1))
        lab.start_tarnd()


def problems_of(lab):
    """Dark ports, which are down, or have a link and do not forward, and recorded loops."""
    found, states = [], lab.states()
    for port in lab.port_names:
        link = lab.link(port)
        if "UP" not in link["flags"]:
            found.append(f"{port} is down")
        elif link["operstate"] == "UP" and states[port] != "forwarding":
            found.append(f"{port} is {states[port]}")
    return found + [f"{port} reports a loop" for port, _ in sorted(lab.loops())]


def lasting_problems(lab):
    try:
        wait_for(lambda: not problems_of(lab), RECOVERED_WITHIN_S, "all is good", every=0.1)
        return []
    except AssertionError:
        return problems_of(lab)


def play(lab, loop, traffic, draw, played):
    shuts = "shutdown" in played.policy
    early_unplug = draw.random() < 0.3
    plug = threading.Timer(max(0, -played.at), loop.plug)
    started = time.monotonic()
    if played.agent == "agent stopped":
        lab.agent.send_signal(signal.SIGSTOP)
    elif played.agent == "agent dead":
        lab.kill_agent()
    plug.start()
    time.sleep(max(0, played.at))
    disturbed = threading.Thread(target=disturb, args=(lab, draw, played))
    disturbed.start()
    plug.join()
    if early_unplug:
        time.sleep(draw.uniform(0, 1))
        loop.unplug()
    disturbed.join()
    if played.agent != "agent runs":
        time.sleep(draw.choice((0, draw.uniform(0, 7))))
    if played.agent == "agent stopped":
        lab.agent.send_signal(signal.SIGCONT)
    elif played.agent == "agent dead":
        lab.start_agent()
    if shuts and not early_unplug:
        try:
            traffic.wait_calm(STORM_OVER_WITHIN_S)
        except AssertionError:
            played.problems.append(f"a storm since {time.monotonic() - started:.0f} s")
    loop.unplug()
    lab.configure("loop-detect enable")
    played.problems += lasting_problems(lab)
    if lab.tarnd.poll() is not None:
        played.problems.append(f"tarnd has ended with status {lab.tarnd.returncode}")


def play_round(seed, number, kinds, hows):
    draw = random.Random(f"{seed}/{number}")
    policy = "loop-detect enable" + draw.choice((" shutdown access-mode",) * 4 + ("",))
    agent = draw.choice(("agent runs", "agent runs", "agent stopped", "agent dead"))
    played = Round(number, kinds[number % len(kinds)], draw.choice(hows), policy, agent,
                   draw.uniform(-EARLY_S, 0) if draw.random() < 0.1 else LATE_S * draw.random() ** 5)
    try:
        with TarnLab(ports=5) as lab, KINDS[played.kind](lab) as loop, Traffic(lab) as traffic:
            lab.start_tarnd()
            lab.enable(*policy.split()[2:])
            lab.cli("write")
            play(lab, loop, traffic, draw, played)
    except (AssertionError, OSError, subprocess.SubprocessError) as problem:
        played.problems.append(f"broken: {problem}")
    return played


def play_rounds(seed, rounds, kinds=(), hows=(), first=0):
    """Yields each Round when it has been played."""
    for number in range(first, first + rounds):
        yield play_round(seed, number, list(kinds) or [kind for kind in KINDS if kind != "deaf-hub"],
                         list(hows) or list(HOWS))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--rounds", type=int, default=20)
    parser.add_argument("--first", type=int, default=0, help="number of the first round")
    parser.add_argument("--kind", action="append", choices=list(KINDS), default=[])
    parser.add_argument("--how", action="append", choices=list(HOWS), default=[])
    options = parser.parse_args()
    started, bad = time.monotonic(), 0
    for played in play_rounds(options.seed, options.rounds, options.kind, options.how, options.first):
        if played.problems:
            bad += 1
            print(played, flush=True)
    print(f"seed {options.seed}: {options.rounds} rounds, {bad} bad, "
          f"{60 * options.rounds / (time.monotonic() - started):.0f} rounds a minute")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
