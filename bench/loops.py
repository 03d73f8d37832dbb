"""Measures how soon a real loop is opened, compared with other ways, and what loop probes cost without one.

Every way to protect a switch has a switch of its own; they alternate within each round. The cables have no
limit here: a storm is as fast as the machine, and is unplugged when its time is over.
"""

import contextlib
import dataclasses
import os
import random
import statistics
import subprocess
import time

from common import HERE, PROGRAMS, Bridge, Lines, cpu_ns, in_namespace, memory_mb, percentile, row, say
from lab import BUILD, wait_for
from tarn_lab import TarnLab
from tarn_loops import KINDS

POLICY = "shutdown access-mode"
TARND = str(BUILD / "services" / "tarnd" / "tarnd")
PERIODIC = str(PROGRAMS / "tarnd_periodic")
DEFAULT_SCHEDULING = ("setpriv", "--bounding-set", "-sys_nice")
# Limits of processor time in % of a core and memory in MB, by ports. A kernel bridge has at most
# 1,023 ports.
IDLE_PORTS = {48: (0.2, 10), 512: (1, 12), 1000: (None, None)}
CORE_PORTS = 4096


@dataclasses.dataclass
class Way:
    """A way to end a loop. `most`: maximum of rounds, for slow ways. `limit_ms`: how long a storm may last."""

    name: str
    tarnd: tuple = ()
    lines: tuple = ()
    detects: bool = True
    spanning_tree: bool = False
    most: int = 1000
    limit_ms: int = 3000


NOTHING = Way("nothing", detects=False, most=5)
SPANNING_TREE = Way("spanning tree", detects=False, spanning_tree=True, most=5)
STORM = Way("storm detection", most=3, limit_ms=20000)
SLOW_PROBES = Way("probes of 1 s, no trigger", (PERIODIC,), most=20)
FAST_PROBES = Way("probes of 0.2 s, no trigger", (PERIODIC,), ("tarn probe-interval 200",), most=20)
DEFAULT = Way("default scheduling", (*DEFAULT_SCHEDULING, TARND))
REAL_TIME = Way("SCHED_RR", (TARND,))
GUARDED = Way("SCHED_RR, guarded", (TARND,), ("interface range swp1-5", "tarn link-up guard", "exit"))

GUARD_MS = 30  # of a port whose command gives no time

# For each kind of loop: its name in the table and what to compare.
CASES = {
    "remote-bridge": ("remote bridge", (NOTHING, SPANNING_TREE, STORM, SLOW_PROBES, FAST_PROBES, DEFAULT, REAL_TIME)),
    "deaf-hub": ("hub without spanning tree", (SPANNING_TREE, DEFAULT, REAL_TIME)),
    "three-ports": ("three ports", (DEFAULT, REAL_TIME)),
    "looped-hub": ("looped hub", (DEFAULT, REAL_TIME)),
    "slow-ring": ("slow ring", (REAL_TIME,)),
    "cable": ("cable plugged in", (NOTHING, DEFAULT, REAL_TIME, GUARDED)),
}
# Medians and 99th percentiles of stray frames that SCHED_RR should keep.
LIMITS = {"remote-bridge": (60, 1500), "deaf-hub": (60, 1500), "three-ports": (120, 1000), "cable": (0, 300),
          "looped-hub": (800, 2000)}

# Of the remote bridge, in milliseconds.
TIME_LIMITS = {"to one port down": (0.5, 2), "to both ports down": (3, None)}


@dataclasses.dataclass
class Sample:
    stray: int
    storm_ns: int  # from the first stray frame to the last
    first_down_ns: int  # from the first stray frame
    second_down_ns: int
    calm: int


class Contender(TarnLab):
    """A switch with one kind of protection, and a loop to plug into it."""

    def __init__(self, way, kind):
        super().__init__(ports=5, cable=None)
        self.way = way
        self.kind = kind
        self.stack = contextlib.ExitStack()
        self.samples = []

    def __enter__(self):
        super().__enter__()
        try:
            self.loop = self.stack.enter_context(KINDS[self.kind](self))
            self.watch = self.stack.enter_context(
                Lines(*in_namespace(self, PROGRAMS / "loop_watch", "swp3-far", "swp4-far")))
            if self.way.tarnd:
                self.start_tarnd()
            if self.way.lines:
                self.configure(*self.way.lines)
            self.make_ready()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *details):
        self.stack.close()
        super().__exit__(*details)

    def tarnd_command(self):
        return ["ip", "netns", "exec", self.namespace, *self.way.tarnd]

    def make_ready(self):
        """Waits for no loop, all ports up and forwarding, and active protection."""
        self.loop.unplug()
        self.configure("no loop-detect enable")
        wait_for(lambda: not self.down_ports(), 20, "the ports are up")
        if self.way.spanning_tree:
            # Quickly to forwarding, then the kernel's default timers.
            self.ip("link", "set", "br0", "type", "bridge", "stp_state", "0")
            self.ip("link", "set", "br0", "type", "bridge", "stp_state", "1", "forward_delay", "200")
            wait_for(lambda: self.forwarding("swp3", "swp4", *([] if self.loop.carrier else self.loop.ports)), 60,
                     "spanning tree lets the ports forward", every=0.1)
            self.ip("link", "set", "br0", "type", "bridge", "forward_delay", "1500")
        if self.way.detects:
            self.enable(POLICY)
        time.sleep(0.3)

    def forwarding(self, *ports):
        states = self.states()
        return all(states[port] == "forwarding" for port in ports)

    def sample(self):
        time.sleep(random.uniform(0, 1))  # at any moment of the probes' period
        if self.loop.carrier:
            self.watch.tell(f"talk 500 1000 {self.way.limit_ms}")
            time.sleep(0.05)
            self.loop.plug()
        else:
            self.loop.plug()
            self.watch.tell(f"talk 1 0 {self.way.limit_ms}")
        self.samples.append(Sample(*map(int, self.watch.read().split())))
        self.make_ready()


# ---- Loops ----

def rows_of(kind, way, samples, spanning_tree):
    """Rows of one contender; `spanning_tree` is the median of its stray frames, if it was in the run."""
    strays = [sample.stray for sample in samples]
    title = f"{CASES[kind][0]}, {way.name}"
    kept = LIMITS.get(kind) if way is REAL_TIME else None
    result = [row(f"{title}: stray frames, {text}", percentile(strays, part), "frames", limit=limit)
              for text, part, limit in (("p50", 0.5, ("max", kept[0]) if kept else None),
                                        ("p99", 0.99, ("max", kept[1]) if kept else None), ("most", 1, None))]
    if spanning_tree is not None and way is REAL_TIME:
        fewer = spanning_tree / max(1, statistics.median(strays))
        result.append(row(f"{title}: fewer stray frames than spanning tree", fewer, "times", limit=("min", 1000)))
    ended = [sample for sample in samples if sample.calm]
    result.append(row(f"{title}: storms ended", 100 * len(ended) / len(samples), f"% of {len(samples)}"))
    storms = [sample for sample in ended if sample.stray > 0]
    times = {"to the last": [sample.storm_ns for sample in storms],
             "to one port down": [sample.first_down_ns for sample in storms if sample.first_down_ns >= 0],
             "to both ports down": [sample.second_down_ns for sample in storms if sample.second_down_ns >= 0]}
    for text, values in times.items():
        limits = TIME_LIMITS.get(text, (None, None)) if kept and kind == "remote-bridge" else (None, None)
        for part_text, part, limit in (("p50", 0.5, limits[0]), ("p99", 0.99, limits[1])):
            if values:
                result.append(row(f"{title}: first stray frame {text}, {part_text}", percentile(values, part) / 1e6,
                                  "ms", limit=("max", limit) if limit else None))
    return result


def measure_case(options, kind):
    name, ways = CASES[kind]
    rounds = options.rounds
    with contextlib.ExitStack() as stack:
        contenders = [stack.enter_context(Contender(way, kind)) for way in ways]
        for number in range(rounds):
            say(f"loops: {name}, round {number + 1} of {rounds}")
            for contender in contenders:
                # The slow ways are spread over all rounds.
                most = min(rounds, 1 if options.quick else contender.way.most)
                if number * most // rounds != (number - 1) * most // rounds or number == 0:
                    contender.sample()
    medians = {one.way.name: statistics.median(s.stray for s in one.samples) for one in contenders}
    rows = [entry for one in contenders
            for entry in rows_of(kind, one.way, one.samples, medians.get(SPANNING_TREE.name))]
    return rows, {one.way.name: [s.stray for s in one.samples] for one in contenders}


# ---- A port that comes up without a loop ----

def measure_bring_up(options):
    ways = (NOTHING, REAL_TIME, GUARDED)
    took = {way.name: [] for way in ways}
    with contextlib.ExitStack() as stack:
        labs = [stack.enter_context(Contender(way, "remote-bridge")) for way in ways]
        for number in range(options.rounds):
            say(f"loops: bring-up, round {number + 1} of {options.rounds}")
            for lab in labs:
                lab.ip("link", "set", "swp5-far", "down")
                wait_for(lambda lab=lab: lab.link("swp5")["operstate"] != "UP", 10, "swp5 has no link")
                time.sleep(0.2)
                took[lab.way.name].append(int(lab.watch.ask("up swp5-far 5000")))
    return [row(f"link up to first frame, {way.name}, {text}", percentile(took[way.name], part) / 1e6, "ms",
                floor=percentile(took[NOTHING.name], part) / 1e6 if way is REAL_TIME else None,
                limit=("max", GUARD_MS + 15) if way is GUARDED and text == "p99" else None)
            for way in ways for text, part in (("p50", 0.5), ("p99", 0.99))]


# ---- Without a loop ----

class ProbedBridge(Bridge):
    """A switch whose cables end in another namespace, as those of a switch do: tarnd would see each probe once more where
    it arrives, for it listens on every interface of its own namespace."""

    def _make_bridge(self):
        super()._make_bridge()
        self.far_namespace = f"{self.namespace}-far"
        subprocess.run(["ip", "netns", "add", self.far_namespace], check=True)
        # Neighbour discovery of all far ends would reach each of them through the bridge.
        subprocess.run(["ip", "netns", "exec", self.far_namespace, "sh", "-c",
                        "for scope in all default; do echo 1 > /proc/sys/net/ipv6/conf/$scope/disable_ipv6; done"],
                       check=True)
        far = [f"{name}-far" for name in self.port_names]
        self.batch(*(f"link set {name} netns {self.far_namespace}" for name in far))
        subprocess.run(["ip", "-n", self.far_namespace, "-batch", "-"], text=True, check=True,
                       input="".join(f"link set {name} up\n" for name in far))

    def __exit__(self, *details):
        subprocess.run(["ip", "netns", "delete", self.far_namespace], check=False)
        super().__exit__(*details)

    def write_platform_file(self, extra=""):
        super().write_platform_file(extra + f'[tarn]\nstate = "{self.folder}/tarn"\n')


def probes_sent(lab):
    return int(lab.inside("cat", "/sys/class/net/swp1/statistics/tx_packets"))


def idle_rows(name, percent, memory, sent, limits):
    """`sent`: probes, in percent of those that were due."""
    return [row(f"{name}, probes sent", sent, "% of those due", limit=("min", 90)),
            row(f"{name}, processor time", percent, "% of a core", limit=("max", limits[0]) if limits[0] else None),
            row(f"{name}, memory", memory, "MB", limit=("max", limits[1]) if limits[1] else None)]


def measure_idle_bridge(ports, seconds):
    with ProbedBridge(ports) as lab:
        lab.start_redis()
        lab.start_agent()
        tarnd = subprocess.Popen(in_namespace(lab, TARND), env={**os.environ, "LDA_PLATFORM": str(lab.platform_file)})
        try:
            lab.configure("loop-detect enable")
            time.sleep(5)
            spent, probes = cpu_ns(tarnd.pid), probes_sent(lab)
            time.sleep(seconds)
            percent = (cpu_ns(tarnd.pid) - spent) / 1e7 / seconds
            sent = 100 * (probes_sent(lab) - probes) / seconds
            return idle_rows(f"tarnd idle, {ports} ports", percent, memory_mb(tarnd.pid), sent, IDLE_PORTS[ports])
        finally:
            tarnd.kill()
            tarnd.wait()


def measure_idle_probes(options):
    seconds, result = 5 if options.quick else 20, []
    for ports in IDLE_PORTS:
        say(f"loops: idle, {ports} ports")
        result += measure_idle_bridge(ports, seconds)
    say(f"loops: idle, {CORE_PORTS} ports")
    with ProbedBridge(1) as lab:
        spent, probes, resident = map(int, lab.inside(str(PROGRAMS / "probe_idle"), "swp1", str(CORE_PORTS),
                                                      str(seconds)).split())
    return result + idle_rows(f"probing core alone, {CORE_PORTS} ports", spent / 1e7 / seconds, resident / 1024,
                              100 * probes / CORE_PORTS / seconds, (6, 25))


# ---- Plot ----

PLOT = """
set terminal {terminal}
set output "{output}"
set title "A loop behind two ports: stray frames at a bystander, every round"
set logscale y
set yrange [0.3:*]
set ylabel "stray frames (none is drawn at 0.5)"
set xrange [-0.6:{last}.6]
set xtics ({tics}) rotate by -25
set grid y
set key off
plot "-" using ($1 + (rand(0) - 0.5) / 3):($2 > 0 ? $2 : 0.5) \\
     with points pointtype 7 pointsize 0.5 linecolor rgb "#1f6fb2"
{points}
e
"""


def draw(strays):
    """`strays` by way; writes bench/loops.svg and bench/loops.png."""
    tics = ", ".join(f'"{name}" {place}' for place, name in enumerate(strays))
    points = "\n".join(f"{place} {stray}" for place, values in enumerate(strays.values()) for stray in values)
    for kind, terminal in (("svg", "svg noenhanced size 900,480 background '#ffffff'"),
                           ("png", "pngcairo noenhanced size 900,480")):
        subprocess.run(["gnuplot"], check=True, text=True,
                       input=PLOT.format(terminal=terminal, output=HERE / f"loops.{kind}", last=len(strays) - 1,
                                         tics=tics, points=points))


def measure_loops(options):
    rows = []
    for kind in CASES:
        made, strays = measure_case(options, kind)
        rows += made
        if kind == "remote-bridge" and not options.quick:
            draw(strays)
    return rows + measure_bring_up(options) + measure_idle_probes(options)
