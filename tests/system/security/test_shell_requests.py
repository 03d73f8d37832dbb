"""Requests to the shell's socket, as programs send them."""

import contextlib
import json
import socket

from lab import Lab

LOCKED = {"output": '% This mode needs "enable" first.\n', "prompt": "lda> ", "result": -1}
BAD_INDEX = '% "ifx" is not a whole number from 0 to 4294967295.\n'


@contextlib.contextmanager
def session(lab):
    """Returns a function that sends one request and returns its reply."""
    with socket.socket(socket.AF_UNIX) as client:
        client.settimeout(20)
        client.connect(str(lab.cli_socket))
        lines = client.makefile("r")

        def ask(**request):
            client.sendall(json.dumps(request).encode() + b"\n")
            return json.loads(lines.readline())

        yield ask


def index_of(lab, port):
    shown = json.loads(lab.cli("show interfaces status | json"))
    return next(entry["index"] for entry in shown if entry["port"] == port)


def admin_of(lab, port):
    shown = json.loads(lab.cli("show interfaces status | json"))
    return next(entry["admin"] for entry in shown if entry["port"] == port)


def test_disable_is_a_barrier_for_lines_in_another_mode():
    with Lab() as lab:
        lab.start_agent()
        ifx = index_of(lab, "swp2")
        with session(lab) as ask:
            assert ask(exec="disable")["prompt"] == "lda> "
            assert ask(exec="shutdown", mode="interface", ifx=ifx) == LOCKED
            assert ask(exec="hostname other", mode="config") == LOCKED
            assert ask(exec="configure terminal", mode="exec")["result"] == -1
            assert ask(exec="enable", mode="exec")["prompt"] == "lda> "
            assert admin_of(lab, "swp2") == "up"
            assert ask(exec="enable")["prompt"] == "lda# "
            assert ask(exec="shutdown", mode="interface", ifx=ifx)["result"] == 0
            assert admin_of(lab, "swp2") == "down"


def test_index_beyond_32_bits_is_refused_and_hits_no_port():
    with Lab() as lab:
        lab.start_agent()
        ifx = index_of(lab, "swp2")
        with session(lab) as ask:
            for wrong in (-1, -(2**32) + ifx, 2**32 + ifx, 2**64 + ifx):
                reply = ask(exec="shutdown", mode="interface", ifx=wrong)
                assert (reply["output"], reply["result"]) == (BAD_INDEX, -1), wrong
        assert admin_of(lab, "swp2") == "up"
