"""The rows of the tables beside this file, each a case of its own; tables.txt explains how a row is written."""

import ast
import contextlib
import pathlib
import re
import string
import xml.etree.ElementTree as ET

import pytest
from netconf_lab import BASE, EVENT, MODEL, MONITORING, running_front

FOLDER = pathlib.Path(__file__).parent
NAMES = {
    "nc": f'xmlns="{BASE}"', "pnc": f'xmlns:nc="{BASE}"', "m": f'xmlns="{MODEL}"', "pm": f'xmlns:m="{MODEL}"',
    "e": f'xmlns="{EVENT}"', "mon": f'xmlns="{MONITORING}"', "pmon": f'xmlns:mon="{MONITORING}"',
    "held": 'xmlns="urn:qv:yang:qv-errdisable"', "streams": 'xmlns="urn:ietf:params:xml:ns:netmod:notification"',
    "wd": 'xmlns="urn:ietf:params:xml:ns:yang:ietf-netconf-with-defaults"',
    "run": "<target><running/></target>", "from": "<source><running/></source>", "base": BASE,
}
ERROR_PARTS = ["error-type", "error-tag", "error-severity", "error-app-tag", "error-path", "error-message", "error-info"]


class Row:
    def __init__(self, text):
        title, *lines = text.splitlines()
        self.section, _, self.name = title.partition(": ")
        self.steps = [re.fullmatch(r"\s+(\S+)(?: (.*))?", line).groups("") for line in lines]
        self.limit = next((text for verb, text in self.steps if verb == "limit"), None)

    def text_of(self, text):
        return string.Template(text).substitute(NAMES)


def rows():
    for table in sorted(FOLDER.glob("rfc*.txt")):
        text = "\n".join(line for line in table.read_text().splitlines() if not line.startswith("#"))
        yield from (Row(block) for block in re.split(r"\n\s*\n", text.strip()))


def local(tag):
    return tag.rpartition("}")[2]


def error_of(element):
    """An rpc-error in the words of the tables; checks the order of its parts."""
    parts = {local(part.tag): part for part in element}
    names = [local(part.tag) for part in element]
    assert names == sorted(names, key=ERROR_PARTS.index), names
    assert len(set(names)) == len(names), names
    assert parts["error-severity"].text == "error"
    words = ["error", parts["error-type"].text, parts["error-tag"].text]
    if "error-path" in parts:
        words.append(parts["error-path"].text)
    words += [f"{local(detail.tag)}={detail.text or ''}" for detail in parts.get("error-info", [])]
    return " ".join(words)


def compact(text):
    """XML with each namespace written one way, so that only the content counts."""
    return ET.canonicalize(f"<x>{text}</x>", rewrite_prefixes=True, strip_text=True)


class Player:
    """Plays rows on one session, with a second one for rows that need it."""

    def __init__(self, front):
        self.front = front
        self.session = None
        self.policy = None

    def open(self, hello=True):
        self.close()
        self.session = self.front.raw(hello=hello)
        return self.session

    def close(self):
        if self.session is not None:
            self.session.__exit__()
            self.session = None

    def set_policy(self, policy):
        if self.policy == policy:
            return
        operation = ' nc:operation="remove"' if policy == "0" else ""
        reply = self.session.rpc(
            f'<edit-config xmlns:nc="{BASE}">{NAMES["run"]}<config><loop-detect xmlns="{MODEL}">'
            f"<loop-policy{operation}>{policy}</loop-policy></loop-detect></config></edit-config>")
        assert "<ok/>" in reply, reply
        self.policy = policy

    def play(self, row):
        raw = any(verb in ("hello", "bytes") for verb, _ in row.steps)
        if raw or self.session is None or self.session.process.poll() is not None:
            self.open(hello=not raw)
        elif self.session.rest:
            self.open()
        if not raw:
            self.set_policy(next((text for verb, text in row.steps if verb == "policy"), "0"))
        if any("edit-config" in text or "copy-config" in text for _, text in row.steps):
            self.policy = None
        with contextlib.ExitStack() as others:
            self.others = others
            self.other = None
            self.reply = ""
            for verb, text in row.steps:
                self.step(verb, row.text_of(text) if verb not in ("policy", "limit") else text)
        fresh = raw or any("subscription" in text or "lock" in text for _, text in row.steps)
        if fresh:
            self.close()

    def second(self):
        if self.other is None:
            self.other = self.others.enter_context(self.front.raw())
        return self.other

    def step(self, verb, text):
        session = self.session
        text = text.replace("(own)", str(session.session_id))
        if "(other)" in text:
            text = text.replace("(other)", str(self.second().session_id))
        if verb == "rpc":
            self.reply = session.rpc(text)
        elif verb == "rpc2":
            self.reply = self.second().rpc(text)
        elif verb == "message":
            session.send(b"\n#%d\n%s\n##\n" % (len(text.encode()), text.encode()))
            self.reply = session.read()
        elif verb == "hello":
            session.send(f"<hello {NAMES['nc']}>{text}</hello>]]>]]>".encode())
        elif verb == "bytes":
            with contextlib.suppress(BrokenPipeError):
                session.send(ast.literal_eval(f"b'''{text}'''"))
        elif verb == "read":
            self.reply = session.read()
        elif verb == "read1.0":
            self.reply = session.message_of_the_first_version()
        elif verb == "greeting":
            self.reply = session.hello
        elif verb == "ends":
            assert session.process.wait(timeout=10) == int(text)
        elif verb not in ("policy", "limit"):
            self.check(verb, text)

    def check(self, verb, text):
        reply = self.reply
        if verb == "has":
            assert text in reply, reply
        elif verb == "lacks":
            assert text not in reply, reply
        elif verb == "gives":
            root = ET.fromstring(reply)
            inner = "".join(ET.tostring(child, encoding="unicode") for child in root)
            assert compact(inner) == compact(text), reply
        elif verb == "error":
            root = ET.fromstring(reply)
            assert [error_of(child) for child in root if local(child.tag) == "rpc-error"] == [f"error {text}"], reply
            assert len(root) == 1, reply
        else:
            raise AssertionError(f"no step is called {verb}")


@pytest.fixture(scope="module")
def player():
    with running_front(speed=60) as front:
        the_player = Player(front)
        yield the_player
        the_player.close()


@pytest.mark.parametrize("row", [pytest.param(row, id=f"{row.section}: {row.name}") for row in rows()])
def test_server_does_as_the_rfc_says(player, row):
    try:
        player.play(row)
    except BaseException:
        player.close()  # the next row begins anew
        player.policy = None
        raise
