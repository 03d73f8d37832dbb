"""Checks rules of the tree that a compiler does not: include directions, file sizes, words.

Prints one line per finding (path:line: text) and a summary; exit status 1 when there are findings.
Looks only at files that git tracks, so unfinished new files are left alone.
"""

import posixpath
import re
import subprocess
import sys

MAX_LINES = 700
CODE = (".cpp", ".h", ".py", ".proto", ".sh", "CMakeLists.txt", ".cmake")
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')
# The bracketed first letters keep this file from finding itself.
WORDS = re.compile(r"\b([T]ODO|[F]IXME|[X]XX|[H]ACK)\b|[n]ot implemented", re.IGNORECASE)

INCLUDE_ROOTS = ("", "platform/include", "app/src")
STANDARD_C = set("""assert.h complex.h ctype.h errno.h fenv.h float.h inttypes.h limits.h locale.h
    math.h setjmp.h signal.h stdalign.h stdarg.h stdbool.h stddef.h stdint.h stdio.h stdlib.h
    string.h strings.h time.h wchar.h wctype.h""".split())
AGENT_SYSTEM = STANDARD_C | {"pthread.h", "sys/prctl.h", "unistd.h"}

BASE, QV, CLIENT = "platform/base", "platform/include/qv", "platform/client"
DRIVER, EMBEDDED, LINUX = "platform/driver", "platform/driver/embedded", "platform/driver/linux"
CLI, ROOT, RECORDS = "platform/cli", "platform/root", "generated records"
# Drivers use only the numbers in these headers of the client API; the calls belong to the layers
# above.
QV_CONSTANTS = {QV + "/bridge.h", QV + "/lsm.h"}
# The includes that the files of a folder may have besides files of the same folder: folders, single
# files and the generated records. A folder that is not listed may include nothing.
ALLOWED = {
    "app/src": {QV, RECORDS},  # and no system header but AGENT_SYSTEM
    BASE: set(),
    QV: set(),
    DRIVER: {BASE},
    EMBEDDED: {BASE, DRIVER, CLI, QV + "/cli.h"} | QV_CONSTANTS,
    LINUX: {BASE, DRIVER} | QV_CONSTANTS,
    CLIENT: {BASE, QV, DRIVER, RECORDS},
    CLI: {BASE, QV, CLIENT},
    ROOT: {BASE, QV, DRIVER, EMBEDDED, LINUX, CLIENT, CLI, RECORDS},
    "services/netconf": {BASE, RECORDS},
    "services/tarnd": {BASE, QV, CLIENT, LINUX, RECORDS},
    "services/fleet": {BASE, QV, CLIENT, LINUX, RECORDS},
    "tools": {BASE, RECORDS},
}


def folder_of(path):
    """The folder a file of the tree belongs to, as ALLOWED names it, or None."""
    folder = posixpath.dirname(path)
    while folder and folder not in ALLOWED:
        folder = posixpath.dirname(folder)
    return folder or None


def allowed(path, target):
    """Whether the file `path` may include `target`, a file of the tree or RECORDS."""
    folder = folder_of(path)
    if folder == "tools" and target.startswith("tools/"):  # each tool is a folder of its own
        return posixpath.dirname(path) == posixpath.dirname(target)
    return (folder is not None and folder == folder_of(target)
            or bool({target, folder_of(target)} & ALLOWED.get(folder, set())))


def tracked_files():
    names = subprocess.run(["git", "ls-files", "-z"], check=True, capture_output=True).stdout
    return [n for n in names.decode().split("\0") if n]


def read_lines(path):
    try:
        with open(path, encoding="utf-8") as source:
            return source.read().splitlines()
    except FileNotFoundError:  # deleted, but not committed yet
        return []


class Tree:
    def __init__(self, files):
        self.files = set(files)
        self.findings = []

    def report(self, path, line, text):
        self.findings.append(f"{path}:{line}: {text}")

    def resolve(self, path, name, quoted):
        """The tracked file an include means, or None for a system or generated header."""
        roots = ([posixpath.dirname(path)] if quoted else []) + list(INCLUDE_ROOTS)
        for root in roots:
            candidate = posixpath.normpath(posixpath.join(root, name))
            if candidate in self.files:
                return candidate
        return None

    def check_system_include(self, path, number, name):
        standard = name in STANDARD_C or re.fullmatch(r"[a-z_]+", name)
        if path.startswith("app/src/") and not (
                standard or name in AGENT_SYSTEM or name.startswith("safeclib/")):
            self.report(path, number, f"the agent must not include {name}")
        elif path.startswith(QV + "/") and not (standard or name.startswith("protobuf-c/")):
            self.report(path, number, f"a client header must not include {name}")

    def check_includes(self, path, lines):
        for number, line in enumerate(lines, 1):
            match = INCLUDE.match(line)
            if not match:
                continue
            name = match.group(2)
            target = self.resolve(path, name, match.group(1) == '"')
            if name.endswith(".pb-c.h"):
                target = RECORDS
            if target is None:
                self.check_system_include(path, number, name)
            elif not allowed(path, target):
                self.report(path, number, f"{folder_of(path) or 'this folder'} must not include "
                                          + (target if target != RECORDS else f"record {name}"))

    def check_safeclib(self, sources):
        users = [p for p, lines in sources.items() if p.startswith("app/src/")
                 and any(re.match(r"\s*#\s*include\s*<safeclib/", line) for line in lines)]
        for path in users if len(users) > 1 else []:
            self.report(path, 1, f"safeclib is wrapped once, but {len(users)} files include it")

    def check_text(self, path, lines):
        if len(lines) >= MAX_LINES:
            self.report(path, len(lines), f"{len(lines)} lines, keep files under {MAX_LINES}")
        for number, line in enumerate(lines, 1):
            word = WORDS.search(line)
            if word:
                self.report(path, number, f"unfinished work is not committed: '{word.group(0)}'")


def main():
    files = tracked_files()
    tree = Tree(files)
    code = [f for f in files if f.endswith(CODE) or re.fullmatch(r"scripts/[^.]+", f)]
    sources = {path: read_lines(path) for path in code}
    for path, lines in sources.items():
        tree.check_text(path, lines)
        if path.endswith((".cpp", ".h")) and path.startswith(
                ("app/src/", "platform/", "services/", "tools/")):
            tree.check_includes(path, lines)
    tree.check_safeclib(sources)
    for finding in tree.findings:
        print(finding)
    print(f"{len(code)} files" + (f", {len(tree.findings)} findings" if tree.findings else ""))
    return 1 if tree.findings else 0


if __name__ == "__main__":
    sys.exit(main())
