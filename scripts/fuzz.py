"""Runs every fuzzer of build/asan for a bounded time over its seeds and writes a JUnit result file.

usage: python3 scripts/fuzz.py [--seconds N] [--jobs N] [--junit FILE] [NAME ...]

Each fuzzer runs with the same seed in its own folder, which is removed with it. Findings stay in
build/asan/findings. Exit status 1 when there are findings or no fuzzers."""

import argparse
import concurrent.futures
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time
import xml.etree.ElementTree as ET

ROOT = pathlib.Path(__file__).resolve().parents[1]
PROGRAMS = ROOT / "build" / "asan" / "tests" / "fuzz"
CORPUS = ROOT / "tests" / "fuzz" / "corpus"
FINDINGS = ROOT / "build" / "asan" / "findings"
SANITIZERS = {"ASAN_OPTIONS": "detect_leaks=1:abort_on_error=1", "UBSAN_OPTIONS": "print_stacktrace=1"}
GRACE_S = 60  # for a slow machine, beyond the time that the fuzzer gives itself


def run(name, seconds):
    """Runs one fuzzer; (name, seconds taken, runs made, output if it failed)."""
    folder = pathlib.Path(tempfile.mkdtemp(prefix=f"fuzz-{name}-"))
    seeds = folder / "seeds"
    shutil.copytree(CORPUS / name, seeds)
    command = [str(PROGRAMS / f"fuzz_{name}"), "-seed=1", f"-max_total_time={seconds}", "-timeout=10",
               "-max_len=4096", "-rss_limit_mb=2048", "-print_final_stats=1",
               f"-artifact_prefix={FINDINGS}/{name}-", str(seeds)]
    begin = time.monotonic()
    try:
        done = subprocess.run(command, cwd=folder, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              env={**os.environ, **SANITIZERS}, timeout=seconds + GRACE_S, check=False)
        output, good = done.stdout.decode(errors="replace"), done.returncode == 0
    except subprocess.TimeoutExpired as stuck:
        output, good = (stuck.stdout or b"").decode(errors="replace") + "\nstuck", False
    finally:
        shutil.rmtree(folder, ignore_errors=True)
    made = re.search(r"stat::number_of_executed_units: (\d+)", output)
    return name, time.monotonic() - begin, int(made.group(1)) if made else 0, "" if good else output


def write_junit(path, results):
    suite = ET.Element("testsuite", name="fuzz", tests=str(len(results)))
    for name, seconds, _, output in results:
        case = ET.SubElement(suite, "testcase", classname="fuzz", name=name, time=f"{seconds:.1f}")
        if output:
            ET.SubElement(case, "failure", message="finding").text = re.sub(r"[^\x20-\x7e\n]", "?", output[-20000:])
    ET.ElementTree(suite).write(path, encoding="unicode")


def main():
    arguments = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    arguments.add_argument("--seconds", type=int, default=5)
    arguments.add_argument("--jobs", type=int, default=os.cpu_count())
    arguments.add_argument("--junit", type=pathlib.Path)
    arguments.add_argument("names", nargs="*")
    chosen = arguments.parse_args()
    FINDINGS.mkdir(parents=True, exist_ok=True)
    names = chosen.names or sorted(folder.name for folder in CORPUS.iterdir())
    with concurrent.futures.ThreadPoolExecutor(chosen.jobs) as pool:
        results = list(pool.map(lambda name: run(name, chosen.seconds), names))
    for name, seconds, runs, output in results:
        print(f"{name:20} {runs:9} runs in {seconds:.0f} s{'  FOUND SOMETHING' if output else ''}")
        if output:
            print(output[-6000:])
    if chosen.junit:
        write_junit(chosen.junit, results)
    return 0 if results and not any(output for *_, output in results) else 1


if __name__ == "__main__":
    sys.exit(main())
