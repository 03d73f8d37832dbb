"""The loop-probe service without its surroundings: no object database, and no table in the packet filter."""

import re
import subprocess
import sys

import pytest

from lab import wait_for
from tarn_lab import COUNT_PROBES, TarnLab


@pytest.fixture
def lab(kernel_ports):
    with TarnLab(ports=4) as the_lab:
        yield the_lab


def test_tarnd_that_starts_without_the_database_works_once_it_is_there(lab):
    lab.enable("shutdown access-mode")
    lab.kill_redis()
    lab.start_tarnd()
    with lab.looped("swp1", "swp2"):
        # Without a configuration nothing is probed, and tarnd waits.
        assert int(lab.inside(sys.executable, "-c", COUNT_PROBES, "swp3-far", "3")) == 0
        assert lab.tarnd.poll() is None
        assert lab.down_ports() == []
        lab.start_redis()
        wait_for(lambda: lab.down_ports() == ["swp1", "swp2"], 30, "the loop is cut and the agent has its ports")
        assert lab.reported() <= {"swp1", "swp2"} and lab.reported()
        wait_for(lambda: not lab.cuts(), 10, "no cut waits for the switch")
    assert lab.tarnd.poll() is None


def test_loop_is_cut_without_the_database_and_on_record_once_it_is_back(lab):
    lab.start_tarnd()
    lab.enable("shutdown access-mode")
    lab.inside(sys.executable, "-c", COUNT_PROBES, "swp3-far", "1.5")
    lab.kill_redis()
    with lab.looped("swp1", "swp2"):
        wait_for(lab.down_ports, 10, "one port is cut")
        assert lab.cuts()
        cut = lab.down_ports()
        assert len(cut) == 1 and set(cut) < {"swp1", "swp2"}
        # The other ports are probed all the same.
        assert int(lab.inside(sys.executable, "-c", COUNT_PROBES, "swp3-far", "3")) >= 2
        lab.start_redis()
        wait_for(lambda: lab.down_ports() == ["swp1", "swp2"], 40, "the agent has the ports of the loop")
        assert lab.reported() <= {"swp1", "swp2"} and lab.reported()
        wait_for(lambda: not lab.cuts(), 10, "no cut waits for the switch")
    assert lab.end_tarnd() is not None
    assert lab.down_ports() == ["swp1", "swp2"]


@pytest.mark.parametrize("capability, refusal", [
    ("net_raw", "tarnd: packet socket: Operation not permitted\n"),
    ("net_admin", "tarnd: no rule against returned probes: "
                  "netlink: Error: cache initialization failed: Operation not permitted\n")])
def test_tarnd_without_a_privilege_says_so_and_leaves_nothing(lab, capability, refusal):
    *inside, tarnd = lab.tarnd_command()
    done = subprocess.run([*inside, "setpriv", "--bounding-set", f"-{capability}", "--inh-caps", f"-{capability}",
                           tarnd], env=lab.environment(), capture_output=True, text=True, check=False, timeout=20)
    assert done.returncode == 1
    assert done.stderr.endswith(refusal)
    assert "tarnd_" not in lab.ruleset()


def test_table_that_somebody_deletes_is_back_within_ten_seconds(lab):
    lab.start_tarnd()
    lab.enable()
    table = re.search(r"table bridge (tarnd_\w+)", lab.ruleset())[1]
    before = lab.inside("nft", "list", "chain", "bridge", table, "returned")
    lab.inside("nft", "delete", "table", "bridge", table)
    assert "tarnd_" not in lab.ruleset()
    wait_for(lambda: "tarnd_" in lab.ruleset(), 11, "the table is back", every=0.1)
    assert lab.inside("nft", "list", "chain", "bridge", table, "returned") == before
    with lab.looped("swp1", "swp2"):
        wait_for(lab.loops, 10, "the loop is on record")
        # A looped probe that nobody drops would be flooded out of swp3 thousands of times.
        assert 1 <= int(lab.inside(sys.executable, "-c", COUNT_PROBES, "swp3-far", "3")) <= 20
