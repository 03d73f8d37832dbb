"""Disturbs the whole product around a real loop: agent, tarnd, Redis, a NETCONF session, the bridge and the machine.

    chaos_rounds.py --seed 1 --rounds 500 [--fault disk-full]...

In each round some faults follow one another while a loop is plugged in, under a policy that shuts ports or only
reports. What ended is started again, as a supervisor would do. Once everything runs again,

- the loop is known, and where the policy shuts ports the storm ends while the loop is still there;
- when the loop is gone and the agent has recovered its ports, every port is up and forwards, and no loop is on
record;
- the running configuration is saved and can be read back;
- no process has crashed, and none has more descriptors open than before the faults.

Round N of a seed always draws the same: `--seed S --first N --rounds 1` repeats one. The exit status is 1 when a
round was bad.
"""

import argparse
import contextlib
import dataclasses
import json
import os
import pathlib
import random
import resource
import shutil
import signal
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parents[1] / "support")]

import redis  # noqa: E402  (the path comes first)
from lab import run, wait_for  # noqa: E402
from netconf_lab import LOOP_DETECT, Front  # noqa: E402
from tarn_lab import TarnLab  # noqa: E402
from tarn_loops import KINDS, Traffic  # noqa: E402

DISK = "size=24m"  # of the switch's files
RUNS_AGAIN_WITHIN_S = 20
KNOWN_WITHIN_S = 15
STORM_OVER_WITHIN_S = 25  # the agent's storm detection needs half of it
RECOVERED_WITHIN_S = 20
FAULTS_IN_A_ROUND = 5
SPARE_DESCRIPTORS = 2  # a save and a connection attempt come and go


class ChaosLab(TarnLab):
    """A switch whose files are on a small disk of their own."""

    def __enter__(self):
        run("mount", "-t", "tmpfs", "-o", DISK, "chaos", str(self.folder))
        try:
            super().__enter__()
            self.ended = set()  # processes that were ended on purpose
            self.start_tarnd()
            return self
        except BaseException:
            self.__exit__()
            raise

    def __exit__(self, *details):
        super().__exit__(*details)
        subprocess.run(["umount", "-l", str(self.folder)], check=False)
        shutil.rmtree(self.folder, ignore_errors=True)

    def processes(self):
        return {"agent": self.agent, "tarnd": self.tarnd, "redis": self.redis_server}

    def end(self, name, how):
        process = self.processes()[name]
        if process.poll() is None:
            self.ended.add(process.pid)
            process.send_signal(how)
            process.send_signal(signal.SIGCONT)
            with contextlib.suppress(subprocess.TimeoutExpired):
                process.wait(10)

    def supervise(self):
        """Starts what has ended; returns what has crashed."""
        crashes = []
        start = {"agent": self.start_agent, "tarnd": self.start_tarnd, "redis": self.start_redis}
        for name, process in self.processes().items():
            if process.poll() is None:
                continue
            if process.returncode < 0 and process.pid not in self.ended:
                crashes.append(f"{name} died of signal {-process.returncode}")
            start[name](wait=False)
        return crashes

    def limit_redis(self, size):
        """Limits the memory of the database, 0 for no limit, if it runs."""
        database = redis.Redis(unix_socket_path=str(self.redis_socket), socket_timeout=1)
        with contextlib.suppress(redis.exceptions.RedisError):
            database.config_set("maxmemory", size)

    def wait_running(self):
        def running():
            crashes.extend(self.supervise())
            self.limit_redis(0)
            return self._redis_answers() and self.cli_status("show loop-detect") == 0 and "tarnd_" in self.ruleset()
        crashes = []
        wait_for(running, RUNS_AGAIN_WITHIN_S, "everything runs again", every=0.2)
        return crashes

    def descriptors(self):
        return {name: len(os.listdir(f"/proc/{process.pid}/fd")) for name, process in self.processes().items()}


# ---- Faults. Each makes one, and returns how to mend it, or None when that is done or is left to a supervisor. ----

def killed(name):
    return lambda lab, draw: lab.end(name, signal.SIGKILL)


def ended(name):
    return lambda lab, draw: lab.end(name, signal.SIGTERM)


def stopped(name):
    def make(lab, draw):
        process = lab.processes()[name]
        process.send_signal(signal.SIGSTOP)
        return lambda: process.send_signal(signal.SIGCONT)
    return make


def redis_emptied(lab, draw):
    """The database loses everything at a restart."""
    lab.end("redis", signal.SIGKILL)
    shutil.rmtree(lab.folder / "appendonlydir", ignore_errors=True)


def redis_full(lab, draw):
    """The database refuses to store anything more."""
    lab.limit_redis(1)
    return lambda: lab.limit_redis(0)


def disk_full(lab, draw):
    filler = lab.folder / "filler"
    with contextlib.suppress(OSError), open(filler, "wb", buffering=0) as file:
        while True:
            file.write(bytes(1 << 20))
    with contextlib.suppress(OSError), open(filler, "ab", buffering=0) as file:
        while True:
            file.write(bytes(512))
    return lambda: filler.unlink(missing_ok=True)


def descriptors_exhausted(name):
    def make(lab, draw):
        pid = lab.processes()[name].pid
        usual = resource.getrlimit(resource.RLIMIT_NOFILE)  # the process has inherited it
        try:
            most = max(int(fd) for fd in os.listdir(f"/proc/{pid}/fd")) + 1
            resource.prlimit(pid, resource.RLIMIT_NOFILE, (most, usual[1]))
        except (OSError, ValueError):
            return None  # it does not run

        def mend():
            with contextlib.suppress(ProcessLookupError):
                resource.prlimit(pid, resource.RLIMIT_NOFILE, usual)
        return mend
    return make


def port_replaced(lab, draw):
    """The last port is deleted, and another one gets its name."""
    lab.ip("link", "delete", lab.port_names[-1])
    time.sleep(draw.uniform(0, 0.3))
    lab.add_port(lab.port_names[-1])


def ports_away(lab, draw):
    """Some ports leave the bridge and return."""
    ports = draw.sample(lab.port_names, draw.randint(1, len(lab.port_names)))
    lab.batch(*(f"link set {port} nomaster" for port in ports))
    time.sleep(draw.uniform(0, 0.5))
    lab.batch(*(f"link set {port} master br0" for port in ports))


def bridge_remade(lab, draw):
    lab.ip("link", "delete", "br0")
    time.sleep(draw.uniform(0, 0.3))
    lab.batch("link add br0 type bridge", "link set br0 up",
              *(f"link set {port} master br0" for port in lab.port_names))


def front_killed(lab, draw):
    """A NETCONF session is killed in the middle of a request."""
    front = Front(lab)
    with contextlib.suppress(EOFError, OSError, TimeoutError):
        front.folder.mkdir(exist_ok=True)
        with front.raw() as session:
            session.request(f'<get><filter type="subtree">{LOOP_DETECT}</filter></get>')
            time.sleep(draw.uniform(0, 0.02))
            session.process.kill()


FAULTS = {
    "agent-killed": killed("agent"), "agent-ended": ended("agent"), "agent-stopped": stopped("agent"),
    "agent-descriptors": descriptors_exhausted("agent"),
    "tarnd-killed": killed("tarnd"), "tarnd-ended": ended("tarnd"), "tarnd-stopped": stopped("tarnd"),
    "tarnd-descriptors": descriptors_exhausted("tarnd"),
    "redis-killed": killed("redis"), "redis-ended": ended("redis"), "redis-stopped": stopped("redis"),
    "redis-emptied": redis_emptied, "redis-full": redis_full,
    "disk-full": disk_full, "port-replaced": port_replaced, "ports-away": ports_away, "bridge-remade": bridge_remade,
    "front-killed": front_killed,
}


# ---- Rounds ----

@dataclasses.dataclass
class Round:
    number: int
    kind: str
    policy: str
    faults: list
    plug_before: int  # place among the faults
    probation: bool = False  # ports that come back are probed before they forward
    problems: list = dataclasses.field(default_factory=list)

    def __str__(self):
        played = [*self.faults[:self.plug_before], "LOOP", *self.faults[self.plug_before:]]
        policy = self.policy + (", probation" if self.probation else "")
        return f"round {self.number}: {self.kind}, {policy}: {', '.join(played)}: {'; '.join(self.problems) or 'good'}"


def problems_of(lab):
    """Dark ports, which are down, or have a link and do not forward or are guarded, and recorded loops."""
    found, states = [], lab.states()
    found += [f"{port['ifname']} is closed" for port in json.loads(lab.inside("bridge", "-d", "-j", "link"))
              if port.get("locked") and "NO-CARRIER" not in port["flags"]]
    for port in lab.port_names:
        link = lab.link(port)
        if "UP" not in link["flags"]:
            found.append(f"{port} is down")
        elif link["operstate"] == "UP" and states.get(port) != "forwarding":
            found.append(f"{port} is {states.get(port, 'outside the bridge')}")
    return found + [f"{port} reports a loop" for port, _ in sorted(lab.loops())]


def disturb(lab, loop, draw, played):
    mends = []
    for place, name in enumerate(played.faults):
        if place == played.plug_before:
            loop.plug()
        mends.append(FAULTS[name](lab, draw))
        time.sleep(2 * draw.random() ** 2)
        played.problems += lab.supervise()
        if draw.random() < 0.5:
            mend(mends.pop(draw.randrange(len(mends))))
    if played.plug_before == len(played.faults):
        loop.plug()
    draw.shuffle(mends)
    for one in mends:
        mend(one)
    played.problems += lab.wait_running()


def mend(one):
    if one:
        one()


def check(condition, timeout, text, problems):
    try:
        wait_for(condition, timeout, text, every=0.1)
    except AssertionError:
        problems.append(f"not within {timeout} s: {text}")


def look(lab, loop, traffic, played):
    """What must hold once everything runs again."""
    plugged = loop.timer.is_alive
    check(lambda: lab.loops() or set(loop.shut) & set(lab.down_ports()) or not plugged(), KNOWN_WITHIN_S,
          "the loop is known", played.problems)
    if "shutdown" in played.policy:
        with contextlib.suppress(AssertionError):
            traffic.wait_calm(STORM_OVER_WITHIN_S)
            return
        played.problems.append("the storm lasts")


def play(lab, loop, traffic, draw, played):
    before = lab.descriptors()
    disturb(lab, loop, draw, played)
    look(lab, loop, traffic, played)
    loop.unplug()
    lab.configure("loop-detect enable")
    with contextlib.suppress(AssertionError):
        wait_for(lambda: not problems_of(lab), RECOVERED_WITHIN_S, "all is good", every=0.1)
    played.problems += problems_of(lab)
    played.problems += lab.supervise()
    lab.cli("write")
    lab.cli(f"configure replace {lab.startup_config} list")
    for name, count in before.items():
        check(lambda name=name, count=count: lab.descriptors()[name] <= count + SPARE_DESCRIPTORS, 5,
              f"{name} has about {count} descriptors, not {lab.descriptors()[name]}", played.problems)


def play_round(seed, number, faults):
    draw = random.Random(f"chaos {seed}/{number}")
    kinds = [kind for kind in KINDS if kind not in ("deaf-hub", "three-ports")]  # the last port is replaced
    chosen = [draw.choice(faults) for _ in range(draw.randint(1, FAULTS_IN_A_ROUND))]
    policy = "loop-detect enable" + draw.choice((" shutdown access-mode",) * 3 + ("",))
    played = Round(number, draw.choice(kinds), policy, chosen, draw.randint(0, len(chosen)))
    played.probation = draw.random() < 0.5
    try:
        with ChaosLab(ports=5) as lab, KINDS[played.kind](lab) as loop, Traffic(lab) as traffic:
            lab.enable(*policy.split()[2:])
            if played.probation:
                lab.configure(*(line for port in lab.port_names
                                for line in (f"interface {port}", "errdisable recovery probation 1")))
            lab.cli("write")
            play(lab, loop, traffic, draw, played)
    except (AssertionError, OSError, subprocess.SubprocessError, redis.exceptions.RedisError) as problem:
        played.problems.append(f"broken: {problem}")
    return played


def play_rounds(seed, rounds, faults=(), first=0):
    """Yields each Round when it has been played."""
    for number in range(first, first + rounds):
        yield play_round(seed, number, list(faults) or list(FAULTS))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--rounds", type=int, default=20)
    parser.add_argument("--first", type=int, default=0, help="number of the first round")
    parser.add_argument("--fault", action="append", choices=list(FAULTS), default=[])
    options = parser.parse_args()
    started, bad = time.monotonic(), 0
    for played in play_rounds(options.seed, options.rounds, options.fault, options.first):
        if played.problems:
            bad += 1
            print(played, flush=True)
    print(f"seed {options.seed}: {options.rounds} rounds, {bad} bad, "
          f"{60 * options.rounds / (time.monotonic() - started):.0f} rounds a minute")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
