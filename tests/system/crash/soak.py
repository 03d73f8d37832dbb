"""A long day of the agent and tarnd on a real bridge: reports, link flaps and loops, with the memory that they take.

    soak.py --rounds 1000

A round is 1,000 reports of the probe protocol for two ports, ten flaps of a link, and a real loop that is shut and
brought back. After the warm-up neither process may have more memory of its own or more descriptors than then, but
for what an allocator keeps back: the exit status is 1 when one has.
"""

import argparse
import contextlib
import os
import pathlib
import re
import sys

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parents[1] / "support")]

from lab import APP_DB, p_bridge, wait_for  # noqa: E402  (the path comes first)
from tarn_lab import TarnLab  # noqa: E402
from tarn_loops import Reflection  # noqa: E402

REPORTS = 1000
FLAPS = 10
ALLOWED_KB = 256  # for pages that the allocator keeps


def private_kb(pid):
    """Memory that only this process uses."""
    rollup = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text()
    return sum(int(kb) for kb in re.findall(r"^Private_(?:Clean|Dirty): +(\d+)", rollup, re.MULTILINE))


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def report(lab, ports):
    """Loops of the ports that are reported and withdrawn in turn; the last reports withdraw them."""
    indexes = [lab.ifindex(port) for port in ports]
    with lab.database(APP_DB).pipeline(transaction=False) as pipe:
        for number in range(REPORTS):
            index = indexes[number % 2]
            record = p_bridge.tarn_loop_info(vid=1, is_loop=(number // 2 + 1) % 2, src_ifx=index)
            record.index.ifx = index
            packed = record.SerializeToString()
            pipe.set(f"p_bridge.tarn_loop_info/ifx={index}", packed)
            pipe.publish(f"mom/{APP_DB}/p_bridge.tarn_loop_info", b"\x00" + packed)
        pipe.execute()


def flap(lab, port):
    for _ in range(FLAPS):
        lab.ip("link", "set", f"{port}-far", "down")
        lab.ip("link", "set", f"{port}-far", "up")


def loop_once(lab, loop):
    loop.plug()
    wait_for(lambda: not lab.is_up(loop.ports[0]), 20, "the looped port is shut")
    loop.unplug()

    def back():
        lab.cli("clear errdisable all")
        return lab.down_ports() == []
    wait_for(back, 20, "all ports are back", every=0.1)


@contextlib.contextmanager
def soaked():
    with TarnLab() as lab:
        lab.start_tarnd()
        lab.configure("loop-detect enable shutdown access-mode", "tarn probe-interval 100")
        with Reflection(lab) as loop:
            yield lab, loop


def play(rounds, warm_up, tell=print):
    """Returns what has grown since the warm-up, as texts."""
    with soaked() as (lab, loop):
        processes = {"lda": lab.agent.pid, "tarnd": lab.tarnd.pid}
        before = {}
        for number in range(1, rounds + 1):
            report(lab, ("swp3", "swp4"))
            flap(lab, "swp2")
            loop_once(lab, loop)
            now = {name: (private_kb(pid), descriptors(pid)) for name, pid in processes.items()}
            if number == warm_up:
                before = now
            if number == warm_up or number % 50 == 0:
                tell(f"{number} rounds: " + ", ".join(
                    f"{name} {kb} kB, {files} descriptors" for name, (kb, files) in now.items()), flush=True)
    return [f"{name}: {before[name]} and then {now[name]}" for name in processes
            if now[name][0] > before[name][0] + ALLOWED_KB or now[name][1] > before[name][1]]


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rounds", type=int, default=1000)
    parser.add_argument("--warm-up", type=int, default=300, help="the history of loops is full after 250 rounds")
    options = parser.parse_args()
    if not 0 < options.warm_up < options.rounds:
        parser.error("the warm-up ends before the last round")
    grown = play(options.rounds, options.warm_up)
    print("grown: " + ("; ".join(grown) or "nothing"))
    return 1 if grown else 0


if __name__ == "__main__":
    sys.exit(main())
