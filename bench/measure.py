"""Measures the agent beside bare programs; started by scripts/bench, which has built everything.

Each group is a function that returns its results: a list of rows with name, value, unit and, where
there is one, the floor of the same run, the ratio and the limit that it should keep.
"""

import argparse
import contextlib
import datetime
import json
import os
import pathlib
import platform
import statistics
import subprocess
import sys
import time

from common import HERE, PROGRAMS, TABLE_SIZE, Lines, cpu_ns, memory_mb, rest, row, say
from lab import Lab
from loops import measure_loops
from netconf import measure_netconf
from reaction import measure_reaction
from storm import measure_storm

SIZES = (48, 512, 4096)  # ports of a small, a large and the largest simulated switch


# ---- Loop reports per second ----

def measure_engine(options):
    result = []
    for ports in (10, 100, 1000, 4000):
        say(f"engine: {ports} ports")
        text = subprocess.run(
            [str(PROGRAMS / "engine_bench"), str(ports), "--benchmark_format=json",
             f"--benchmark_repetitions={3 if options.quick else 9}",
             f"--benchmark_min_time={0.1 if options.quick else 0.5}"],
            check=True, capture_output=True, text=True).stdout
        for run in json.loads(text)["benchmarks"]:
            if run.get("aggregate_name") == "median":
                kind = run["run_name"].split("/")[0]
                result.append(row(f"reports handled, {ports} ports, {kind}",
                                  run["items_per_second"], "1/s"))
    return result


def flood(lab, count, first, ports, loop, stopped=0):
    """Reports per second that the subscriber of a lab handles."""
    command = [str(PROGRAMS / "report_flood"), str(lab.redis_socket), str(count), str(first),
               str(ports), str(loop)]
    text = subprocess.run(command + ([str(stopped)] if stopped else []), check=True,
                          capture_output=True, text=True).stdout
    return count / (int(text) / 1e9)


def measure_redis(options):
    """Report floods through Redis, to the agent and to the bare subscriber in turn."""
    count, rounds, ports = (10000, 2, 24) if options.quick else (40000, 8, 24)
    rates = {(who, how): [] for who in ("agent", "bare") for how in ("streamed", "waiting")}
    with contextlib.ExitStack() as stack:
        ours = stack.enter_context(Lab(store="redis", ports=ports))
        bare = stack.enter_context(Lab(store="redis", ports=ports))
        for lab in (ours, bare):
            lab.start_redis()
        ours.start_agent()
        subscriber = stack.enter_context(
            Lines(PROGRAMS / "bare_unpack", bare.redis_socket, ready=True))
        labs = {"agent": (ours, ours.agent.pid), "bare": (bare, subscriber.process.pid)}
        for how in ("streamed", "waiting"):
            ours.configure("no loop-detect enable")
            ours.configure("loop-detect enable")
            time.sleep(1)
            for number in range(rounds):
                say(f"redis: {how}, round {number + 1} of {rounds}")
                for who, (lab, pid) in labs.items():
                    stopped = pid if how == "waiting" else 0
                    loop = 1 + number  # a port that has not looped yet
                    rates[who, how].append(
                        flood(lab, count, TABLE_SIZE + 1, ports - TABLE_SIZE, loop, stopped))
    result = []
    for how, text, limit in (("streamed", "as they are sent", ("min", 0.6)),
                             ("waiting", "from a backlog", None)):
        result.append(row(f"reports through Redis, {text}",
                          statistics.median(rates["agent", how]), "1/s",
                          floor=statistics.median(rates["bare", how]), limit=limit))
    return result


# ---- Start, memory, idle time ----

def start_time_ms(lab):
    """Milliseconds from the start of the process until it is ready for the command line."""
    started = time.monotonic_ns()
    with Lines(PROGRAMS / "lda_timed") as process:
        ready = int(process.read())
    return (ready - started) / 1e6


def start_rested(lab):
    """Starts the product, switches detection on and waits until all ports are configured."""
    lab.start_agent()
    lab.configure("loop-detect enable shutdown access-mode")
    time.sleep(1)
    rest(lab)


def measure_start(options):
    result, medians = [], {}
    for ports in SIZES:
        with Lab(ports=ports) as lab:
            say(f"start: {ports} ports")
            os.environ["LDA_PLATFORM"] = str(lab.platform_file)
            times = [start_time_ms(lab) for _ in range(3 if options.quick else 15)]
            medians[ports] = statistics.median(times)
            # The time until ready must grow linearly with the ports, compared with the next smaller
            # switch.
            smaller = [n for n in SIZES if n < ports]
            floor = medians[smaller[-1]] * ports / smaller[-1] if smaller else None
            result.append(row(f"start to cli ready, {ports} ports", medians[ports], "ms", floor=floor,
                              limit=("max", 1) if floor else None))
            start_rested(lab)
            result.append(row(f"resident memory, {ports} ports", memory_mb(lab.agent.pid), "MB",
                              limit=("max", 15) if ports == 512 else None))
    del os.environ["LDA_PLATFORM"]
    return result


def measure_idle(options):
    seconds, result = 5 if options.quick else 30, []
    with contextlib.ExitStack() as stack:
        labs = {f"simulated switch, {n} ports": Lab(ports=n) for n in SIZES}
        labs[f"bridge with {TABLE_SIZE} ports, Redis"] = Lab(switch="linux", ports=TABLE_SIZE)
        for lab in labs.values():
            stack.enter_context(lab)
            if lab.store == "redis":
                lab.start_redis()
            start_rested(lab)
        before = [cpu_ns(lab.agent.pid) for lab in labs.values()]
        started = time.monotonic()
        say(f"idle: {seconds} s")
        time.sleep(seconds)
        for (name, lab), spent in zip(labs.items(), before):
            percent = (cpu_ns(lab.agent.pid) - spent) / 1e7 / (time.monotonic() - started)
            result.append(row(f"idle processor time, {name}", percent, "% of a core",
                              limit=("max", 0.2)))
    return result


# ---- Delivery thread ----

def measure_delivery(options):
    result = []
    for ports in (48, 512):
        say(f"delivery: {ports} ports")
        runs = [json.loads(subprocess.run(
            [str(PROGRAMS / "delivery_bench"), str(ports), "2" if options.quick else "5"],
            check=True, capture_output=True, text=True).stdout)
            for _ in range(1 if options.quick else 5)]

        def median(value):
            return statistics.median(value(run) for run in runs)

        result += [
            row(f"lines delivered, {ports} ports", median(lambda r: r["lines"] / r["seconds"]), "1/s"),
            row(f"wait of other work, {ports} ports, p50", median(lambda r: r["delay_p50"] / 1e3), "us"),
            row(f"wait of other work, {ports} ports, p99", median(lambda r: r["delay_p99"] / 1e3), "us"),
            row(f"wait of other work, {ports} ports, longest",
                max(r["delay_longest"] for r in runs) / 1e6, "ms"),
            row(f"one piece of work, {ports} ports, longest",
                max(r["work_longest"] for r in runs) / 1e6, "ms"),
        ]
    return result


# ---- Report ----

def number_text(value):
    return f"{value:,.0f}" if value >= 1000 else f"{value:.3g}"


def print_table(rows):
    form = "{:<52}{:>12} {:<12}{:>12}{:>8}  {}"
    print("\n" + form.format("", "measured", "", "floor", "ratio", "limit"))
    for entry in rows:
        verdict = f"{entry['limit']}{'' if entry['kept'] else '  NOT KEPT'}" if "limit" in entry else ""
        print(form.format(entry["name"], number_text(entry["value"]), entry["unit"],
                          number_text(entry["floor"]) if "floor" in entry else "",
                          f"{entry['ratio']:.2f}" if "ratio" in entry else "", verdict))


def machine():
    model = [line.split(":", 1)[1].strip() for line in pathlib.Path("/proc/cpuinfo").read_text()
             .splitlines() if line.startswith("model name")]
    return {"processor": model[0] if model else platform.machine(), "cores": os.cpu_count(),
            "kernel": platform.release()}


GROUPS = {"reaction": measure_reaction, "engine": measure_engine, "redis": measure_redis,
          "start": measure_start, "idle": measure_idle, "delivery": measure_delivery,
          "storm": measure_storm, "netconf": measure_netconf, "loops": measure_loops}


def main():
    parser = argparse.ArgumentParser(description="see scripts/bench --help")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--only", action="append", choices=list(GROUPS))
    parser.add_argument("--rounds", type=int)
    options = parser.parse_args()
    options.rounds = options.rounds or (2 if options.quick else 20)
    load = [os.getloadavg()]
    rows = []
    for name in options.only or GROUPS:
        rows += GROUPS[name](options)
        load.append(os.getloadavg())
    print_table(rows)
    highest = max(one for one, _, _ in load)
    print(f"\nload average during the run: up to {highest:.1f} on {os.cpu_count()} cores")
    if not options.quick and not options.only:
        results = {"date": datetime.date.today().isoformat(), "machine": machine(),
                   "load_before_and_after_each_group": load, "results": rows}
        (HERE / "results.json").write_text(json.dumps(results, indent=1) + "\n")
        print(f"written to {HERE / 'results.json'}")
    return 0 if all(entry.get("kept", True) for entry in rows) else 1


if __name__ == "__main__":
    sys.exit(main())
