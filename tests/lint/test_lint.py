"""The lint refuses includes and links that the layers do not allow, tested on copies of a few files."""

import pathlib
import shutil
import subprocess
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
COPIED = [
    *(str(path.relative_to(ROOT)) for path in sorted((ROOT / "app/src").glob("*.*")) if path.suffix),
    *(str(path.relative_to(ROOT)) for path in sorted((ROOT / "platform/include/qv").iterdir())),
    "platform/base/event_loop.h", "platform/base/system_log.cpp",
    "platform/cli/engine.h", "platform/cli/port_commands.cpp",
    "platform/client/bridge.cpp", "platform/client/platform.h",
    "platform/driver/embedded/embedded_switch.h", "platform/driver/embedded/simulation_commands.cpp",
    "platform/driver/linux/rtnl_switch.cpp", "platform/driver/linux/rtnl_switch.h",
    "platform/driver/switch_driver.h",
    "platform/root/platform.cpp",
    "services/netconf/agent.cpp", "services/netconf/agent.h",
    "tools/ldash/connection.cpp", "tools/ldash/connection.h",
]


class Copy:
    """A tree of some of our files. Includes of other files count as system headers."""

    def __init__(self, folder):
        self.folder = folder
        for path in COPIED:
            (folder / path).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(ROOT / path, folder / path)
        subprocess.run(["git", "init", "-q"], cwd=folder, check=True)
        subprocess.run(["git", "add", "-A"], cwd=folder, check=True)

    def include(self, path, header):
        """Puts the include into line 1 of the file."""
        file = self.folder / path
        file.write_text(f"#include {header}\n" + file.read_text())

    def lint(self):
        """The lines that the lint prints, findings first, and its exit status."""
        result = subprocess.run([sys.executable, ROOT / "scripts/lint_sources.py"], cwd=self.folder,
                                capture_output=True, text=True, check=False)
        assert result.stderr == ""
        return result.stdout.splitlines(), result.returncode


@pytest.fixture(name="copy")
def fixture_copy(tmp_path):
    return Copy(tmp_path)


def test_unchanged_tree_passes(copy):
    assert copy.lint() == ([f"{len(COPIED)} files"], 0)


@pytest.mark.parametrize("path, header, finding", [
    ("platform/client/bridge.cpp", '"platform/driver/linux/rtnl_switch.h"',
     "platform/client must not include platform/driver/linux/rtnl_switch.h"),
    ("platform/driver/linux/rtnl_switch.cpp", '"platform/cli/engine.h"',
     "platform/driver/linux must not include platform/cli/engine.h"),
    ("platform/driver/switch_driver.h", '"platform/cli/engine.h"',
     "platform/driver must not include platform/cli/engine.h"),
    ("platform/driver/switch_driver.h", '"qv/bridge.h"',
     "platform/driver must not include platform/include/qv/bridge.h"),
    ("platform/driver/linux/rtnl_switch.cpp", '"platform/client/platform.h"',
     "platform/driver/linux must not include platform/client/platform.h"),
    ("platform/driver/linux/rtnl_switch.cpp", '"platform/driver/embedded/embedded_switch.h"',
     "platform/driver/linux must not include platform/driver/embedded/embedded_switch.h"),
    ("platform/driver/linux/rtnl_switch.cpp", '"qv/mom.h"',
     "platform/driver/linux must not include platform/include/qv/mom.h"),
    ("platform/driver/embedded/simulation_commands.cpp", '"platform/client/platform.h"',
     "platform/driver/embedded must not include platform/client/platform.h"),
    ("platform/cli/port_commands.cpp", '"platform/driver/switch_driver.h"',
     "platform/cli must not include platform/driver/switch_driver.h"),
    ("platform/base/system_log.cpp", "<qv/thread.h>",
     "platform/base must not include platform/include/qv/thread.h"),
    ("platform/base/system_log.cpp", '"../client/platform.h"',
     "platform/base must not include platform/client/platform.h"),
    ("platform/base/system_log.cpp", '"p_app.pb-c.h"',
     "platform/base must not include record p_app.pb-c.h"),
    ("platform/include/qv/bridge.h", '"platform/base/event_loop.h"',
     "platform/include/qv must not include platform/base/event_loop.h"),
    ("platform/include/qv/bridge.h", "<event2/event.h>",
     "a client header must not include event2/event.h"),
    ("platform/root/platform.cpp", '"app/src/lda_bridge.h"',
     "platform/root must not include app/src/lda_bridge.h"),
    ("app/src/lda_bridge.cpp", '"platform/base/event_loop.h"',
     "app/src must not include platform/base/event_loop.h"),
    ("app/src/lda_bridge.cpp", "<sys/socket.h>",
     "the agent must not include sys/socket.h"),
    ("services/netconf/agent.cpp", '"platform/client/platform.h"',
     "services/netconf must not include platform/client/platform.h"),
    ("tools/ldash/connection.cpp", '"services/netconf/agent.h"',
     "tools must not include services/netconf/agent.h"),
])
def test_include_against_the_layers_is_refused(copy, path, header, finding):
    copy.include(path, header)
    assert copy.lint() == ([f"{path}:1: {finding}", f"{len(COPIED)} files, 1 findings"], 1)


@pytest.mark.parametrize("path, header", [
    ("platform/client/bridge.cpp", '"platform/driver/switch_driver.h"'),
    ("platform/driver/embedded/simulation_commands.cpp", '"platform/cli/engine.h"'),
    ("platform/root/platform.cpp", '"platform/driver/linux/rtnl_switch.h"'),
    ("app/src/lda_bridge.cpp", "<qv/thread.h>"),
    ("services/netconf/agent.cpp", '"p_app.pb-c.h"'),
])
def test_include_along_the_layers_passes(copy, path, header):
    copy.include(path, header)
    assert copy.lint() == ([f"{len(COPIED)} files"], 0)


def test_folder_without_a_rule_cannot_include_project_files(copy):
    file = copy.folder / "services/other/main.cpp"
    file.parent.mkdir()
    file.write_text('#include "platform/base/event_loop.h"\n')
    subprocess.run(["git", "add", "-A"], cwd=copy.folder, check=True)
    assert copy.lint() == (
        ["services/other/main.cpp:1: this folder must not include platform/base/event_loop.h",
         f"{len(COPIED) + 1} files, 1 findings"], 1)


# The form in which CMake writes a graph.
GRAPH = """digraph "lda" {
    "node1" [ label = "qv_linux", shape = octagon ];
    "node1" -> "node2"  // qv_linux -> qv_base
    "node1" -> "node3" [ style = dotted ] // qv_linux -> PkgConfig::libnl
%s
}
"""


def lint_targets(folder, line):
    graph = folder / "targets.dot"
    graph.write_text(GRAPH % line)
    result = subprocess.run([sys.executable, ROOT / "scripts/lint_targets.py", graph],
                            capture_output=True, text=True, check=False)
    return result.stdout.splitlines(), result.returncode


def test_link_along_the_layers_passes(tmp_path):
    line = '    "node4" -> "node1" [ style = dotted ] // qv_root -> qv_linux'
    assert lint_targets(tmp_path, line) == (["2 links"], 0)


def test_link_against_the_layers_is_refused(tmp_path):
    line = '    "node1" -> "node5" [ style = dotted ] // qv_linux -> qv_client'
    assert lint_targets(tmp_path, line) == (
        ["qv_linux must not link qv_client", "2 links, 1 findings"], 1)


def test_cyclic_links_between_libraries_are_refused(tmp_path):
    first_lines = (ROOT / "CMakeLists.txt").read_text().split("set(LDA_SANITIZE")[0]
    (tmp_path / "empty.c").write_text("")
    (tmp_path / "CMakeLists.txt").write_text(
        first_lines + "add_library(below STATIC empty.c)\nadd_library(above STATIC empty.c)\n"
        "target_link_libraries(below above)\ntarget_link_libraries(above below)\n")
    result = subprocess.run(["cmake", "-S", tmp_path, "-B", tmp_path / "build"],
                            capture_output=True, text=True, check=False)
    assert "strongly connected component (cycle)" in result.stderr
    assert result.returncode == 1
