"""A switch with loop probes, and the things to plug into it.

The traffic is bounded: every cable that closes a loop passes some thousand frames a second at most, and a timer
pulls it if the test does not.
"""

import contextlib
import os
import signal
import subprocess
import threading

from lab import APP_DB, BUILD, CFG_DB, p_bridge, run, wait_for
from storm_lab import StormLab

LONGEST_LOOP_S = 40
CABLE = ("rate", "4mbit", "burst", "3000", "limit", "6000")  # of tc(8)

# Prints how many probes arrive on a device in some seconds; both are arguments.
COUNT_PROBES = """
import socket, sys, time
link = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x88b5))
link.bind((sys.argv[1], 0x88b5))
count, end = 0, time.monotonic() + float(sys.argv[2])
while (left := end - time.monotonic()) > 0:
    link.settimeout(left)
    try:
        link.recv(2000)
        count += 1
    except TimeoutError:
        break
print(count)
"""


@contextlib.contextmanager
def in_time(open_loop):
    """Calls `open_loop` when the block takes longer than a loop may last."""
    end = threading.Timer(LONGEST_LOOP_S, open_loop)
    end.start()
    try:
        yield
    finally:
        end.cancel()
        end.join()


class TarnLab(StormLab):
    """A switch with its agent, where tarnd can be started. `cable`: the speed of a cable, for tc(8); None: no
    limit."""

    def __init__(self, ports=4, cable=CABLE):
        super().__init__(ports)
        self.cable = cable
        self.tarnd = None
        self.remote_namespace = f"{self.namespace}-far"

    def __exit__(self, *details):
        self.end_tarnd(signal.SIGKILL)
        self.delete_remote()
        super().__exit__(*details)

    def write_platform_file(self, extra=""):
        super().write_platform_file(extra + f'[tarn]\nstate = "{self.folder}/tarn"\n')

    def tarnd_command(self):
        return ["ip", "netns", "exec", self.namespace, str(BUILD / "services" / "tarnd" / "tarnd")]

    def environment(self):
        return {**os.environ, "LDA_PLATFORM": str(self.platform_file)}

    def start_tarnd(self, wait=True):
        self.tarnd = subprocess.Popen(self.tarnd_command(), env=self.environment(), stdin=subprocess.DEVNULL)
        if wait:
            wait_for(lambda: "tarnd_" in self.ruleset(), 20, "tarnd runs")

    def end_tarnd(self, how=signal.SIGTERM):
        if self.tarnd:
            self.tarnd.send_signal(how)
            status = self.tarnd.wait(20)
            self.tarnd = None
            return status
        return None

    def enable(self, *policy):
        """Enables loop detection with this policy, and waits until every port's record says that it is probed."""
        self.configure(" ".join(["loop-detect enable", *policy]))
        wait_for(lambda: len(self.watched_ports()) == len(self.port_names), 20, "every port is watched")

    def watched_ports(self):
        database = self.database(CFG_DB)
        records = [p_bridge.tarn_port.FromString(database.get(key)) for key in database.keys("p_bridge.tarn_port/*")]
        return [record.index.ifx for record in records if record.loop_detect]

    def _reports(self):
        database = self.database(APP_DB)
        return [p_bridge.tarn_loop_info.FromString(database.get(key))
                for key in database.keys("p_bridge.tarn_loop_info/*")]

    def loops(self):
        """The loops on record: pairs of the reporting port and the one that sent the probe, by name."""
        names = {self.ifindex(name): name for name in self.port_names}
        return {(names[record.index.ifx], names[record.src_ifx]) for record in self._reports() if record.is_loop}

    def reported(self):
        """The ports that have or had a loop on record."""
        names = {self.ifindex(name): name for name in self.port_names}
        return {names[record.index.ifx] for record in self._reports()}

    def remote(self, *command):
        return run("ip", "netns", "exec", self.remote_namespace, *command)

    def cuts(self):
        """The ports that tarnd has cut and nobody has taken over, according to its journal."""
        slots = (self.folder / "tarn" / "cuts").read_bytes()[64:]
        return [slots[at:at + 4] for at in range(0, len(slots), 4) if any(slots[at:at + 4])]

    def plug(self, port):
        self.remote("ip", "link", "set", f"{port}-far", "master", "outside")

    def unplug(self, port):
        self.remote("ip", "link", "set", f"{port}-far", "nomaster")

    def make_remote(self):
        """Makes a namespace for the devices that the ports are connected to."""
        run("ip", "netns", "add", self.remote_namespace)
        self.remote("sh", "-c", "echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6")

    def delete_remote(self):
        subprocess.run(["ip", "netns", "delete", self.remote_namespace], check=False, stderr=subprocess.DEVNULL)

    def move_out(self, port, up=True):
        """Moves the far end of a port, with a slow cable, to the other namespace."""
        self.ip("link", "set", f"{port}-far", "netns", self.remote_namespace)
        self.slow_down(f"{port}-far")
        if up:
            self.remote("ip", "link", "set", f"{port}-far", "up")

    def slow_down(self, device):
        """Limits this device of the other namespace to the speed of a cable."""
        if self.cable:
            self.remote("tc", "qdisc", "replace", "dev", device, "root", "tbf", *self.cable)

    def wait_links(self, *ports):
        wait_for(lambda: all(self.link(port)["operstate"] == "UP" for port in ports), 10, "the links are up again")

    def remote_batch(self, *lines):
        """Executes lines of ip(8) in the other namespace."""
        run("ip", "-n", self.remote_namespace, "-batch", "-", input="\n".join(lines) + "\n")

    def states(self, namespace=None):
        """The spanning-tree states of all ports of a namespace, by name."""
        listing = run("bridge", "-n", namespace or self.namespace, "link").splitlines()
        return {line.split()[1].split("@")[0].rstrip(":"): line.split("state ")[-1].split()[0] for line in listing}

    @contextlib.contextmanager
    def slow_outside(self, *ports):
        """Another machine's bridge with slow cables to these ports, unplugged; a timer unplugs them in the end."""
        self.make_remote()
        self.remote("ip", "link", "add", "outside", "up", "type", "bridge")
        for port in ports:
            self.move_out(port)
        self.wait_links(*ports)
        try:
            with in_time(lambda: [self.unplug(port) for port in ports]):
                yield
        finally:
            for port in ports:
                with contextlib.suppress(subprocess.CalledProcessError):
                    self.unplug(port)

    @contextlib.contextmanager
    def looped(self, *ports):
        """A loop of these ports through another machine's bridge."""
        with self.slow_outside(*ports):
            for port in ports:
                self.plug(port)
            yield

    @contextlib.contextmanager
    def reflected(self, port):
        """A bridge of another machine that sends the frames of the port back to it."""
        with self.looped(port):
            self.remote("bridge", "link", "set", "dev", f"{port}-far", "hairpin", "on")
            yield
