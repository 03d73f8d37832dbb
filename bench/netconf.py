"""Measures the NETCONF front: notifications and edits beside bare programs on Redis, and idle sessions."""

import contextlib
import os
import pathlib
import time

from common import PROGRAMS, Lines, cpu_ns, in_namespace, memory_mb, percentile, row, say
from lab import Lab, wait_for
from netconf_lab import EVENT, PROGRAM, RawSession

PORTS = 10  # as many as the loop state has room for
SESSIONS = 10
POLICIES = (1, 2, 3)  # each edit changes what the last one set
PAUSE_S = 0.05


def session_command(lab):
    return [PROGRAM, "--platform", lab.platform_file, "--runtime", lab.folder / "run"]


def ask_in_turn(ours, bare):
    """Nanoseconds of a sample here and a sample there; both are pairs of a program and its line."""
    took = []
    for program, line in (ours, bare):
        took.append(int(program.ask(line)))
        time.sleep(PAUSE_S)
    return took


def forget_loops(lab):
    lab.configure("no loop-detect enable")
    lab.configure("loop-detect enable")
    time.sleep(0.3)


def loop_samples(lab, probe, bare, rounds):
    indexes = {name: lab.ifindex(name) for name in lab.port_names}
    samples = []
    for number in range(rounds):
        say(f"netconf: notifications, round {number + 1} of {rounds}")
        forget_loops(lab)
        samples += [ask_in_turn((probe, f"loop {ifx} {name}"), (bare, f"loop {ifx}"))
                    for name, ifx in indexes.items()]
    lab.configure("no loop-detect enable")
    return samples


def edit_samples(probe, bare, count):
    """Edits and bare requests in turn; over three samples each of them sets every policy."""
    say("netconf: edits")
    policies = [POLICIES[n % len(POLICIES)] for n in range(2 * count)]
    return [ask_in_turn((probe, f"edit {ours}"), (bare, f"request {floor}"))
            for ours, floor in zip(policies[::2], policies[1::2])]


def latency_rows(name, samples, limit=None):
    ours, bare = zip(*samples)
    return [row(f"{name}, {text}", percentile(ours, part) / 1e3, "us",
                floor=percentile(bare, part) / 1e3, limit=limit if text == "p50" else None)
            for text, part in (("p50", 0.5), ("p99", 0.99))]


def measure_latency(lab, rounds):
    with contextlib.ExitStack() as stack:
        probe = stack.enter_context(Lines(*in_namespace(
            lab, PROGRAMS / "netconf_probe", lab.redis_socket, *session_command(lab)), ready=True))
        bare = stack.enter_context(Lines(*in_namespace(
            lab, PROGRAMS / "bare_netconf", lab.redis_socket), ready=True))
        return (latency_rows("record set to NETCONF notification",
                             loop_samples(lab, probe, bare, rounds), limit=("max", 6)) +
                latency_rows("edit-config to ok", edit_samples(probe, bare, rounds * PORTS)))


def wake_ups(pid):
    """How often the threads of a process have gone to sleep by themselves, and so have woken up."""
    return sum(int(line.split()[1])
               for task in pathlib.Path(f"/proc/{pid}/task").iterdir()
               for line in (task / "status").read_text().splitlines()
               if line.startswith("voluntary_ctxt_switches:"))


def measure_sessions(lab, seconds):
    """Subscribed sessions that nothing happens to. The worst of them counts."""
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
        return (measure_latency(lab, 1 if options.quick else 10) +
                measure_sessions(lab, 5 if options.quick else 25))
