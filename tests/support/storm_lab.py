"""Storms in the kernel: loops outside the switch, hosts that talk, and the cost of both.

The traffic is bounded: the queue at its cable slows down an outside ring, and a loop between two ports of the
switch ends with the agent's meter or with `unplug`.
"""

import concurrent.futures
import contextlib
import dataclasses
import os
import pathlib
import re
import statistics
import subprocess
import sys
import time
import types

import pytest

from lab import Lab, run, wait_for

DETECTED = "%LOOP_DETECT-3-ERROR: Detected loop error on interface {}."

# Broadcast frames out of a device, like hosts that ask for addresses: its name, how many, seconds
# between two. A full queue drops them.
BROADCASTS = """
import errno, socket, sys, time
link = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
link.bind((sys.argv[1], 0))
frame = bytes.fromhex("ffffffffffff" "02000000aa01" "88b6") + bytes(46)
for _ in range(int(sys.argv[2])):
    try:
        link.send(frame)
    except OSError as error:
        if error.errno != errno.ENOBUFS:
            raise
    time.sleep(float(sys.argv[3]))
"""

# Pairs of hosts that talk to each other, one at each of two devices: names of the devices, number
# of pairs, how many of them talk at a time, seconds before the next ones talk, frames per second
# out of each device, seconds in all.
HOSTS = """
import socket, sys, time
pairs, at_a_time = int(sys.argv[3]), int(sys.argv[4])
turn, speed, seconds = map(float, sys.argv[5:])
ends = [socket.socket(socket.AF_PACKET, socket.SOCK_RAW) for _ in range(2)]
for end, device in zip(ends, sys.argv[1:]):
    end.bind((device, 0))
address = lambda side, pair: bytes([2, 0, 0, side, pair >> 8, pair & 255])
frame = lambda pair, side, other: address(other, pair) + address(side, pair) + bytes.fromhex("88b6") + bytes(46)
frames = [(frame(pair, 1, 2), frame(pair, 2, 1)) for pair in range(pairs)]
sent, owed, started = 0, 0, time.monotonic()
last = started
while (now := time.monotonic()) < started + seconds:
    # Hosts do not make up for what they could not say while the machine was busy.
    owed += min(now - last, 0.05) * speed
    last = now
    first = int((now - started) / turn) * at_a_time
    for _ in range(int(owed)):
        for end, bytes_ in zip(ends, frames[(first + sent % at_a_time) % pairs]):
            end.send(bytes_)
        sent += 1
    owed %= 1
    time.sleep(0.005)
"""

# Keeps one processor busy at the lowest priority, for a minute at most.
SPIN = """
import os, time
os.sched_setscheduler(0, os.SCHED_IDLE, os.sched_param(0))
end = time.monotonic() + 60
while time.monotonic() < end:
    pass
"""

# The columns of "debug lda storm-detect" after the name of the port; the last one is a word.
RECORD = ("phyid", "rate", "burst", "packet_count", "byte_count", "flow_over_times", "unloop_times", "poll_times",
          "timer_notify", "is_loop")


class Program:
    """A program that runs while the `with` block lasts, at most."""

    def __init__(self, *command, **options):
        self.command = command
        self.options = options

    def __enter__(self):
        self.process = subprocess.Popen(self.command, **self.options)
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()


@contextlib.contextmanager
def no_idling():
    """Keeps all processors busy, at the lowest priority, while the `with` block lasts.

    An idle processor stops its tick, and the kernel accounts only whole ticks: it would hardly count interrupts
    on an idle processor, but would count them on a busy one.
    """
    with contextlib.ExitStack() as spinning:
        for _ in range(os.cpu_count()):
            spinning.enter_context(Program(sys.executable, "-c", SPIN))
        yield


def softirq_seconds():
    """Time that all processors have spent on soft interrupts, in which frames go from device to device. Call it
    within no_idling()."""
    fields = pathlib.Path("/proc/stat").read_text().split("\n", 1)[0].split()
    return (int(fields[6]) + int(fields[7])) / os.sysconf("SC_CLK_TCK")


@dataclasses.dataclass
class Growth:
    """The growth of a reading in a second."""

    average: float
    usual: float  # the median of all seconds, because other work adds to some of them


def measure(seconds, **readings):
    """The growth of each reading in some whole seconds."""
    samples = []
    for second in range(seconds + 1):
        if second:
            time.sleep(max(0, samples[0][0] + second - time.monotonic()))
        samples.append((time.monotonic(), {name: read() for name, read in readings.items()}))

    def growth(name, first, last):
        return (last[1][name] - first[1][name]) / (last[0] - first[0])

    return types.SimpleNamespace(**{
        name: Growth(growth(name, samples[0], samples[-1]),
                     statistics.median(growth(name, *pair) for pair in zip(samples, samples[1:])))
        for name in readings})


def at_once(*tests):
    """Runs tests that mostly wait in parallel, each with its own laboratory; any failure is a failure."""
    with concurrent.futures.ThreadPoolExecutor(len(tests)) as pool:
        for done in [pool.submit(test) for test in tests]:
            done.result()


class StormLab(Lab):
    """A Linux switch whose ports see no frames but those of the test, with its agent running."""

    def __init__(self, ports=4):
        super().__init__(switch="linux", ports=ports)
        self.until_exit = contextlib.ExitStack()

    def __enter__(self):
        super().__enter__()
        try:
            for scope in ("all", "default"):
                self.inside("sh", "-c", f"echo 1 > /proc/sys/net/ipv6/conf/{scope}/disable_ipv6")
            self._need_the_packet_filter()
            self.start_redis()
            self.start_agent()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *error):
        self.until_exit.close()
        super().__exit__(*error)

    def _need_the_packet_filter(self):
        probe = subprocess.run(["ip", "netns", "exec", self.namespace, "nft",
                                "add table netdev probe; delete table netdev probe"],
                               capture_output=True, text=True, check=False)
        if probe.returncode != 0:
            pytest.skip(f"packet filter of the netdev family: {probe.stderr.strip()}")

    # ---- the agent ----

    def watch(self, rate, *ports, policy="shutdown access-mode"):
        """Storm detection on all ports, at `rate` on those named; loops are reported and, by default, shut."""
        for port in ports:
            self.configure(f"interface {port}", f"storm-loop-rate ratelimit {rate}")
        self.configure(f"loop-detect enable {policy}".strip())
        wait_for(lambda: len(self.chains()) == len(self.port_names), 30, "every port has a rule", every=0.1)

    def storm_records(self, output=None):
        """The agent's storm records, by port; from a command's output, or from the agent."""
        lines = (output or self.cli("debug lda storm-detect")).splitlines()
        header = next(number for number, line in enumerate(lines) if line.startswith("ifx "))
        records = {}
        for line in lines[header + 1:]:
            _, port, *fields = line.split()
            fields = [int(fields[0], 16), *map(int, fields[1:-1]), fields[-1]]
            records[port] = dict(zip(RECORD, fields, strict=True))
        return records

    def agent_seconds(self):
        """Processor time that the agent has used."""
        fields = pathlib.Path(f"/proc/{self.agent.pid}/stat").read_text().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    # ---- the kernel ----

    def _counters(self, device):
        """Read without a new process, because a storm leaves little time for one."""
        for line in pathlib.Path(f"/proc/{self.agent.pid}/net/dev").read_text().splitlines():
            name, _, numbers = line.partition(":")
            if name.strip() == device:
                return [int(number) for number in numbers.split()]
        raise AssertionError(f"no device {device}")

    def received(self, device):
        """Frames received, including those that a rule then dropped."""
        return self._counters(device)[1]

    def sent(self, device):
        """Frames sent: on a port, by the bridge."""
        return self._counters(device)[9]

    def _listed_chains(self):
        """All chains with a device, of any program: family and table, name, device."""
        table = name = None
        for line in self.inside("nft", "list", "chains").splitlines():
            words = line.split()
            if words[0] == "table":
                table = (words[1], words[2])
            elif words[0] == "chain":
                name = words[1]
            elif "device" in words:
                yield table, name, words[words.index("device") + 1].strip('"')

    def chains(self):
        """The agent's chain on each device that has one."""
        return {device: name for table, name, device in self._listed_chains() if table == ("netdev", "lda")}

    def chain(self, device):
        """The text of the agent's chain on a device."""
        return self.inside("nft", "list", "chain", "netdev", "lda", self.chains()[device])

    def rules(self):
        """Devices that have a chain, once for each chain of any program."""
        return sorted(device for _, _, device in self._listed_chains())

    def ruleset(self):
        return self.inside("nft", "-s", "list", "ruleset")

    # ---- hosts ----

    def broadcasts(self, device, count=400, pause=0.2):
        return self._talk(BROADCASTS, device, count, pause)

    def hosts(self, *devices, pairs, at_a_time, turn, speed, seconds):
        """See HOSTS. The first host at each device has the address 02:00:00:01:00:00, or 02:00:00:02:00:00."""
        return self._talk(HOSTS, *devices, pairs, at_a_time, turn, speed, seconds)

    def _talk(self, script, *arguments):
        return Program("ip", "netns", "exec", self.namespace, sys.executable, "-c", script, *map(str, arguments))

    def known(self):
        """The addresses that the agent regards as known, as printed."""
        listing = self.inside("nft", "list", "set", "netdev", "lda", "fdb")
        return set(re.findall(r"(?:[0-9a-f]{2}:){5}[0-9a-f]{2}", listing))

    @contextlib.contextmanager
    def watch_addresses(self):
        """Returns a function that returns bridge(8)'s lines about learned and expired addresses."""
        report = self.folder / "addresses"
        with report.open("w") as output, Program("bridge", "-n", self.namespace, "monitor", "fdb", stdout=output):
            yield lambda: report.read_text().splitlines()

    # ---- loops ----

    def make_outside(self):
        """Another bridge that ports can be plugged into; two of them make a ring."""
        self.ip("link", "add", "outside", "type", "bridge")
        self.ip("link", "set", "outside", "up")

    def plug(self, port):
        self.ip("link", "set", f"{port}-far", "master", "outside")

    def unplug(self, port):
        self.ip("link", "set", f"{port}-far", "nomaster")

    def make_outside_ring(self, speed):
        """That other bridge with a cable from one of its ports to another, in which frames go round already.

        `speed` of them come by in a second, fewer while the machine has other work, and of each a copy goes to
        every port that is plugged in, whatever that port does with it.
        """
        self.make_outside()
        self.ip("link", "add", "name", "turn", "type", "veth", "peer", "name", "return")
        for end in ("turn", "return"):
            self.ip("link", "set", end, "master", "outside", "up")
        # The frames go one way only, through a queue for frames of 60 bytes.
        run("bridge", "-n", self.namespace, "link", "set", "dev", "return", "flood", "off", "mcast_flood", "off",
            "bcast_flood", "off")
        run("tc", "-n", self.namespace, "qdisc", "replace", "dev", "turn", "root", "tbf", "rate",
            f"{speed * 60 * 8}bit", "burst", "3000", "limit", "6000")
        # While the bridge floods to many ports, the kernel drops frames of the ring too, until none is
        # left: others must follow.
        self.until_exit.enter_context(self.broadcasts("turn", count=10_000, pause=0.02))
        wait_for(lambda: measure(1, turns=lambda: self.received("return")).turns.average > 0.2 * speed, 20,
                 "frames go round outside")
