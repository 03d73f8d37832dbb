"""tarnctl: with a scripted service at its socket, and with a real tarnd and a real loop."""

import json
import os
import re
import signal
import socket
import stat
import subprocess
import threading

import pytest

from lab import APP_DB, BUILD, p_bridge, wait_for
from tarn_lab import TarnLab

TARNCTL = str(BUILD / "tools" / "tarnctl" / "tarnctl")
ENVIRONMENT = {name: value for name, value in os.environ.items() if name != "LDA_PLATFORM"}

USAGE = """\
usage: tarnctl [-s SOCKET] [--json] COMMAND

  show [PORT]  state, role and guard of each port, and its last loop
  counters     what has been sent, found and ignored since tarnd began
  watch        loops and cuts as they happen, until it is interrupted
  probe PORT   sends one probe now and says what comes back within a second

  -s SOCKET    control socket of tarnd; else "control" in the folder [tarn] state
               of the platform file that LDA_PLATFORM names
  --json       a JSON object for each line

Exit status: 0 done, 1 refused, 2 not reachable or wrong usage.
"""

LOOP = {"port": "swp2", "src_port": "swp1", "vid": 1, "src_vid": 1, "path_us": 41, "found_by": "move",
        "time": "2026-01-31T23:59:59Z"}
PORT_1 = {"port": "swp1", "index": 3, "state": "probing", "role": "trunk", "guard_ms": None, "loop": None}
PORT_2 = {"port": "swp2", "index": 4, "state": "looped", "role": "access", "guard_ms": 30, "loop": LOOP}


class Service:
    """Takes one request at a socket and sends a given answer, as lines or as bytes."""

    def __init__(self, folder, answer):
        self.path = f"{folder}/control"
        self.answer = answer if isinstance(answer, bytes) else "".join(
            json.dumps(line) + "\n" for line in answer).encode()
        self.request = None
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(self.path)
        self.listener.listen()
        self.listener.settimeout(20)
        self.thread = threading.Thread(target=self._serve)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.thread.join()
        self.listener.close()

    def _serve(self):
        client = self.listener.accept()[0]
        with client, client.makefile("rb") as lines:
            self.request = json.loads(lines.readline())
            client.sendall(self.answer)
            client.shutdown(socket.SHUT_WR)


def tarnctl(*arguments, environment=None):
    return subprocess.run([TARNCTL, *arguments], capture_output=True, text=True, check=False, timeout=30,
                          env=environment or ENVIRONMENT)


def ask(folder, answer, *arguments):
    """The request and the program's output with status 0."""
    with Service(folder, answer) as service:
        done = tarnctl("-s", service.path, *arguments)
    assert (done.returncode, done.stderr) == (0, "")
    return service.request, done.stdout


def test_ports_are_shown_as_a_table(tmp_path):
    request, output = ask(tmp_path, [PORT_1, PORT_2, {"done": True}], "show")
    assert request == {"do": "show"}
    assert output == (
        "Port             State     Role    Guard   Last loop (UTC)\n"
        "swp1             probing   trunk   -       -\n"
        "swp2             looped    access  30 ms   2026-01-31 23:59:59  swp1 -> swp2, VLAN 1, 41 us, by move\n")


def test_json_is_the_services_reply(tmp_path):
    request, output = ask(tmp_path, [PORT_2, {"done": True}], "--json", "show", "swp2")
    assert request == {"do": "show", "port": "swp2"}
    assert [json.loads(line) for line in output.splitlines()] == [PORT_2]


def test_each_counter_has_a_line(tmp_path):
    request, output = ask(tmp_path, [{"counters": {"sent": 12, "loops_move": 3}}, {"done": True}], "counters")
    assert request == {"do": "counters"}
    assert output == "sent             12\nloops move       3\n"


def test_probe_result_is_printed(tmp_path):
    request, output = ask(tmp_path, [{"returned": "swp2", "path_us": 38}, {"done": True}], "probe", "swp1")
    assert request == {"do": "probe", "port": "swp1"}
    assert output == "back on swp2 after 38 us\n"


def test_lost_probe_is_printed_as_an_answer(tmp_path):
    assert ask(tmp_path, [{"done": True}], "probe", "swp1")[1] == "nothing came back\n"


def test_each_event_has_a_line_until_the_service_ends(tmp_path):
    time = "2026-01-31T23:59:59Z"
    events = [{"event": "loop", **LOOP}, {"event": "cut", "port": "swp2", "time": time},
              {"event": "cut-failed", "port": "swp2", "reason": "No such device", "time": time},
              {"event": "given-back", "port": "swp2", "reason": None, "time": time},
              {"event": "end", "port": "swp2", "src_port": "swp1", "vid": 9, "src_vid": 7, "time": time}]
    with Service(tmp_path, [{"watching": True}, *events]) as service:
        done = tarnctl("-s", service.path, "watch")
    assert done.stdout == (
        "2026-01-31 23:59:59  loop        swp1 -> swp2, VLAN 1, 41 us, by move\n"
        "2026-01-31 23:59:59  cut         swp2\n"
        "2026-01-31 23:59:59  cut-failed  swp2: No such device\n"
        "2026-01-31 23:59:59  given-back  swp2\n"
        "2026-01-31 23:59:59  end         swp1 -> swp2, VLAN 7 -> 9\n")
    assert (done.returncode, done.stderr) == (2, "tarnctl: the connection to tarnd is lost\n")


def test_refusal_exits_with_1(tmp_path):
    with Service(tmp_path, [{"error": "swp9: the port is not in the bridge"}]) as service:
        done = tarnctl("-s", service.path, "probe", "swp9")
    assert (done.returncode, done.stdout, done.stderr) == (1, "", "tarnctl: swp9: the port is not in the bridge\n")


@pytest.mark.parametrize("answer", [b"", b"{\"state\"", b"17\n", b"\xff\xfe\n", b"[]\n", b"\n"])
def test_invalid_answer_exits_with_2(tmp_path, answer):
    with Service(tmp_path, answer) as service:
        done = tarnctl("-s", service.path, "show")
    assert (done.returncode, done.stderr) == (2, "tarnctl: the connection to tarnd is lost\n")


def test_fields_of_unexpected_types_are_tolerated(tmp_path):
    odd = {"port": 7, "state": ["x"], "role": None, "guard_ms": "x", "loop": {"time": 5}}
    assert ask(tmp_path, [odd, {"done": True}], "show")[1].splitlines()[1] == (
        '7                ["x"]     -       x ms    5  - -> -, VLAN -, - us, by -')


def test_usage_and_missing_service(tmp_path):
    done = tarnctl("--help")
    assert (done.returncode, done.stdout, done.stderr) == (0, USAGE, "")
    for wrong in ([], ["shwo"], ["probe"], ["show", "swp1", "swp2"], ["counters", "swp1"], ["watch", "x"]):
        done = tarnctl(*wrong)
        assert (done.returncode, done.stdout, done.stderr) == (2, "", USAGE), wrong
    platform = tmp_path / "lda.toml"
    platform.write_text(f'[tarn]\nstate = "{tmp_path}/nowhere"\n')
    done = tarnctl("show", environment={**ENVIRONMENT, "LDA_PLATFORM": str(platform)})
    assert (done.returncode, done.stderr) == (
        2, f"tarnctl: cannot reach tarnd at {tmp_path}/nowhere/control: No such file or directory\n")


# ---- a real service ----


@pytest.fixture
def lab(kernel_ports):
    with TarnLab(ports=3) as the_lab:
        yield the_lab


def inside(lab, *arguments):
    return subprocess.run(["ip", "netns", "exec", lab.namespace, TARNCTL, *arguments], env=lab.environment(),
                          capture_output=True, text=True, check=False, timeout=30)


def states(lab):
    ports = [json.loads(line) for line in inside(lab, "--json", "show").stdout.splitlines()]
    return {port["port"]: port["state"] for port in ports}


def test_a_real_loop_is_shown_watched_and_probed(lab):
    lab.start_tarnd()
    wait_for(lambda: states(lab) == {"swp1": "off", "swp2": "off", "swp3": "off"}, 10, "nothing is watched yet")
    refused = inside(lab, "probe", "swp1")
    assert (refused.returncode, refused.stderr) == (1, "tarnctl: swp1: loop detection is off on the port\n")
    lab.enable()
    wait_for(lambda: set(states(lab).values()) == {"probing"}, 10, "every port is probed")
    assert stat.S_IMODE((lab.folder / "tarn" / "control").stat().st_mode) == 0o600
    assert inside(lab, "probe", "swp3").stdout == "nothing came back\n"
    watch = subprocess.Popen(["ip", "netns", "exec", lab.namespace, TARNCTL, "watch"], env=lab.environment(),
                             stdout=subprocess.PIPE, text=True)
    try:
        with lab.slow_outside("swp1", "swp2"):
            wait_for(lambda: set(states(lab).values()) == {"probing"}, 10, "every port is probed again")
            lab.plug("swp1")
            lab.plug("swp2")
            assert re.search(r"  loop        swp[12] -> swp[12], VLAN 1, \d+ us, by \w+$", watch.stdout.readline())
            wait_for(lambda: states(lab) == {"swp1": "looped", "swp2": "looped", "swp3": "probing"}, 10, "looped")
            # The path is slow and may be full, so a probe may be lost.
            wait_for(lambda: re.fullmatch(r"back on swp2 after \d+ us\n", inside(lab, "probe", "swp1").stdout), 20,
                     "a probe comes back")
            lab.unplug("swp2")
            wait_for(lambda: set(states(lab).values()) == {"probing"}, 20, "the loop has ended")
    finally:
        watch.send_signal(signal.SIGTERM)
        watch.communicate()
    counters = json.loads(inside(lab, "--json", "counters").stdout)["counters"]
    assert counters["sent"] > 0 and counters["returned"] > 0
    assert sum(counters[f"loops_{kind}"] for kind in ("period", "move", "carrier", "overrun")) >= 1
    assert counters["cuts"] == 0


def port_records(lab):
    """The records of the ports, by name."""
    database = lab.database(APP_DB)
    names = {link["ifindex"]: link["ifname"] for link in json.loads(lab.ip("-j", "link", "show"))}
    records = [p_bridge.tarn_port_state.FromString(database.get(key))
               for key in database.keys("p_bridge.tarn_port_state/*")]
    return {names.get(record.index.ifx, record.index.ifx): record for record in records}


def record_states(lab):
    return {name: p_bridge.tarn_state.Name(record.state).lower() for name, record in port_records(lab).items()}


def shown(lab, *words):
    """Rows of "show tarn", by port."""
    rows = json.loads(lab.cli(" ".join(["show tarn", *words, "| json"])))
    return {row["port"]: row for row in rows}


def test_records_and_show_tarn_follow_the_ports(lab):
    stranger = p_bridge.tarn_port_state(state=p_bridge.LOOPED)
    stranger.index.ifx = 4000001
    lab.set_record(APP_DB, "p_bridge.tarn_port_state", "ifx=4000001", stranger)
    refused = lab.ldash("show tarn")
    assert (refused.returncode, refused.stdout) == (1, "% The loop-probe service tarnd is not running.\n")
    lab.start_tarnd()
    lab.enable()
    probing = {name: "probing" for name in lab.port_names}
    wait_for(lambda: record_states(lab) == probing, 10, "records of the ports, and none of a port that is not there")
    wait_for(lambda: {name: row["state"] for name, row in shown(lab).items()} == probing, 10, "the switch shows them")
    lab.configure("interface swp3", "tarn link-up guard 40", "switchport mode trunk")
    wait_for(lambda: port_records(lab)["swp3"].guard_ms == 40, 10, "the guard is on record")
    with lab.slow_outside("swp1", "swp2"):
        lab.plug("swp1")
        lab.plug("swp2")
        wait_for(lambda: record_states(lab) == {"swp1": "looped", "swp2": "looped", "swp3": "probing"}, 20, "looped")
        loop = port_records(lab)["swp1"].loop
        assert {loop.ifx, loop.src_ifx} == {lab.ifindex("swp1"), lab.ifindex("swp2")}
        assert loop.vid == 1 and loop.path_us > 0 and loop.time_ms > 1_700_000_000_000
        wait_for(lambda: shown(lab)["swp2"]["state"] == "looped", 10, "the switch shows the loop")
        row = shown(lab, "interface", "swp1")["swp1"]
        assert {row["src_port"], row["to_port"]} == {"swp1", "swp2"}
        assert (row["role"], row["guard_ms"], row["path_us"]) == ("access", None, loop.path_us)
    assert shown(lab)["swp3"]["role"] == "trunk" and shown(lab)["swp3"]["time"] is None
    counters = p_bridge.tarn_counters.FromString(lab.database(APP_DB).get("p_bridge.tarn_counters/"))
    assert counters.sent > 0 and counters.returned > 0

    lab.database(APP_DB).flushall()
    wait_for(lambda: len(record_states(lab)) == 3, 20, "what the database has lost is set again")
    lab.batch("link delete swp3")
    wait_for(lambda: set(record_states(lab)) == {"swp1", "swp2"}, 10, "a port that has left has no record")
    lab.end_tarnd(signal.SIGKILL)
    assert lab.ldash("show tarn").returncode == 1
