"""A station that invents source addresses without end."""

import sys

from lab import wait_for
from storm_lab import Program, StormLab

LIMIT = 1024  # learned addresses that the agent follows
INVENTED = 5000
OWN = 8  # addresses of the bridge and its ports

# Broadcasts out of a device from another address each: its name, how many.
FLOOD = """
import socket, sys, time
link = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
link.bind((sys.argv[1], 0))
for number in range(int(sys.argv[2])):
    link.send(bytes.fromhex("ffffffffffff" "0200") + number.to_bytes(4, "big") + bytes.fromhex("88b6") + bytes(46))
    time.sleep(0.0001)
"""

FULL = ("%FORWARDING-4-ADDRESSES: The bridge has learned more than 1024 addresses: frames to the others count as flooded. "
        "Limit what it learns with fdb_max_learned.")
AGAIN = "%FORWARDING-6-ADDRESSES: All addresses of the bridge are known again."


class SmallMirrorLab(StormLab):
    def write_platform_file(self, extra=""):
        super().write_platform_file(extra)
        text = self.platform_file.read_text()
        self.platform_file.write_text(text.replace("[linux]\n", f"[linux]\nmax_addresses = {LIMIT}\n"))


def learned(lab):
    return lab.inside("bridge", "fdb", "show", "dev", "swp1").count("02:00:")


def test_invented_addresses_are_followed_up_to_the_limit(kernel_ports):
    with SmallMirrorLab(ports=3) as lab:
        lab.watch(1000000, "swp1", policy="")
        with Program("ip", "netns", "exec", lab.namespace, sys.executable, "-c", FLOOD, "swp1-far", str(INVENTED)):
            wait_for(lambda: learned(lab) == INVENTED, 30, "the bridge has learned all of them", every=0.2)
        wait_for(lambda: FULL in lab.log(), 10, "the log says so")
        assert LIMIT <= len(lab.known()) <= LIMIT + OWN
        # What was set by hand counts all the same.
        lab.inside("bridge", "fdb", "add", "02:aa:00:00:00:01", "dev", "swp2", "master", "static")
        wait_for(lambda: "02:aa:00:00:00:01" in lab.known(), 10, "the entry is known")

        lab.ip("link", "set", "swp1-far", "down")  # the bridge forgets them
        wait_for(lambda: AGAIN in lab.log(), 20, "there is room again")
        with Program("ip", "netns", "exec", lab.namespace, sys.executable, "-c", FLOOD, "swp2-far", "20"):
            wait_for(lambda: "02:00:00:00:00:13" in lab.known(), 10, "new addresses are known")
        assert lab.log().count(FULL) == 1
