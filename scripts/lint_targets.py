"""Checks which libraries and programs of the product link each other.

usage: lint_targets.py GRAPH.dot   (as `cmake --graphviz` writes it)

A target may link what its folder may include (lint_sources.py), so that no call can bypass the check of
includes. CMake itself has refused cycles by then. Prints one line per finding and a summary; exit status 1 when
there are findings.
"""

import re
import sys

import lint_sources as sources

EDGE = re.compile(r"// (\S+) -> (\S+)$")
FOLDERS = {
    "lda_app": "app/src",
    "qv_headers": sources.QV,
    "qv_base": sources.BASE,
    "qv_client": sources.CLIENT,
    "qv_cli": sources.CLI,
    "qv_embedded": sources.EMBEDDED,
    "qv_linux": sources.LINUX,
    "qv_root": sources.ROOT,
    "netconf": "services/netconf",
    "lda-netconf": "services/netconf",
    "tarn": "services/tarnd",
    "tarnd": "services/tarnd",
    "ldash": "tools",
    "tarnctl": "tools",
    "lda_proto": sources.RECORDS,
}


def main():
    with open(sys.argv[1], encoding="utf-8") as graph:
        edges = [match.groups() for match in map(EDGE.search, graph) if match]
    edges = [(a, b) for a, b in edges if a in FOLDERS and b in FOLDERS]
    # Every part of the platform has the include directory of the client API.
    bad = [(a, b) for a, b in edges if b != "qv_headers" and FOLDERS[a] != FOLDERS[b]
           and FOLDERS[b] not in sources.ALLOWED[FOLDERS[a]]]
    for a, b in bad:
        print(f"{a} must not link {b}")
    if not edges:
        print("no target of ours in the graph")
    print(f"{len(edges)} links" + (f", {len(bad)} findings" if bad else ""))
    return 1 if bad or not edges else 0


if __name__ == "__main__":
    sys.exit(main())
