"""Runs clang-tidy over the product's own sources, two at a time, and remembers clean files.

usage: lint_tidy.py BUILD_DIR   (with compile_commands.json; generated headers already built)

A clean result is kept as BUILD_DIR/tidy/<name>.json: the list of our own and generated files the
translation unit reads, and one digest over their texts, the compile command, the rules and the tool.
A file is checked again exactly when that digest changes. Findings are never kept.
"""

import concurrent.futures
import hashlib
import json
import os
import re
import shlex
import subprocess
import sys

TOOL = "clang-tidy-14"
CHECKED = ("app/src/", "platform/", "services/", "tools/")
EXTRA_ARGS = ["-Wthread-safety", "-Wreserved-identifier", "-Wreserved-macro-identifier",
              "-Wno-unknown-warning-option"]
WORKERS = 2


def digest_of(paths, *texts):
    """Digest over texts and file contents; None when one of the files is gone."""
    digest = hashlib.sha256("\0".join(texts).encode())
    for path in paths:
        try:
            with open(path, "rb") as source:
                digest.update(path.encode() + b"\0" + hashlib.sha256(source.read()).digest())
        except FileNotFoundError:
            return None
    return digest.hexdigest()


def dependencies(entry):
    """Every file outside the system directories that this translation unit reads."""
    command = shlex.split(entry["command"])
    while command and not re.search(r"(clang|g)\+\+|c\+\+", os.path.basename(command[0])):
        command.pop(0)  # a compiler launcher
    if "-o" in command:
        at = command.index("-o")
        del command[at:at + 2]
    rule = subprocess.run(command + ["-MM", "-MT", "unit"], cwd=entry["directory"],
                          capture_output=True, text=True, check=True).stdout
    names = rule.split(":", 1)[1].replace("\\\n", " ").split()
    return sorted({os.path.normpath(os.path.join(entry["directory"], n)) for n in names})


class Checker:
    def __init__(self, build, root):
        self.build = build
        self.cache = os.path.join(build, "tidy")
        os.makedirs(self.cache, exist_ok=True)
        version = subprocess.run([TOOL, "--version"], capture_output=True, text=True,
                                 check=True).stdout
        self.common = version + " ".join(EXTRA_ARGS)
        for folder in ("", "app/src"):
            path = os.path.join(root, folder, ".clang-tidy")
            if os.path.exists(path):
                with open(path, encoding="utf-8") as rules:
                    self.common += rules.read()

    def remembered_clean(self, stamp, entry):
        try:
            with open(stamp, encoding="utf-8") as source:
                kept = json.load(source)
        except (FileNotFoundError, json.JSONDecodeError):
            return False
        return kept["digest"] == digest_of(kept["files"], self.common, entry["command"])

    def check(self, name, entry):
        """Returns None for a clean file that was remembered, otherwise (clean, output)."""
        stamp = os.path.join(self.cache, name.replace("/", "__") + ".json")
        if self.remembered_clean(stamp, entry):
            return None
        # Taken before the run: an edit meanwhile makes the stamp stale instead of wrong.
        try:
            files = dependencies(entry)
        except subprocess.CalledProcessError as error:
            return False, error.stderr
        digest = digest_of(files, self.common, entry["command"])
        result = subprocess.run(
            [TOOL, "-p", self.build, "--quiet", *[f"--extra-arg={a}" for a in EXTRA_ARGS],
             entry["file"]], capture_output=True, text=True, check=False)
        if result.returncode != 0:
            return False, result.stdout + result.stderr
        with open(stamp, "w", encoding="utf-8") as target:
            json.dump({"digest": digest, "files": files}, target)
        return True, ""


def main():
    build = os.path.abspath(sys.argv[1])
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    with open(os.path.join(build, "compile_commands.json"), encoding="utf-8") as source:
        entries = json.load(source)
    units = {}
    for entry in entries:
        name = os.path.relpath(os.path.join(entry["directory"], entry["file"]), root)
        if name.startswith(CHECKED) and name.endswith(".cpp"):
            units[name] = entry
    if not units:
        print("no translation unit of ours in the compile database")
        return 1

    checker = Checker(build, root)
    with concurrent.futures.ThreadPoolExecutor(WORKERS) as pool:
        results = dict(zip(units, pool.map(lambda item: checker.check(*item), units.items())))
    for name, result in results.items():
        if result is not None and not result[0]:
            print(f"--- {name}\n{result[1]}")
    remembered = sum(r is None for r in results.values())
    bad = sum(r is not None and not r[0] for r in results.values())
    print(f"{len(units)} files, {remembered} unchanged, {bad} with findings")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
