"""Every golden file is read by a test of a C++ source."""

import pathlib
import re

TESTS = pathlib.Path(__file__).resolve().parents[1]


def unused_golden_files(tests):
    """The files of `golden`, as tests name them, whose name no source of `tests` has in quotes."""
    golden = tests / "golden"
    files = {str(path.relative_to(golden).with_suffix("")) for path in golden.rglob("*") if path.is_file()}
    quoted = {name for source in tests.rglob("*.cpp") for name in re.findall(r'"([^"\n]+)"', source.read_text())}
    return sorted(files - quoted)


def test_every_golden_file_is_used():
    assert unused_golden_files(TESTS) == []


def test_unused_golden_file_is_found(tmp_path):
    for path, text in {"golden/loop/used.txt": "", "golden/loop/unused.txt": "", "golden/other/used.txt": "",
                       "unit/loop_test.cpp": '// unused.txt of loop/unused\nexpect_golden("loop/used", {});\n',
                       }.items():
        (tmp_path / path).parent.mkdir(parents=True, exist_ok=True)
        (tmp_path / path).write_text(text)
    assert unused_golden_files(tmp_path) == ["loop/unused", "other/used"]
