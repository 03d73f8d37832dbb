"""Measures storm detection: the poll, the counters and rules of a Linux bridge, and what a frame costs.

The Linux measurements need root, like all network namespaces.
"""

import contextlib
import json
import socket
import statistics
import subprocess
import time

from common import PROGRAMS, Bridge, Lines, in_namespace, row, say
from lab import wait_for

RECORDS = (64, 512, 4096)
PORTS = (48, 512)  # of a small and a large Linux bridge
KNOWN = "02:00:00:00:be:02"  # an address behind a port


# ---- Poll and reports ----

def measure_poll(options):
    result, per_record = [], {}
    for records in RECORDS:
        say(f"storm: poll over {records} records")
        text = subprocess.run(
            [str(PROGRAMS / "storm_bench"), str(records), "--benchmark_format=json",
             f"--benchmark_repetitions={3 if options.quick else 9}",
             f"--benchmark_min_time={0.1 if options.quick else 0.3}"],
            check=True, capture_output=True, text=True).stdout
        run, = [run for run in json.loads(text)["benchmarks"]
                if run.get("aggregate_name") == "median"]
        per_record[records] = run["real_time"] * 1e6 / records
        result.append(row(f"poll and one report each, {records} records", run["real_time"], "ms",
                          limit=("max", 5) if records == RECORDS[-1] else None))
    for records in RECORDS:
        smallest = per_record[RECORDS[0]] if records != RECORDS[0] else None
        result.append(row(f"the same for one record, {records} records", per_record[records], "ns",
                          floor=smallest, limit=("max", 1.5) if smallest else None))
    return result


# ---- Counters in the kernel ----

def measure_counters(options):
    result = []
    for ports in PORTS:
        say(f"storm: counters of {ports} ports")
        medians = json.loads(subprocess.run(
            [str(PROGRAMS / "counter_bench"), str(ports), "51" if options.quick else "501"],
            check=True, capture_output=True, text=True).stdout)
        result.append(row(f"counters read and reported, {ports} ports", medians["ours"] / 1e3, "us",
                          floor=medians["bare"] / 1e3, limit=("max", 1.5)))
    return result


# ---- Enabling ports from the command line ----

class Session:
    """A session of the command line, as docs/cli.md describes it."""

    def __init__(self, lab):
        self.stream = socket.socket(socket.AF_UNIX)
        self.stream.connect(str(lab.cli_socket))
        self.replies = self.stream.makefile("r")

    def type(self, line):
        self.stream.sendall(json.dumps({"exec": line}).encode() + b"\n")
        reply = json.loads(self.replies.readline())
        if reply["result"] != 0:
            raise RuntimeError(f"{line}: {reply['output']}")

    def close(self):
        self.replies.close()
        self.stream.close()


def by_range(lab, command):
    yield f"interface range swp1-{len(lab.port_names)}"
    yield command


def line_by_line(lab, command):
    for name in lab.port_names:
        yield f"interface {name}"
        yield command


def by_policy(lab, command):
    """One line for the whole switch; the agent types those of the ports."""
    yield "no loop-detect enable" if command.startswith("no ") else "loop-detect enable"


def enabling_ms(lab, watch, lines):
    """Milliseconds from the first line until every port has its chain."""
    session = Session(lab)
    session.type("configure terminal")
    watch.ask(len(lab.port_names))
    started = time.monotonic_ns()
    for line in lines(lab, "storm-loop-detect enable"):
        session.type(line)
    took = (int(watch.read()) - started) / 1e6
    for line in lines(lab, "no storm-loop-detect enable"):
        session.type(line)
    session.close()
    wait_for(lambda: "lda" not in lab.inside("nft", "list", "tables"), 20, "the rules are gone")
    time.sleep(0.3)
    return took


def measure_enabling(options):
    ways = {"by a range": by_range, "line by line": line_by_line, "by the policy": by_policy}
    medians = {}
    for ports in PORTS:
        say(f"storm: enabling {ports} ports")
        with contextlib.ExitStack() as stack:
            lab = stack.enter_context(Bridge(ports=ports))
            lab.start_redis()
            lab.start_agent()
            watch = stack.enter_context(Lines(*in_namespace(lab, PROGRAMS / "rule_watch")))
            for way, lines in ways.items():
                medians[way, ports] = statistics.median(
                    enabling_ms(lab, watch, lines) for _ in range(2 if options.quick else 7))
    result = []
    small, large = PORTS
    for way in ways:
        for ports in PORTS:
            # Linear growth: the small bridge's time per port, for all ports.
            linear = medians[way, small] * large / small if ports == large else None
            result.append(row(f"ports enabled {way}, {ports} ports", medians[way, ports], "ms",
                              floor=linear, limit=("max", 1) if linear else None))
            result.append(row(f"the same for one port, {ports} ports",
                              medians[way, ports] * 1e3 / ports, "us"))
    return result


# ---- Frames ----

def measure_frames(options):
    """A frame from one port to a known address behind another, with and without the rules."""
    frames, rounds = (100000, 3) if options.quick else (100000, 30)
    took = {"with": [], "without": [], "sender": []}
    with contextlib.ExitStack() as stack:
        lab = stack.enter_context(Bridge(ports=2))
        lab.start_redis()
        lab.start_agent()
        lab.inside("bridge", "fdb", "add", KNOWN, "dev", "swp2", "master", "static")
        # The sender's own cost: frames to a device that drops them at once.
        lab.ip("link", "add", "nowhere", "type", "ifb")
        lab.ip("link", "set", "nowhere", "up")
        senders = {name: stack.enter_context(
            Lines(*in_namespace(lab, PROGRAMS / "frame_sender", name, KNOWN, "1")))
            for name in ("swp1-far", "nowhere")}
        say("storm: frames to a known address")
        for _ in range(rounds):
            for rule in ("without", "with"):
                set_rules(lab, rule == "with")
                took[rule].append(forwarded_ns(lab, senders["swp1-far"], frames))
            took["sender"].append(int(senders["nowhere"].ask(frames)) / frames)
    sender, without, ruled = (statistics.median(took[name]) for name in ("sender", "without", "with"))
    return [row("frame forwarded, with rules", ruled - sender, "ns", floor=without - sender,
                limit=("max", 1.25)),
            row("sender's own part of a frame, taken off both", sender, "ns")]


def set_rules(lab, wanted):
    prefix = "" if wanted else "no "
    lab.configure("interface range swp1-2", f"{prefix}storm-loop-detect enable")
    wait_for(lambda: (KNOWN in lab.inside("nft", "list", "ruleset")) == wanted, 10,
             "the rules and the known addresses are as wanted")


def forwarded_ns(lab, sender, frames):
    """Nanoseconds for each frame; all must have arrived."""
    def arrived():
        path = "/sys/class/net/swp2-far/statistics/rx_packets"
        return int(lab.inside("cat", path))

    before = arrived()
    took = int(sender.ask(frames))
    if arrived() - before < frames:
        raise RuntimeError(f"only {arrived() - before} of {frames} frames arrived")
    return took / frames


def measure_storm(options):
    return (measure_poll(options) + measure_counters(options) + measure_enabling(options) +
            measure_frames(options))
