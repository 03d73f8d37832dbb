"""Shared by the groups of measurements: programs, rows, programs that answer lines."""

import pathlib
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "tests" / "support"))

from lab import BUILD, Lab, wait_for  # noqa: E402  (the path comes first)

PROGRAMS = BUILD / "bench"
TABLE_SIZE = 10  # ports in the loop state at a time


def say(text):
    print(f"[{time.strftime('%H:%M:%S')}] {text}", flush=True)


def percentile(values, part):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, round(part * (len(ordered) - 1)))]


def row(name, value, unit, floor=None, ratio=None, limit=None):
    """`limit` is a pair: "max" or "min", and the bound of the ratio, or of the value without one."""
    made = {"name": name, "value": value, "unit": unit}
    if floor is not None:
        made.update(floor=floor, ratio=value / floor if ratio is None else ratio)
    if limit:
        kind, bound = limit
        judged = made.get("ratio", value)
        made.update(limit=f"{kind} {bound}", kept=judged <= bound if kind == "max" else judged >= bound)
    return made


def memory_mb(pid, file="status", field="VmRSS:"):
    for line in pathlib.Path(f"/proc/{pid}/{file}").read_text().splitlines():
        if line.startswith(field):
            return int(line.split()[1]) / 1024
    raise RuntimeError(f"no {field} in {file}")


def cpu_ns(pid):
    """Processor time of all threads of a process."""
    return sum(int((task / "schedstat").read_text().split()[0])
               for task in pathlib.Path(f"/proc/{pid}/task").iterdir())


def rest(lab):
    """Waits until the agent has used less than 5 ms in half a second."""
    previous = float("-inf")
    while cpu_ns(lab.agent.pid) - previous > 5e6:
        previous = cpu_ns(lab.agent.pid)
        time.sleep(0.5)


class Lines:
    """A program that answers a line with a line."""

    def __init__(self, *command, ready=False):
        self.process = subprocess.Popen([str(word) for word in command], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)
        if ready:
            self.read()

    def read(self):
        line = self.process.stdout.readline()
        if not line:
            raise RuntimeError(f"{self.process.args[0]} has ended")
        return line.strip()

    def tell(self, text):
        self.process.stdin.write(f"{text}\n")
        self.process.stdin.flush()

    def ask(self, text):
        self.tell(text)
        return self.read()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()


class Bridge(Lab):
    """A Linux switch whose many ports have no traffic of their own."""

    def __init__(self, ports):
        super().__init__(switch="linux", ports=ports)

    def _make_bridge(self):
        subprocess.run(["ip", "netns", "add", self.namespace], check=True)
        for scope in ("all", "default"):
            self.inside("sh", "-c", f"echo 1 > /proc/sys/net/ipv6/conf/{scope}/disable_ipv6")
        self.batch("link add br0 type bridge", "link set br0 up",
                   *(line for name in self.port_names for line in self.port_lines(name)))


def in_namespace(lab, *command):
    return ["ip", "netns", "exec", lab.namespace, *command]


def fresh_policy(lab, policy, rest_s=1):
    """Clears all loops, which brings the ports up again, and waits until the switch is idle."""
    lab.configure("no loop-detect enable")
    wait_for(lambda: not lab.down_ports(), 20, "the ports are up")
    lab.configure(policy)
    time.sleep(rest_s)
