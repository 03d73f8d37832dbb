"""Alert rules and dashboard for the metrics."""

import json
import re
import shutil
import subprocess

import pytest

from lab import ROOT

RULES = ROOT / "packaging" / "prometheus" / "lda.rules.yml"
DASHBOARD = ROOT / "packaging" / "grafana" / "lda.json"


@pytest.mark.skipif(not shutil.which("promtool"), reason="promtool is not installed")
def test_rules_are_valid_and_fire_when_they_should():
    checked = subprocess.run(["promtool", "check", "rules", str(RULES)], capture_output=True, text=True, check=False)
    assert checked.returncode == 0, checked.stderr
    tested = subprocess.run(["promtool", "test", "rules", str(ROOT / "tests" / "system" / "lda.rules.test.yml")],
                            capture_output=True, text=True, check=False)
    assert tested.returncode == 0, tested.stdout + tested.stderr


def test_each_alert_has_its_section_in_the_operations_page():
    rules = RULES.read_text()
    alerts = re.findall(r"- alert: (\w+)", rules)
    assert len(alerts) == 5
    assert re.findall(r"runbook_url: file:///usr/share/doc/lda-doc/operations\.md#(\w+)", rules) == [
        alert.lower() for alert in alerts]
    page = (ROOT / "docs" / "operations.md").read_text()
    assert re.findall(r"^### (Lda\w+)$", page, re.M) == alerts


def documented():
    return set(re.findall(r"^\| `(\w+)` \|", (ROOT / "docs" / "metrics.md").read_text(), re.M))


def metrics_in(text):
    return {re.sub(r"_(bucket|sum|count)$", "", name) for name in re.findall(r"\blda_[a-z_]+", text)}


def test_rules_and_dashboard_use_metrics_that_exist():
    dashboard = json.loads(DASHBOARD.read_text())
    queries = [target["expr"] for panel in dashboard["panels"] for target in panel["targets"]]
    assert len(queries) > 5
    used = metrics_in(" ".join(queries) + dashboard["templating"]["list"][1]["query"])
    used |= metrics_in(" ".join(re.findall(r"expr: (.*)", RULES.read_text())))
    assert used - documented() == set()
    assert len(used) > 8
