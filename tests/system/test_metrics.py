"""Metrics of a running agent, read by Prometheus and by clients that do it harm."""

import contextlib
import json
import pathlib
import re
import shutil
import socket
import subprocess
import time
import urllib.error
import urllib.request

import pytest

from lab import APP_DB, ROOT, Lab, wait_for

needs_promtool = pytest.mark.skipif(not shutil.which("promtool"), reason="promtool is not installed")


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def scrape(port, timeout=5):
    with urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics", timeout=timeout) as answer:
        return answer.read().decode()


def value(page, name):
    """The value of a metric, with its labels as the page shows them."""
    return float(re.search(rf"^{re.escape(name)} (\S+)$", page, re.M)[1])


@contextlib.contextmanager
def agent_with_metrics(**options):
    port = free_port()
    with Lab(**options) as lab:
        lab.write_platform_file(f'[metrics]\nlisten = "127.0.0.1:{port}"\n')
        if lab.store == "redis":
            lab.start_redis()
        lab.start_agent()
        lab.metrics_port = port
        yield lab


@pytest.fixture(scope="module")
def lab():
    with agent_with_metrics(store="redis") as the_lab:
        yield the_lab


def check_metrics(page):
    return subprocess.run(["promtool", "check", "metrics"], input=page, capture_output=True, text=True, check=False)


def names_of(page):
    return set(re.findall(r"^# TYPE (\w+) ", page, re.M))


def documented():
    """Name and type of each metric in the document."""
    rows = re.findall(r"^\| `(\w+)` \| (\w+) \|", (ROOT / "docs" / "metrics.md").read_text(), re.M)
    assert len(rows) == len(dict(rows)) > 10
    return dict(rows)


def test_loop_is_counted_and_measured(lab):
    lab.configure("loop-detect enable shutdown access-mode")
    before = scrape(lab.metrics_port)
    assert value(before, "lda_looped_ports") == 0
    lab.cli("test loop plug swp1 swp2")
    wait_for(lambda: value(scrape(lab.metrics_port), "lda_held_ports") == 2, 10, "both ports are held")
    page = scrape(lab.metrics_port)
    assert value(page, 'lda_loops_found_total{source="tarn"}') == 2
    assert value(page, 'lda_loops_found_total{source="storm"}') == 0
    assert value(page, "lda_shutdowns_total") == 2
    assert value(page, "lda_reaction_seconds_count") == 2
    assert 0 < value(page, "lda_reaction_seconds_sum") < 2
    assert value(page, "lda_loop_turn_seconds_count") > value(before, "lda_loop_turn_seconds_count")
    assert value(page, "lda_records_set_again_total") == 0
    wait_for(lambda: value(scrape(lab.metrics_port), "lda_config_saves_total") > 0, 5, "the configuration is saved")


def test_only_records_that_were_lost_count_as_set_again(lab):
    assert value(scrape(lab.metrics_port), "lda_records_set_again_total") == 0
    lab.database(APP_DB).delete("p_app.lda_loop_entry/name=swp1")
    wait_for(lambda: value(scrape(lab.metrics_port), "lda_records_set_again_total") > 0, 10, "the record is set again")
    assert len(lab.loop_entries()) == 2
    assert value(scrape(lab.metrics_port), "lda_records_set_again_total") == 1


def test_document_lists_every_metric(lab):
    page = scrape(lab.metrics_port)
    assert dict(re.findall(r"^# TYPE (\w+) (\w+)$", page, re.M)) == documented()


@needs_promtool
def test_promtool_accepts_the_page(lab):
    checked = check_metrics(scrape(lab.metrics_port))
    assert (checked.returncode, checked.stdout, checked.stderr) == (0, "", "")
    assert check_metrics("# TYPE bad_total gauge\nbad_total 1\n").returncode != 0


def test_slow_and_senseless_clients_do_not_hold_up_the_agent(lab):
    clients = []
    try:
        for number in range(200):
            client = socket.socket()
            client.setblocking(False)
            client.connect_ex(("127.0.0.1", lab.metrics_port))
            clients.append(client)
        time.sleep(0.1)
        for number, client in enumerate(clients):
            with contextlib.suppress(OSError):
                client.send(b"GET /met" if number % 2 else b"\x00\xff" * 100)
        started = time.monotonic()
        lab.cli("show loop-detect")
        assert time.monotonic() - started < 1
        descriptors = list(pathlib.Path(f"/proc/{lab.agent.pid}/fd").iterdir())
        assert len(descriptors) < 80
    finally:
        for client in clients:
            client.close()

    def served():
        try:
            return scrape(lab.metrics_port)
        except OSError:
            return None
    wait_for(served, 10, "the next scrape is answered")


def test_address_in_use_leaves_the_agent_without_metrics():
    with socket.socket() as other, Lab() as lab:
        other.bind(("127.0.0.1", 0))
        other.listen()
        address = f"127.0.0.1:{other.getsockname()[1]}"
        lab.write_platform_file(f'[metrics]\nlisten = "{address}"\n')
        lab.start_agent()
        assert f"METRICS-4-LISTEN: The metrics are not served on {address}: Address already in use." in lab.log()


def test_no_metrics_without_an_address():
    with Lab() as lab:
        lab.start_agent()
        threads = pathlib.Path(f"/proc/{lab.agent.pid}/task").glob("*/comm")
        assert {thread.read_text().strip() for thread in threads} <= {"lda", "lda_cli_deliver", "lda_disk"}


@pytest.mark.skipif(not shutil.which("prometheus"), reason="prometheus is not installed")
def test_prometheus_scrapes_the_agent(lab, tmp_path):
    port = free_port()
    (tmp_path / "prometheus.yml").write_text(
        "global:\n  scrape_interval: 1s\n  scrape_timeout: 1s\n"
        "scrape_configs:\n- job_name: lda\n  static_configs:\n"
        f"  - targets: ['127.0.0.1:{lab.metrics_port}']\n")
    server = subprocess.Popen(
        ["prometheus", f"--config.file={tmp_path}/prometheus.yml", f"--storage.tsdb.path={tmp_path}/data",
         f"--web.listen-address=127.0.0.1:{port}", "--log.level=error"],
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def ask(path):
        try:
            with urllib.request.urlopen(f"http://127.0.0.1:{port}/api/v1/{path}", timeout=5) as answer:
                return json.load(answer)["data"]
        except (OSError, urllib.error.URLError):
            return None
    try:
        found = wait_for(lambda: (ask("query?query=lda_build_info") or {}).get("result"), 30, "a sample is stored")
        assert found[0]["metric"]["version"] == "0.1.0"
        assert ask("query?query=up%7Bjob%3D%22lda%22%7D")["result"][0]["value"][1] == "1"
    finally:
        server.terminate()
        server.wait()
