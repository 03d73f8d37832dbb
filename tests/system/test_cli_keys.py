"""A real shell on a terminal with a real agent: TAB, "?", "^" and pages."""

import fcntl
import os
import pty
import select
import signal
import struct
import termios
import time

import pytest

from lab import BUILD, Lab


class Shell:
    """ldash on a pseudo-terminal."""

    def __init__(self, lab):
        self.child, self.screen = pty.fork()
        if self.child == 0:
            os.environ["TERM"] = "dumb"
            os.execv(BUILD / "tools/ldash/ldash", ["ldash", "-s", str(lab.cli_socket)])
        self.shown = ""
        self.until("# ")

    def until(self, text):
        """Everything shown up to and including `text`."""
        deadline = time.monotonic() + 60
        while text not in self.shown:
            ready, _, _ = select.select([self.screen], [], [], deadline - time.monotonic())
            assert ready, f"{text!r} was not shown: {self.shown!r}"
            self.shown += os.read(self.screen, 65536).decode()
        end = self.shown.index(text) + len(text)
        taken, self.shown = self.shown[:end], self.shown[end:]
        return taken

    def type(self, keys, text):
        os.write(self.screen, keys.encode())
        return self.until(text)

    def resize(self, rows, columns):
        fcntl.ioctl(self.screen, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def close(self):
        os.close(self.screen)
        os.kill(self.child, signal.SIGKILL)
        os.waitpid(self.child, 0)


@pytest.fixture
def lab():
    with Lab(ports=4) as the_lab:
        the_lab.start_agent()
        yield the_lab


@pytest.fixture
def shell(lab):
    the_shell = Shell(lab)
    yield the_shell
    the_shell.close()


def test_question_mark_after_a_partial_word_lists_its_completions(shell):
    assert "  show                    Show what the switch knows\r\n" in shell.type("sh?", "lda# sh")
    shell.type("\x15configure terminal\n", "lda(config)# ")
    shown = shell.type("loop-detect shutdown-recover-time 3?", "recover-time 3")
    shown += shell.until("recover-time 3")
    assert "  <90-1000000>            shutdown recover time, default: 300s\r\n" in shown


def test_tab_completes_lines_of_other_modes(shell):
    shell.type("configure terminal\n", "lda(config)# ")
    shell.type("interface swp2\n", "lda(config-if-swp2)# ")
    shell.type("do sho\tver\t", "show version ")
    assert "\r\nlda 0." in shell.type("\n", "lda(config-if-swp2)# ")
    shell.type("hostn\t", "hostname ")
    shell.type("edge-7\n", "edge-7(config)# ")


def test_marker_points_at_the_wrong_word(shell):
    shown = shell.type("show verzion\n", "'verzion'.\r\n")
    assert shown.endswith("\r\n" + " " * len("lda# show ") + "^\r\n% Unknown command: 'verzion'.\r\n")
    shell.until("lda# ")
    shown = shell.type("configure\n", "By commands\r\n")
    assert " " * len("lda# configure") + "^\r\n% Incomplete command.\r\n" in shown
    assert "  terminal                By commands\r\n" in shown


def test_long_output_pauses_after_each_page(shell):
    shell.resize(4, 80)
    page = shell.type("show interfaces status\n", "--More--").split("status\r\n")[-1]
    assert page.count("\r\n") == 3 and "swp2 " in page
    shown = shell.type("\r", "--More--")
    assert "swp3 " in shown and "swp4 " not in shown
    assert "swp4 " in shell.type(" ", "lda# ")
    shell.type("show interfaces status\n", "--More--")
    assert "swp" not in shell.type("q", "lda# ")
    shell.type("show version | count\n", "\n1\r\nlda# ")


def test_terminal_length_overrides_the_terminal_height(shell):
    shell.resize(4, 80)
    shell.type("terminal length 0\n", "lda# ")
    assert "--More--" not in shell.type("show interfaces status\n", "\r\nlda# ")
    shell.type("terminal length 2\n", "lda# ")
    assert "swp" not in shell.type("show interfaces status\n", "--More--")
    shell.type("q", "lda# ")
    shell.type("terminal no length\n", "lda# ")
    assert "swp2 " in shell.type("show interfaces status\n", "--More--")
    shell.type("q", "lda# ")


def test_users_and_history_show_the_lines_and_mode_of_the_shell(shell, lab):
    shell.type("configure terminal\n", "lda(config)# ")
    shell.type("frobnicate\n", "lda(config)# ")
    shown = shell.type("show users\n", "(config)# ")
    assert f" {shell.child} " in shown and "\r\n* " in shown
    history = shell.type("show history\n", "(config)# ")
    assert "\nconfigure terminal\r\nfrobnicate\r\nshow users\r\nshow history\r\n" in history
    others = [line.split() for line in lab.cli("show users").splitlines() if f" {shell.child} " in line]
    assert len(others) == 1 and "config" in others[0] and others[0][0] != "*"
