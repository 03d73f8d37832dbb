"""Control characters in names, files and answers: a terminal, a log and the saved file get them as `\\x1b`."""

import json
import socket
import subprocess
import threading

import pytest

from lab import BUILD, Lab, wait_for

CLEAR = b"e\x1b[2J"  # clears a screen
NAMES = {CLEAR: "e\\x1b[2J", b"c\x9b2J": "c\\x9b2J", b"u\xc2\x9b2J": "u\\xc2\\x9b2J", b"d\x7f": "d\\x7f",
         "gr\u00fcn".encode(): "gr\u00fcn"}


def bare(output):
    """The text of `output`, which has no control characters but line ends and tabs."""
    text = output.decode()  # raises for a single byte of C1
    assert [c for c in text if (ord(c) < 0x20 and c not in "\n\t") or 0x7f <= ord(c) < 0xa0] == []
    return text


def typed(lab, *lines):
    command = [str(BUILD / "tools" / "ldash" / "ldash"), "-s", str(lab.cli_socket)]
    for line in lines:
        command += ["-c", line]
    done = subprocess.run(command, capture_output=True, check=False, timeout=60)
    bare(done.stderr)
    return bare(done.stdout)


def index_of(lab, name):
    folder = b"/sys/class/net/" + name + b"/ifindex"
    return int(subprocess.run(["ip", "netns", "exec", lab.namespace, "cat", folder], check=True,
                              capture_output=True).stdout)


def is_down(lab, name):
    shown = subprocess.run(["ip", "-n", lab.namespace, "link", "show", "dev", name], check=True,
                           capture_output=True).stdout
    return b",UP" not in shown and b"<UP" not in shown


@pytest.fixture
def lab(kernel_ports):
    with Lab(switch="linux", ports=1) as made:
        for number, name in enumerate(NAMES):
            for words in (["add", "name", name, "type", "veth", "peer", "name", f"far{number}"],
                          ["set", name, "master", "br0", "up"], ["set", f"far{number}", "up"]):
                subprocess.run(["ip", "-n", made.namespace, "link", *words], check=True)
        made.start_redis()
        made.start_agent()
        yield made


def test_names_of_ports_are_shown_saved_and_logged_without_control_characters(lab):
    status = typed(lab, "show interfaces status")
    for name in NAMES.values():
        assert name in status
    typed(lab, "configure terminal", "loop-detect enable shutdown access-mode")
    lab.report_loop(index_of(lab, CLEAR), True)
    wait_for(lambda: is_down(lab, CLEAR), 10, "the looped port is shut")
    wait_for(lambda: "interface e\\x1b[2J\n" in typed(lab, "show running-config"), 10, "it has a section")
    assert "e\\x1b[2J" in typed(lab, "show loop-detect")
    assert "Detected loop error on interface e\\x1b[2J." in typed(lab, "show logging")
    assert [entry.index.name for entry in lab.loop_entries().values()] == ["e\\x1b[2J"]
    wait_for(lambda: b"interface e\\x1b[2J\n" in lab.saved().encode(), 10, "it is saved")
    bare(lab.startup_config.read_bytes())
    for file in lab.folder.glob("*.log"):
        bare(file.read_bytes())

    lab.kill_agent()
    lab.start_agent()
    assert "loop-detect apply shutdown-port" in typed(lab, "show running-config interface e\\x1b[2J")


def test_saved_file_with_raw_names_and_lines_is_cleaned(lab):
    lab.kill_agent()
    lab.startup_config.write_bytes(b"interface e\x1b[2J\n switchport mode trunk\n!\n"
                                   b"interface gone\x9b\n switchport mode trunk\n tarn \x1b[2J\n!\nend\n")
    lab.start_agent()
    config = typed(lab, "show running-config")
    assert "interface e\\x1b[2J\n switchport mode trunk\n" in config
    assert '"tarn \\x1b[2J": % Line contains control characters.' in typed(lab, "show logging")
    typed(lab, "configure terminal", "tarn enable")
    wait_for(lambda: b"interface gone\\x9b\n switchport mode trunk\n" in lab.startup_config.read_bytes(), 10,
             "the section of the absent port is saved")
    bare(lab.startup_config.read_bytes())


def test_checked_file_is_reported_without_control_characters(lab):
    file = lab.folder / "bad\u009b.cfg"
    file.write_bytes(b"tarn \x1b[2J\ntarn \xc2\x9b\ntarn \x9b\nend\n")
    done = subprocess.run([str(BUILD / "tools" / "ldash" / "ldash"), "-s", str(lab.cli_socket), "--check", str(file)],
                          capture_output=True, check=False, timeout=60)
    name = f"{lab.folder}/bad\\xc2\\x9b.cfg"
    assert bare(done.stderr) == "".join(f"{name}:{line}: Line contains control characters.\n" for line in (1, 2, 3))
    assert done.returncode == 1


def answered(folder, answers, *command):
    """Runs a program against a server that sends `answers` (JSON texts) to the first request."""
    path = folder / "server"
    with socket.socket(socket.AF_UNIX) as server:
        server.bind(str(path))
        server.listen()

        def serve():
            connection, _ = server.accept()
            with connection:
                connection.recv(4096)
                connection.sendall("".join(answer + "\n" for answer in answers).encode())
                connection.recv(4096)

        thread = threading.Thread(target=serve, daemon=True)
        thread.start()
        done = subprocess.run([command[0], "-s", str(path), *command[1:]], capture_output=True, check=False, timeout=20)
        thread.join(10)
    path.unlink()
    return bare(done.stdout), bare(done.stderr)


EVIL = "\x1b]0;x\x07\x7f\u009b2J"
SHOWN = "\\x1b]0;x\\x07\\x7f\\xc2\\x9b2J"


def test_shell_shows_no_control_characters_of_a_switch(tmp_path):
    ldash = str(BUILD / "tools" / "ldash" / "ldash")
    reply = {"output": f"one\t{EVIL}\n", "prompt": EVIL, "result": 0}
    assert answered(tmp_path, [json.dumps(reply)], ldash, "-c", "x") == (f"one\t{SHOWN}\n", "")
    ended = {"output": f"% {EVIL}\n", "result": -1, "end": True}
    assert answered(tmp_path, [json.dumps(ended)], ldash, "-c", "x") == ("", f"ldash: {SHOWN}\n")


def test_tarnctl_shows_no_control_characters_of_the_service(tmp_path):
    tarnctl = str(BUILD / "tools" / "tarnctl" / "tarnctl")
    lines = [json.dumps({"port": EVIL, "state": EVIL}, ensure_ascii=False), json.dumps({"done": True})]
    shown, errors = answered(tmp_path, lines, tarnctl, "show")
    assert (shown.count(SHOWN), errors) == (2, "")
    shown, errors = answered(tmp_path, lines, tarnctl, "--json", "show")
    assert (json.loads(shown), errors) == ({"port": EVIL, "state": EVIL}, "")
    refused = [json.dumps({"error": EVIL}, ensure_ascii=False)]
    assert answered(tmp_path, refused, tarnctl, "probe", "swp1") == ("", f"tarnctl: {SHOWN}\n")


@pytest.mark.parametrize("program", ["platform/lda", "services/tarnd/tarnd"])
def test_wrong_words_of_a_command_line_are_repeated_without_control_characters(program):
    done = subprocess.run([str(BUILD / program), b"--\x1b[2J\x9b"], capture_output=True, check=False, timeout=20)
    assert "unknown argument '--\\x1b[2J\\x9b'" in bare(done.stderr)


def test_faults_of_a_platform_file_are_reported_without_control_characters(tmp_path):
    file = tmp_path / "bad\u009b\x1b.toml"
    file.write_bytes(b'switch = "embedded"\n"colour\\u009b" = 1\n')
    for command in ([str(BUILD / "platform" / "lda"), "--check", str(file)], [str(BUILD / "platform" / "lda")]):
        done = subprocess.run(command, env={"LDA_PLATFORM": str(file)}, capture_output=True, check=False, timeout=20)
        assert "bad\\xc2\\x9b\\x1b.toml:2: " in bare(done.stderr)
        assert done.returncode == 1
