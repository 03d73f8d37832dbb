"""Attacks the switch from all sides at once while its processes end and its surroundings break.

    hostile_rounds.py --seed 1 --rounds 200 [--attack crowd]... [--fault disk-full]...

In each round some attackers act at the same time: NETCONF users with requests, filters, locks and files, clients of
the shell's socket, writers of the object database, a station with invented addresses. Meanwhile some faults follow one
another. When the attackers have left and the faults are mended,

- no process has crashed, none is left or a zombie, and none has more descriptors open than usual;
- nobody holds a lock or the number of a session, and only the sessions' three files are in their folder;
- a new session of root, and one of another user, gets an answer, the lock, and an edit;
- a real loop is shut, and the ports forward again when it is gone;
- no log and no saved file has a control character.

Round N of a seed always draws the same, as far as threads that race can: `--seed S --first N --rounds 1` repeats one.
The exit status is 1 when a round was bad.
"""

import argparse
import contextlib
import dataclasses
import os
import pathlib
import random
import re
import signal
import subprocess
import sys
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parent / "crash"), str(HERE.parents[1] / "support")]

from redis.exceptions import RedisError  # noqa: E402  (the path comes first)

from chaos_rounds import check, problems_of  # noqa: E402
from hostile_attacks import ATTACKS  # noqa: E402
from hostile_faults import FAULTS  # noqa: E402
from hostile_lab import LOCK, UNLOCK, USERS, HostileLab, edit  # noqa: E402
from tarn_loops import Cable, Traffic  # noqa: E402

MOST_ATTACKS, MOST_FAULTS = 4, 4
REPORT, SHUT = "loop-detect enable", "loop-detect enable shutdown access-mode"
RUNS_AGAIN_WITHIN_S = 10
SHUT_WITHIN_S = 25  # storm detection alone needs half of it
RECOVERED_WITHIN_S = 20
GONE_WITHIN_S = 15  # processes, descriptors and clients
SPARE_DESCRIPTORS = 2  # a save and a connection attempt come and go
CONTROL = re.compile(rb"[\x00-\x08\x0b-\x1f\x7f]|\xc2[\x80-\x9f]")


@dataclasses.dataclass
class Round:
    number: int
    attacks: list
    faults: list
    problems: list = dataclasses.field(default_factory=list)

    def __str__(self):
        return (f"round {self.number}: {', '.join(self.attacks)} / {', '.join(self.faults)}: "
                f"{'; '.join(self.problems) or 'good'}")


# ---- Attacks and faults ----

def attack(lab, name, seed, over, problems):
    try:
        problems += ATTACKS[name](lab, random.Random(seed), over) or []
    except Exception as problem:  # whatever it is, the round is reported with it
        problems.append(f"{name} is broken: {type(problem).__name__}: {problem}")


def make_faults(lab, draw, played):
    mends = []
    try:
        for name in played.faults:
            mends.append(FAULTS[name](lab, draw))
            time.sleep(1.5 * draw.random() ** 2)
            played.problems += lab.supervise()
            if draw.random() < 0.5:
                mend(mends.pop(draw.randrange(len(mends))))
    finally:
        draw.shuffle(mends)
        with contextlib.ExitStack() as every:  # also after one that has failed
            for one in mends:
                every.callback(mend, one)


def mend(one):
    if one:
        one()


def disturb(lab, draw, played):
    over = threading.Event()
    attackers = [threading.Thread(target=attack, args=(lab, name, draw.random(), over, played.problems))
                 for name in played.attacks]
    for attacker in attackers:
        attacker.start()
    try:
        make_faults(lab, draw, played)
        time.sleep(draw.uniform(0, 1))
    finally:
        over.set()
        for attacker in attackers:
            attacker.join()
    lab.mend()
    played.problems += lab.wait_running()


# ---- Judging ----

def sessions_work(lab):
    """Fresh sessions of everybody, one after the other; raises an AssertionError or what the session raises."""
    for user in USERS:
        with lab.session(user) as session:
            for request, expected in (("<get/>", "<session-id>"), (LOCK, "<ok/>"), (edit(2), "<ok/>"),
                                      (UNLOCK, "<ok/>"), ("<close-session/>", "<ok/>")):
                reply = session.rpc(request)
                assert expected in reply, f"session of {user}: {request}: {reply[-400:]}"
            assert session.process.wait(10) == 0


def an_edit_works(lab):
    """Programs that the database has dropped or refused return by themselves."""
    with contextlib.suppress(EOFError, OSError), lab.session(0) as session:
        return "<ok/>" in session.rpc(edit(1))


def judge_sessions(lab, problems):
    check(lambda: not lab.sessions(), GONE_WITHIN_S, f"sessions {lab.sessions()} have ended", problems)
    check(lambda: not lab.locks(), 1, f"locks {lab.locks()} are free", problems)
    check(lambda: an_edit_works(lab), RUNS_AGAIN_WITHIN_S, "an edit works", problems)
    try:
        sessions_work(lab)
    except (AssertionError, EOFError, OSError) as problem:
        problems.append(f"{type(problem).__name__}: {problem}")
    files = {path.name for path in lab.netconf_runtime.iterdir() if ".foreign-" not in path.name}
    if files != {"sessions", "edit.lock", "running.lock"}:
        problems.append(f"the folder of the sessions has {sorted(files)}")


def judge_loop(lab, loop, traffic, problems):
    """A loop is shut, and everything is good after it."""
    lab.configure(REPORT, *(line for port in lab.port_names for line in (f"interface {port}", "no shutdown")))
    check(lambda: not problems_of(lab), RECOVERED_WITHIN_S, "all is good before the loop", problems)
    problems += problems_of(lab)
    lab.configure(SHUT)
    loop.plug()
    check(lambda: set(loop.shut) & set(lab.down_ports()), SHUT_WITHIN_S, "the loop is shut", problems)
    with contextlib.suppress(AssertionError):
        traffic.wait_calm(SHUT_WITHIN_S)
        loop.unplug()
        lab.configure(REPORT)
        check(lambda: not problems_of(lab), RECOVERED_WITHIN_S, "all is good after the loop", problems)
        problems += problems_of(lab)
        lab.configure(SHUT)
        return
    problems.append("the storm lasts")
    loop.unplug()


def judge_rest(lab, usual, problems):
    for name, count in usual.items():
        check(lambda name=name, count=count: lab.descriptors()[name] <= count + SPARE_DESCRIPTORS, GONE_WITHIN_S,
              f"{name} has about {count} descriptors, not {lab.descriptors()[name]}", problems)
    problems += [f"zombie {text}" for text in lab.zombies()]
    for file in (*lab.folder.glob("*.log"), *lab.logs.iterdir(), lab.startup_config):
        if file.is_file() and (bad := CONTROL.search(file.read_bytes())):
            problems.append(f"{file.name} has the control character {bad.group()!r}")
    problems += lab.new_crashes()


def play(lab, loop, traffic, usual, draw, played):
    disturb(lab, draw, played)
    judge_sessions(lab, played.problems)
    judge_loop(lab, loop, traffic, played.problems)
    played.problems += lab.supervise()
    judge_rest(lab, usual, played.problems)


def draw_round(seed, number, attacks, faults):
    draw = random.Random(f"hostile {seed}/{number}")
    return draw, Round(number, [draw.choice(attacks) for _ in range(draw.randint(1, MOST_ATTACKS))],
                       [draw.choice(faults) for _ in range(draw.randint(0, MOST_FAULTS))])


@contextlib.contextmanager
def surroundings():
    with HostileLab(ports=5) as lab, Cable(lab) as loop, Traffic(lab) as traffic:
        lab.enable(*SHUT.split()[2:])
        sessions_work(lab)  # programs open some files at the first change
        yield lab, loop, traffic, lab.descriptors()


def play_rounds(seed, rounds, attacks=(), faults=(), first=0):
    """Yields each Round when it has been played. After a bad one everything is made anew."""
    number = first
    while number < first + rounds:
        with surroundings() as place:
            bad = False
            while number < first + rounds and not bad:
                draw, played = draw_round(seed, number, list(attacks) or list(ATTACKS), list(faults) or list(FAULTS))
                try:
                    play(*place, draw, played)
                except (AssertionError, OSError, EOFError, subprocess.SubprocessError, RedisError) as problem:
                    played.problems.append(f"broken: {type(problem).__name__}: {problem}")
                bad = bool(played.problems)
                number += 1
                if bad and os.environ.get("KEEP_BAD"):
                    place[0].keep(f"{seed}-{played.number}")
                yield played


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--rounds", type=int, default=20)
    parser.add_argument("--first", type=int, default=0, help="number of the first round")
    parser.add_argument("--attack", action="append", choices=list(ATTACKS), default=[])
    parser.add_argument("--fault", action="append", choices=list(FAULTS), default=[])
    options = parser.parse_args()
    for number in (signal.SIGINT, signal.SIGTERM):  # everything is cleaned up
        signal.signal(number, signal.default_int_handler)
    started, bad = time.monotonic(), 0
    for played in play_rounds(options.seed, options.rounds, options.attack, options.fault, options.first):
        if played.problems:
            bad += 1
            print(played, flush=True)
    print(f"seed {options.seed}: {options.rounds} rounds, {bad} bad, "
          f"{60 * options.rounds / (time.monotonic() - started):.0f} rounds a minute")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
