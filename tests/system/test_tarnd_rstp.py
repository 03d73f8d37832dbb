"""Redundant uplinks that the rapid spanning tree of another switch blocks: no loop, whatever fails and comes back.

The other switch is Open vSwitch with its user-space datapath, which needs no kernel module.
"""

import contextlib
import pathlib
import shutil
import subprocess

import pytest

from lab import wait_for
from storm_lab import Program
from tarn_lab import TarnLab
from tarn_loops import Traffic

SCHEMA = pathlib.Path("/usr/share/openvswitch/vswitch.ovsschema")
UPLINKS = ("swp1", "swp2")

pytestmark = pytest.mark.skipif(not shutil.which("ovs-vswitchd") or not SCHEMA.exists(),
                                reason="Open vSwitch is not installed (scripts/setup installs it)")


class RapidPeer:
    """Another switch with rapid spanning tree, in the lab's other namespace; its ports are the far ends of UPLINKS."""

    def __init__(self, lab):
        self.lab = lab
        self.folder = lab.folder / "peer"
        self.stack = contextlib.ExitStack()

    def __enter__(self):
        try:
            self.folder.mkdir()
            self.lab.make_remote()
            self.stack.callback(self.lab.delete_remote)
            for port in UPLINKS:
                self.lab.move_out(port)
            database, socket = self.folder / "db", self.folder / "db.sock"
            subprocess.run(["ovsdb-tool", "create", database, SCHEMA], check=True)
            self.start("ovsdb-server", f"--remote=punix:{socket}", database)
            wait_for(socket.exists, 10, "the peer's database runs")
            self.tell("--no-wait", "init")
            self.start("ovs-vswitchd", f"unix:{socket}")
            self.tell("add-br", "peer", "--", "set", "bridge", "peer", "datapath_type=netdev", "rstp_enable=true",
                      *(word for port in UPLINKS for word in ("--", "add-port", "peer", f"{port}-far")))
        except BaseException:
            self.stack.close()
            raise
        return self

    def __exit__(self, *_):
        self.stack.close()

    def command(self, *words):
        folders = [f"{name}={self.folder}" for name in ("OVS_RUNDIR", "OVS_DBDIR", "OVS_LOGDIR", "OVS_SYSCONFDIR")]
        return ["ip", "netns", "exec", self.lab.remote_namespace, "env", *folders, *map(str, words)]

    def start(self, *words):
        self.stack.enter_context(Program(*self.command(*words), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))

    def tell(self, *words):
        return subprocess.run(self.command("ovs-vsctl", f"--db=unix:{self.folder / 'db.sock'}", "--timeout=20", *words),
                              check=True, capture_output=True, text=True).stdout

    def states(self):
        """Of its ends of the uplinks, in the order of their names."""
        words = [self.tell("get", "port", f"{port}-far", "rstp_status") for port in UPLINKS]
        return [text.split("rstp_port_state=")[-1].split("}")[0].strip() for text in words]


@pytest.fixture
def lab(kernel_ports):
    with TarnLab(ports=5) as the_lab:
        yield the_lab


def test_uplinks_blocked_by_a_peers_rapid_spanning_tree_are_no_loop(lab):
    lab.start_tarnd()
    lab.configure("tarn probe-interval 100")
    lab.enable("shutdown access-mode")
    with RapidPeer(lab) as peer, Traffic(lab) as traffic:
        wait_for(lambda: sorted(peer.states()) == ["Discarding", "Forwarding"], 60, "one uplink is blocked", every=0.2)
        used = UPLINKS[peer.states().index("Forwarding")]
        rest = UPLINKS[peer.states().index("Discarding")]
        # The one in use fails, the other one takes over, and the first one is back.
        lab.remote("ip", "link", "set", f"{used}-far", "down")
        wait_for(lambda: peer.states()[UPLINKS.index(rest)] == "Forwarding", 60, "the other one is used", every=0.2)
        lab.remote("ip", "link", "set", f"{used}-far", "up")
        wait_for(lambda: sorted(peer.states()) == ["Discarding", "Forwarding"], 60, "one is blocked again", every=0.2)
        traffic.wait_calm()
        assert abs(traffic.stray()) <= 1
        assert lab.down_ports() == [] and lab.reported() == set()
    assert "Detected loop error" not in lab.log()
