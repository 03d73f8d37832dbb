"""Measures the NETCONF server: notifications and edits beside bare programs on Redis, and idle sessions."""

import contextlib
import os
import pathlib
import time

from common import (PROGRAMS, Lines, cpu_ns, fresh_policy, in_namespace, memory_mb, percentile, row,
                    say)
from lab import Lab
from netconf_lab import EVENT, PROGRAM, RawSession

PORTS = 10  # the capacity of the loop table
SESSIONS = 10
POLICIES = (1, 2, 3)  # each edit changes what the last one set
PAUSE_S = 0.05


def session_command(lab):
    return [PROGRAM, "--platform", lab.platform_file, "--runtime", lab.folder / "run"]


def ask_in_turn(ours, bare):
    """Nanoseconds of one sample each; both arguments are pairs of a program and its line."""
    took = []
    for program, line in (ours, bare):
        took.append(int(program.ask(line)))
        time.sleep(PAUSE_S)
    return took


def loop_samples(lab, probe, bare, policy, rounds):
    say(f'netconf: notifications, "{policy}"')
    indexes = {name: lab.ifindex(name) for name in lab.port_names}
    samples = []
    for _ in range(rounds):
        fresh_policy(lab, policy, rest_s=0.3)
        samples += [ask_in_turn((probe, f"loop {ifx} {name}"), (bare, f"loop {ifx}"))
                    for name, ifx in indexes.items()]
    return samples


def edit_samples(probe, bare, count):
    """Edits and bare requests in turn; over three samples each of them sets every policy."""
    say("netconf: edits")
    policies = [POLICIES[n % len(POLICIES)] for n in range(2 * count)]
    return [ask_in_turn((probe, f"edit {ours}"), (bare, f"request {floor}"))
            for ours, floor in zip(policies[::2], policies[1::2])]


def latency_row(name, samples, part, limit=None):
    ours, bare = zip(*samples)
    return row(f"{name}, p{100 * part:.0f}", percentile(ours, part) / 1e3, "us",
               floor=percentile(bare, part) / 1e3, limit=limit)


def measure_latency(lab, quick):
    with contextlib.ExitStack() as stack:
        probe, bare = [stack.enter_context(
            Lines(*in_namespace(lab, PROGRAMS / name, lab.redis_socket, *arguments), ready=True))
            for name, arguments in (("netconf_probe", session_command(lab)), ("bare_netconf", []))]
        warned = loop_samples(lab, probe, bare, "loop-detect enable", 1 if quick else 10)
        shut = loop_samples(lab, probe, bare, "loop-detect enable shutdown access-mode",
                            1 if quick else 5)
        lab.configure("no loop-detect enable")
        edits = edit_samples(probe, bare, 10 if quick else 100)
    told, done = "record set to NETCONF notification", "edit-config to ok"
    return [latency_row(told, warned, 0.5, ("max", 6)), latency_row(told, warned, 0.99),
            latency_row(f"{told}, port shut", shut, 0.5),
            latency_row(done, edits, 0.5), latency_row(done, edits, 0.99)]


def wake_ups(pid):
    """How often the threads of a process have slept voluntarily, and so woken up."""
    return sum(int(line.split()[1])
               for task in pathlib.Path(f"/proc/{pid}/task").iterdir()
               for line in (task / "status").read_text().splitlines()
               if line.startswith("voluntary_ctxt_switches:"))


def measure_sessions(lab, seconds):
    """Subscribed sessions without events. The worst of them counts."""
    with contextlib.ExitStack() as stack:
        pids = []
        for _ in range(SESSIONS):
            session = stack.enter_context(RawSession(session_command(lab), os.devnull))
            if "<ok/>" not in session.rpc(f'<create-subscription xmlns="{EVENT}"/>'):
                raise RuntimeError("no subscription")
            pids.append(session.process.pid)
        time.sleep(1)
        say(f"netconf: {SESSIONS} idle sessions, {seconds} s")
        before = {pid: (cpu_ns(pid), wake_ups(pid)) for pid in pids}
        started = time.monotonic()
        time.sleep(seconds)
        passed = time.monotonic() - started
        cpu = max((cpu_ns(pid) - spent) / 1e7 / passed for pid, (spent, _) in before.items())
        woken = max((wake_ups(pid) - count) / passed for pid, (_, count) in before.items())
        return [
            row("resident memory, one session", max(memory_mb(pid) for pid in pids), "MB",
                limit=("max", 20)),
            row(f"its proportional share, {SESSIONS} sessions",
                max(memory_mb(pid, "smaps_rollup", "Pss:") for pid in pids), "MB"),
            row("idle processor time, one session", cpu, "% of a core", limit=("max", 0.1)),
            row("idle wake-ups, one session", woken, "1/s", limit=("max", 1)),
        ]


def measure_netconf(options):
    with Lab(switch="linux", ports=PORTS) as lab:
        lab.start_redis()
        lab.start_agent()
        return (measure_latency(lab, options.quick) +
                measure_sessions(lab, 5 if options.quick else 20))
