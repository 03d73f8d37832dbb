"""docs/cli.md and the command trees of a running agent: each knows every command of the other."""

import json
import pathlib
import re
import socket

import pytest

from lab import Lab

PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs/cli.md"
PATHS = {"exec": [], "config": ["configure terminal"], "interface": ["configure terminal", "interface swp1"]}
# Words that begin lines of another mode or form: those lines are checked there.
ELSEWHERE = {"exec": {"no"}, "config": {"no", "do", "show"}, "interface": {"no", "do", "show"}}


class Session:
    """A session in one mode, for reading its help."""

    def __init__(self, lab, mode):
        self.client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.client.connect(str(lab.cli_socket))
        self.client.settimeout(60)
        self.replies = self.client.makefile("rb")
        for line in PATHS[mode]:
            assert self.ask(exec=line)["result"] == 0

    def ask(self, **request):
        self.client.sendall(json.dumps(request).encode() + b"\n")
        return json.loads(self.replies.readline())

    def hints(self, line):
        words = [hint.split()[0] for hint in self.ask(help=line)["output"].splitlines()]
        # The names of the ports are listed beside the slot that they fill.
        return [word for word in words if not ("INTERFACE" in words and word.startswith("swp"))]

    def close(self):
        self.replies.close()
        self.client.close()


def sample(hint):
    """A word that fits the hint."""
    number = re.fullmatch(r"<(-?\d+)-\d+>", hint)
    return number[1] if number else "swp1" if hint.isupper() else hint


def takes_rest(session, line, hint):
    word = sample(hint)
    return hint.isupper() and session.hints(f"{line}{word} {word} {word} ") == [hint]


def crawl(session, line, shown, skipped=frozenset()):
    """All commands that begin with `line`, as the page would write them; `shown` is its form of the line so far."""
    commands = set()
    for hint in session.hints(line):
        if hint == "<cr>":
            commands.add(shown)
        elif hint not in skipped and hint != "|":  # filters have their own table
            more = f"{shown} {'WORD' if hint.isupper() else hint.strip('<>')}".strip()
            rest = takes_rest(session, line, hint)
            commands |= {more} if rest else crawl(session, f"{line}{sample(hint)} ", more)
    return commands


def expand(text):
    """The commands described by a text with optional parts."""
    optional = re.search(r" ?\[([^]]*)\]", text)
    if not optional:
        return {re.sub(r"\b[A-Z]+\b", "WORD", text.strip())}
    before, after = text[:optional.start()], text[optional.end():]
    return expand(before + after) | expand(before + optional[0].replace("[", "").replace("]", "") + after)


def documented():
    """The commands of each mode in the tables of the page."""
    commands = {mode: set() for mode in PATHS}
    text = PAGE.read_text().split("## Commands of the agent")[1].split("## Running and saved")[0]
    for row in re.findall(r"^\| (`.*) \|$", text, re.MULTILINE):
        cells = row.split(" | ")
        modes = cells[1].split(", ") if len(cells) == 3 else ["exec"]
        for mode in modes:
            for command in re.findall(r"`([^`]+)`", cells[0]):
                commands[mode] |= expand(command)
    return commands


def plain(commands):
    return {command for command in commands if not command.startswith(("no ", "default "))}


@pytest.fixture(scope="module")
def lab():
    with Lab(ports=2) as the_lab:
        the_lab.start_agent()
        yield the_lab


@pytest.fixture(params=PATHS)
def mode(request):
    return request.param


@pytest.fixture
def session(lab, mode):
    the_session = Session(lab, mode)
    yield the_session
    the_session.close()


def test_page_and_trees_have_the_same_commands(session, mode):
    known = crawl(session, "", "", ELSEWHERE[mode])
    if mode != "exec":
        known.add("do WORD")
    page = plain(documented()[mode])
    assert (sorted(page - known), sorted(known - page)) == ([], []), "only on the page, only in the trees"


def test_page_names_the_filters(session, mode):
    section = PAGE.read_text().split("## Filters")[1].split("`| json` prints")[0]
    filters = re.findall(r"^\| `(\w+).*` \|", section, re.MULTILINE)
    assert filters
    assert sorted(session.hints("show version | ")) == sorted(filters)


def test_page_documents_every_no_form_of_the_trees(session, mode):
    page = documented()[mode]
    forms = crawl(session, "no ", "no")
    assert forms
    # A form may end before the command's value.
    assert [form for form in sorted(forms) if not any(f"{line} ".startswith(f"{form} ") for line in page)] == []


def test_every_no_form_of_the_page_is_accepted(session, mode):
    for command in sorted(line for line in documented()[mode] if line.startswith("no ")):
        line = re.sub(r"\b(\d+)-\d+", r"\1", command).replace("WORD", "x1")
        reply = session.ask(exec=line)
        assert reply["result"] == 0, f"{line}: {reply['output']}"


def test_every_default_form_of_the_trees_belongs_to_a_command(session, mode):
    page = documented()[mode]
    forms = crawl(session, "default ", "default")
    plain_forms = {form: f"{form.removeprefix('default ')} " for form in forms - page}
    assert [form for form, start in plain_forms.items() if not any(f"{line} ".startswith(start) for line in page)] == []
