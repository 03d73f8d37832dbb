"""Measures the reaction to loops: how soon the interface is down, and how long other work waits meanwhile."""

import contextlib
import subprocess
import time

from common import PROGRAMS, TABLE_SIZE, Bridge, Lines, fresh_policy, in_namespace, percentile, rest, row, say
from lab import wait_for

ROUNDS = {10: 10, 512: 5, 1000: 5}  # by ports; a kernel bridge has at most 1,023
SIMULATED_PORTS = (48, 4096)
BURST_PORTS = 512
POLICY = "loop-detect enable shutdown access-mode"
SAVED_S = 0.7  # after a shutdown: the saved configuration is on the disk by then
WINDOW_MS = 100  # after a burst, for the wait of other work


def looping_ports(lab):
    """As many ports as the loop table holds, spread over the switch."""
    return lab.port_names[::len(lab.port_names) // TABLE_SIZE][:TABLE_SIZE]


# ---- Record set in Redis to kernel interface down ----

def sample(ours, bare, probes, rounds):
    """Nanoseconds of the agent and of the bare program, alternating."""
    agent_ns, bare_ns = [], []
    names = looping_ports(ours)
    indexes = [[lab.ifindex(name) for name in names] for lab in (ours, bare)]
    for number in range(rounds):
        say(f"reaction: {len(ours.port_names)} ports, round {number + 1} of {rounds}")
        fresh_policy(ours, POLICY, rest_s=0)
        rest(ours)
        bare.batch(*(f"link set {name} up" for name in names))
        for ours_ifx, bare_ifx in zip(*indexes):
            agent_ns.append(int(probes[0].ask(ours_ifx)))
            time.sleep(SAVED_S)
            bare_ns.append(int(probes[1].ask(bare_ifx)))
            time.sleep(0.1)
    return agent_ns, bare_ns


def measure_shutdown(options, ports):
    with contextlib.ExitStack() as stack:
        ours, bare = (stack.enter_context(Bridge(ports)) for _ in range(2))
        for lab in (ours, bare):
            lab.start_redis()
        ours.start_agent()
        stack.enter_context(Lines(*in_namespace(bare, PROGRAMS / "bare_shutdown", bare.redis_socket), ready=True))
        probes = [stack.enter_context(Lines(*in_namespace(lab, PROGRAMS / "shutdown_probe", lab.redis_socket)))
                  for lab in (ours, bare)]
        agent_ns, bare_ns = sample(ours, bare, probes, 1 if options.quick else ROUNDS[ports])
    return [row(f"record set to interface down, {ports} ports, {name}", percentile(agent_ns, part) / 1e3, "us",
                floor=percentile(bare_ns, part) / 1e3, limit=limit)
            for name, part, limit in (("p50", 0.5, ("max", 1.6)), ("p99", 0.99, None))]


def measure_simulated(options):
    """More ports than a kernel bridge can have. The floor is the same switch with few ports."""
    result = []
    for ports in SIMULATED_PORTS:
        say(f"reaction: simulated switch, {ports} ports")
        text = subprocess.run([str(PROGRAMS / "reaction_bench"), str(ports), "2" if options.quick else "5"],
                              check=True, capture_output=True, text=True).stdout
        p50 = percentile([int(took) for took in text.split()], 0.5) / 1e3
        few = result[0]["value"] if result else None
        result.append(row(f"report set to port down, simulated switch, {ports} ports, p50", p50, "us", floor=few,
                          limit=("max", 1.6) if few else None))
    return result


# ---- The wait of other work ----

def measure_burst(options):
    """Round trips of an operator's session while ten ports are shut at once."""
    waits, rounds = [], 3 if options.quick else 15
    with contextlib.ExitStack() as stack:
        lab = stack.enter_context(Bridge(BURST_PORTS))
        lab.start_redis()
        lab.start_agent()
        probe = stack.enter_context(Lines(PROGRAMS / "wait_probe", lab.cli_socket, ready=True))
        indexes = [lab.ifindex(name) for name in looping_ports(lab)]
        for number in range(rounds):
            say(f"reaction: burst {number + 1} of {rounds}")
            fresh_policy(lab, POLICY, rest_s=0)
            rest(lab)
            probe.tell(WINDOW_MS)
            lab.report_loops(indexes)
            waits += [int(wait) for wait in probe.read().split()]
            wait_for(lambda: len(lab.down_ports()) == TABLE_SIZE, 5, "the ports of the burst are down")
    return [row(f"wait of other work in a burst, {BURST_PORTS} ports, {name}", percentile(waits, part) / 1e6, "ms",
                limit=limit)
            for name, part, limit in (("p50", 0.5, None), ("p99", 0.99, ("max", 5)), ("longest", 1, None))]


def measure_reaction(options):
    result = []
    for ports in ROUNDS:
        result += measure_shutdown(options, ports)
    return result + measure_simulated(options) + measure_burst(options)
