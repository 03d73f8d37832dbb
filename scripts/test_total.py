"""Adds up JUnit result files and prints "N passed, N failed, N skipped" as the last line.

Before it come the skipped tests with their reasons and the failed ones with the end of their output.
Exit status 1 when a test failed or none ran."""

import re
import sys
import xml.etree.ElementTree as ET

LINES_OF_A_FAILURE = 40


def outcome(case):
    """The result of one <testcase>: "passed", "failed" or "skipped"."""
    if case.find("failure") is not None or case.find("error") is not None:
        return "failed"
    if case.get("status") == "fail":
        return "failed"
    if case.find("skipped") is not None or case.get("status") in ("notrun", "disabled"):
        return "skipped"
    return "passed"


def reason(case):
    """The reason that a test gave for being skipped; empty when it gave none."""
    said = re.search(r": Skipped\n(.*)", case.findtext("system-out") or "")
    if said:
        return said.group(1)
    skipped = case.find("skipped")
    return skipped.get("message", "") if skipped is not None else ""


def last_words(case):
    """The end of a failed test's output and of the report on it, as indented lines."""
    words = []
    for kind in ("system-out", "system-err", "failure", "error"):
        part = case.find(kind)
        if part is not None:
            text = part.text or part.get("message", "")
            words += text.strip().splitlines()[-LINES_OF_A_FAILURE:]
    return "".join(f"    {line}\n" for line in words)


def main(paths):
    count = {"passed": 0, "failed": 0, "skipped": 0}
    failures = ""
    for path in paths:
        for case in ET.parse(path).getroot().iter("testcase"):
            result = outcome(case)
            count[result] += 1
            if result == "skipped":
                print(f"skipped: {case.get('name')} {reason(case)}".rstrip())
            if result == "failed":
                failures += f"failed: {path}: {case.get('name')}\n{last_words(case)}"
    print(failures, end="")
    print("{passed} passed, {failed} failed, {skipped} skipped".format(**count))
    return 1 if count["failed"] or not count["passed"] else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
