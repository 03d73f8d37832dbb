"""Loops to plug into a switch, each with the ports that it needs, and traffic that shows a storm.

The far ends of the ports are in a separate namespace, so that only cables connect one port to another.
A loop is built unplugged; plug() and unplug() can be called again and again. A timer pulls what stays plugged.
"""

import contextlib
import socket
import subprocess
import sys
import threading
import time

from lab import run, wait_for, within
from storm_lab import Program
from tarn_lab import LONGEST_LOOP_S

ETHER_TYPE = 0x88B6
SOL_PACKET, PACKET_STATISTICS = 263, 6
BPDU = "01:80:c2:00:00:00"

# Carries frames between two devices in both directions, each after as many seconds as the third
# argument says.
DELAY_LINE = """
import collections, select, socket, sys, time
ends = [socket.socket(socket.AF_PACKET, socket.SOCK_RAW) for _ in range(2)]
for end, device in zip(ends, sys.argv[1:]):
    end.setsockopt(263, 23, 1)  # PACKET_IGNORE_OUTGOING
    end.bind((device, 3))
    end.setblocking(False)
delay, under_way = float(sys.argv[3]), collections.deque()
print("ready", flush=True)
while True:
    wait = max(0, under_way[0][0] - time.monotonic()) if under_way else None
    for end in select.select(ends, [], [], wait)[0]:
        try:
            frame = end.recv(2000)
            under_way.append((time.monotonic() + delay, ends[1 - ends.index(end)], frame))
        except OSError:
            pass  # the link is down
    while under_way and under_way[0][0] <= time.monotonic():
        _, end, frame = under_way.popleft()
        try:
            end.send(frame)
        except OSError:
            pass
"""


class Loop:
    """`ports` are the switch's ports in the loop; `shut` are those that the agent shuts because of it.

    `carrier`: the ports have a link only while plugged.
    """

    ports = ()
    shut = ()
    carrier = False

    def __init__(self, lab):
        self.lab = lab
        self.stack = contextlib.ExitStack()
        self.timer = None

    def __enter__(self):
        lab = self.lab
        lab.make_remote()
        self.stack.callback(lab.delete_remote)
        try:
            for port in self.ports:
                lab.move_out(port, up=not self.carrier)
            self.build()
            if not self.carrier:
                lab.wait_links(*self.ports)
        except BaseException:
            self.stack.close()
            raise
        return self

    def __exit__(self, *_):
        with contextlib.suppress(subprocess.CalledProcessError):
            self.unplug()
        self.stack.close()

    def plug(self):
        self.timer = threading.Timer(LONGEST_LOOP_S, self.disconnect)
        self.timer.start()
        self.connect()

    def unplug(self):
        if self.timer:
            self.timer.cancel()
            self.timer.join()
        self.disconnect()

    def build(self):
        """Builds everything that plug() does not."""

    def connect(self):
        self.lab.remote_batch(*(f"link set {port}-far up" for port in self.ports))

    def disconnect(self):
        self.lab.remote_batch(*(f"link set {port}-far down" for port in self.ports))

    def forward(self, *pairs):
        """Makes the packet filter forward frames from the first device of a pair to the second."""
        self.lab.remote("nft", "add table netdev cable;" + "".join(
            f'add chain netdev cable c{number} {{ type filter hook ingress device "{start}" priority 0; }};'
            f'add rule netdev cable c{number} fwd to "{end}";' for number, (start, end) in enumerate(pairs)))


class Cable(Loop):
    """A cable between two ports."""

    ports = shut = ("swp1", "swp2")
    carrier = True

    def build(self):
        self.forward(("swp1-far", "swp2-far"), ("swp2-far", "swp1-far"))


class Reflection(Loop):
    """A port that receives its own frames."""

    ports = shut = ("swp1",)
    carrier = True

    def build(self):
        self.forward(("swp1-far", "swp1-far"))


class SlowRing(Loop):
    """A path from one port to another that takes 0.8 ms."""

    ports = shut = ("swp1", "swp2")
    carrier = True
    delay_s = 0.0008

    def build(self):
        line = self.stack.enter_context(Program(
            "ip", "netns", "exec", self.lab.remote_namespace, sys.executable, "-c", DELAY_LINE,
            *(f"{port}-far" for port in self.ports), str(self.delay_s), stdout=subprocess.PIPE))
        with line.process.stdout as output:
            output.readline()


class RemoteBridge(Loop):
    """Two ports that another machine's bridge connects; the links are up all the time."""

    ports = shut = ("swp1", "swp2")

    def build(self):
        self.lab.remote_batch("link add outside up type bridge")

    def connect(self):
        self.lab.remote_batch(*(f"link set {port}-far master outside" for port in self.ports))

    def disconnect(self):
        self.lab.remote_batch(*(f"link set {port}-far nomaster" for port in self.ports))


class OneVlan(RemoteBridge):
    """Another machine's bridge that passes nothing but frames of one VLAN."""

    vid = 7

    def build(self):
        super().build()
        self.lab.remote("nft", "add table netdev trunk;" + "".join(
            f'add chain netdev trunk {port} {{ type filter hook ingress device "{port}-far" priority 0; policy drop; }};'
            f"add rule netdev trunk {port} vlan id {self.vid} accept;" for port in self.ports))


class ThreePorts(RemoteBridge):
    """Three ports that another machine's bridge connects. The agent may find two of them cut before it shuts all.

    Every frame has two paths, so all queues are full at once. If all queues dropped in step, no probe would
    ever get through; those of a real network are not in step, so here two of five frames are lost at random.
    """

    ports = shut = ("swp1", "swp2", "swp5")

    def build(self):
        super().build()
        if self.lab.cable:
            self.lose_frames()

    def lose_frames(self):
        self.lab.remote("nft", "add table netdev lossy;" + "".join(
            f'add chain netdev lossy {port} {{ type filter hook ingress device "{port}-far" priority 0; }};'
            f"add rule netdev lossy {port} numgen random mod 5 < 2 drop;" for port in self.ports))


class DeafHub(RemoteBridge):
    """A hub between two ports that drops spanning-tree frames, while the switch runs spanning tree."""

    def build(self):
        super().build()
        lab = self.lab
        lab.remote("nft", "add table netdev hub;" + "".join(
            f'add chain netdev hub {port} {{ type filter hook ingress device "{port}-far" priority 0; }};'
            f"add rule netdev hub {port} ether daddr {BPDU} drop;" for port in self.ports))
        lab.ip("link", "set", "br0", "type", "bridge", "stp_state", "1", "forward_delay", "200")
        wait_for(lambda: set(lab.states().values()) == {"forwarding"}, 30, "spanning tree lets all ports forward",
                 every=0.1)


class LoopedHub(Loop):
    """A hub behind one port with a cable from one of its sockets to another."""

    ports = shut = ("swp1",)

    def build(self):
        self.lab.remote_batch("link add outside up type bridge", "link add turn type veth peer name return",
                              "link set turn up master outside", "link set return up",
                              "link set swp1-far master outside")
        for end in ("turn", "return"):
            self.lab.slow_down(end)

    def connect(self):
        self.lab.remote_batch("link set return master outside")

    def disconnect(self):
        self.lab.remote_batch("link set return nomaster")


KINDS = {"cable": Cable, "remote-bridge": RemoteBridge, "deaf-hub": DeafHub, "looped-hub": LoopedHub,
         "reflection": Reflection, "three-ports": ThreePorts, "slow-ring": SlowRing}


class Traffic:
    """A host behind swp3 that sends broadcasts, and a bystander behind swp4 that counts them.

    Each should arrive once; any more are stray.
    """

    def __init__(self, lab, pause=0.01, vid=None):
        self.pause = pause
        self.tag = b"" if vid is None else b"\x81\x00" + vid.to_bytes(2, "big")
        with within(lab.namespace):
            self.source = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
            self.bystander = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
        self.source.bind(("swp3-far", 0))
        # It is never read: the kernel counts the frames that it could not queue.
        self.bystander.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1)
        self.bystander.bind(("swp4-far", ETHER_TYPE))
        self.sent = 0
        self.arrived = 0
        self.ending = threading.Event()
        self.thread = threading.Thread(target=self._talk)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.ending.set()
        self.thread.join()
        self.source.close()
        self.bystander.close()

    def _talk(self):
        frame = bytes.fromhex("ffffffffffff" "02000000aa01") + self.tag + bytes.fromhex("88b6") + bytes(46)
        while not self.ending.wait(self.pause):
            self.source.send(frame)
            self.sent += 1

    def received(self):
        counts = self.bystander.getsockopt(SOL_PACKET, PACKET_STATISTICS, 8)  # since the last call
        self.arrived += int.from_bytes(counts[:4], sys.byteorder)
        return self.arrived

    def stray(self):
        return self.received() - self.sent

    def wait_calm(self, timeout=10):
        """Waits for a quarter of a second without stray frames; returns the number of stray frames so far."""
        def calm():
            received, sent = self.received(), self.sent
            time.sleep(0.25)
            # One frame may be in flight at either moment.
            return 0 < self.received() - received <= self.sent - sent + 1
        wait_for(calm, timeout, "no more frames than were sent arrive, and these do")
        return self.stray()
