"""The main job from end to end, as a transcript: a loop, then a storm; or a shell on a running agent.

    demo.py            the simulated switch, on a fast clock
    demo.py --linux    a kernel bridge in a network namespace, with a private redis-server, tarnd and a real loop
    demo.py --shell    an operator's shell instead of the script, on either
"""

import argparse
import pathlib
import re
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "support"))

from lab import BUILD, Lab, wait_for  # noqa: E402  (the path comes first)
from tarn_lab import TarnLab  # noqa: E402
from tarn_loops import Traffic  # noqa: E402

SPEED = 60  # seconds of the switch in one of ours


class Transcript:
    """Prints the operator's lines, the switch's answers, and its log as it grows."""

    def __init__(self, lab):
        self.lab = lab
        self.shown = 0

    def act(self, title):
        print(f"\n--- {title}\n", flush=True)

    def type(self, *lines, show=None):
        """Runs one session. `show` is a pattern: only the output lines that match are printed."""
        for line in lines:
            print(f"    > {line}")
        output = self.lab.cli(*lines)
        for line in output.rstrip().splitlines():
            if show is None or re.search(show, line):
                print(f"      {line}")
        sys.stdout.flush()
        return output

    def log(self, show=None):
        """Prints new lines of the system log, or those of them that match the pattern `show`."""
        lines = [line for line in self.lab.log().splitlines() if "%" in line]
        for line in lines[self.shown:]:
            if show is None or re.search(show, line):
                print(f"    log  {line[line.index('%'):]}")
        self.shown = len(lines)
        sys.stdout.flush()

    def wait_log(self, text, timeout):
        wait_for(lambda: text in self.lab.log(), timeout, text)

    def config(self, port):
        text = self.lab.cli("show running-config")
        section = text.split(f"interface {port}\n", 1)[1].split("!", 1)[0]
        print(f"      interface {port}")
        for line in section.rstrip().splitlines():
            print(f"      {line}")
        return section


def down(lab):
    return lab.cli("show interfaces status").count(" down   down ")


def marked(lab):
    return lab.cli("show running-config").count("loop-detect apply shutdown-port")


def simulated():
    """The simulated switch: a loop that the probes find, then a storm on a port."""
    with Lab(ports=8, speed=SPEED) as lab:
        say = Transcript(lab)
        plugged_loop(lab, say)
        storm_on_a_port(lab, say)
        print("\nDone: a loop shut, recovered, forgotten, and brought back across a restart; a storm counted,"
              "\njudged, shut and recovered.")


def plugged_loop(lab, say):
    """A cable between two ports, a restart in the middle."""
    say.act(f"The agent starts on a simulated switch, {SPEED} times as fast as real time")
    lab.start_agent()
    say.type("configure terminal", "loop-detect enable shutdown access-mode",
             "loop-detect shutdown-recover-time 90", "end", "show loop-detect")

    say.act("Somebody plugs a cable between swp3 and swp7")
    say.type("test loop plug swp3 swp7")
    for port in ("swp3", "swp7"):
        say.wait_log(f"Detected loop error on interface {port}.", 10)
    wait_for(lambda: down(lab) == 2, 10, "both ports are shut")
    say.log()
    say.type("show loop-detect detail")
    say.type("show interfaces status", show=r"^Port|swp[37]\b")
    say.type("show tarn", show=r"^Port|swp[37]\b")
    say.config("swp3")
    say.config("swp7")

    say.act("The recovery time passes, the ports come back - into the same loop")
    wait_for(lambda: marked(lab) == 0, 10, "the ports came back", every=0.005)
    say.log()
    wait_for(lambda: marked(lab) == 2, 10, "the ports are shut again")
    say.type("show loop-detect")

    say.act("The cable is pulled: after the next recovery the loop is forgotten")
    say.type("test loop unplug swp3 swp7")
    for port in ("swp3", "swp7"):
        say.wait_log(f"Interface {port} recovered from loop error.", 30)
    say.log()
    say.type("show loop-detect detail")

    say.act("Of two ports in one loop one is enough: only it is shut, and the other goes on")
    say.type("configure terminal", "tarn cut one", "interface swp3", "switchport mode trunk", "end",
             "test loop plug swp3 swp7")
    wait_for(lambda: lab.cli("show tarn").count(" shut ") == down(lab) == 1, 10, "one port is shut")
    say.type("show tarn", show=r"^Port|swp[37]\b")
    say.type("test loop unplug swp3 swp7", "configure terminal", "no tarn cut", "interface swp3",
             "no switchport mode", "end")
    wait_for(lambda: "Detected" not in lab.log().rsplit("recovered", 1)[-1], 30, "the loop is forgotten")

    say.act("Plugged again, and the agent is killed while the ports are shut")
    say.type("test loop plug swp3 swp7")
    wait_for(lambda: lab.saved().count("apply shutdown-port") == 2, 10, "the marks are saved")
    lab.kill_agent()
    print("    (killed)")
    lab.start_agent()
    print("    (started again; the cable has gone with the old switch)")
    say.type("show interfaces status", show=r"^Port|swp[37]\b")
    wait_for(lambda: down(lab) == 0, 15, "the ports were brought back")
    print("\n    the recovery time passes\n")
    say.type("show interfaces status", show=r"^Port|swp[37]\b")


RATE = 1000  # flooded frames per second that swp5 may send


def storm_record(lab, say):
    """Shows the storm record of swp5 and says whether it is in loop."""
    output = say.type("debug lda storm-detect", show=r"^ifx|swp5\b")
    return next(line for line in output.splitlines() if " swp5 " in line).split()[-1] == "loop"


def storm_on_a_port(lab, say):
    """A sender floods one port, which no probe can detect."""
    say.act(f"Second act, storms: {RATE} frames a second to unknown addresses are too much for swp5")
    say.type("configure terminal", "interface swp5", f"storm-loop-rate ratelimit {RATE}", "end")
    assert not storm_record(lab, say), "swp5 is in loop before the storm"

    say.act("A sender behind swp5 floods five times as much")
    say.type("debug lda syslog level 3", f"test storm swp5 {5 * RATE}")
    say.wait_log("Detected loop error on interface swp5.", 10)
    looped = storm_record(lab, say)
    say.type("debug lda syslog level 2")
    print(f"\n    every 4 s a poll; three in a row with more than {4 * RATE} frames are a storm\n")
    polls = re.findall(r"DEBUG.*phyid = 5\] old packet_count = (\d+), new packet_count = (\d+)", lab.log())
    say.log(show=r"DEBUG.*phyid = 5\] old packet|notity|interface swp5\b")
    assert looped, "swp5 is in loop"
    assert all(int(new) - int(old) > 4 * RATE for old, new in polls[-3:]) and len(polls) >= 3, polls
    wait_for(lambda: down(lab) == 1, 5, "swp5 is shut")
    say.type("show loop-detect detail", show=r"^loop interface|^swp")
    assert "loop-detect apply shutdown-port" in say.config("swp5")

    say.act("The sender is unplugged: ten quiet polls, then the recovery time, then it is forgotten")
    say.type("test storm swp5 0")
    say.wait_log("Interface swp5 recovered from loop error.", 15)
    say.type("debug lda syslog level 0")
    say.log(show=r"notity|interface swp5\b|Interface swp5\b")
    assert not storm_record(lab, say), "swp5 is out of the loop"
    say.type("show interfaces status", show=r"^Port|swp5\b")
    assert "shutdown" not in say.config("swp5")


def tarnctl(lab, *words):
    """Prints the output of tarnctl."""
    print("    $ tarnctl " + " ".join(words))
    done = subprocess.run([str(BUILD / "tools" / "tarnctl" / "tarnctl"), *words], env=lab.environment(),
                          capture_output=True, text=True, check=True)
    for line in done.stdout.splitlines():
        print(f"      {line}")
    sys.stdout.flush()


def kernel():
    """A real loop between kernel interfaces, found and cut by tarnd. Real time."""
    with TarnLab(ports=4) as lab:
        say = Transcript(lab)
        say.act("A kernel bridge with four veth ports, a private redis-server, the agent, tarnd")
        lab.start_tarnd()
        lab.enable("shutdown access-mode")
        say.type("configure terminal", "loop-detect shutdown-recover-time 90", "end", "show interfaces status")
        with lab.slow_outside("swp1", "swp2"):
            real_loop(lab, say)
        print("    waiting for the recovery time, 90 s", flush=True)
        wait_for(lambda: lab.down_ports() == [], 120, "the ports are up again", every=0.5)
        say.type("show interfaces status", show=r"^Port|swp[12]\b")
        print("    waiting for the clear interval, 60 s", flush=True)
        for port in ("swp1", "swp2"):
            say.wait_log(f"Interface {port} recovered from loop error.", 90)
        say.log()
        say.type("show tarn")
        print("\nDone: a loop found by its first frames, cut, shut by the agent, recovered and forgotten.")


def real_loop(lab, say):
    """The loop goes through a second bridge, whose cables pass some thousand frames a second."""
    wait_for(lambda: lab.cli("show tarn").count(" probing ") == 4, 10, "every port is probed")
    tarnctl(lab, "show")
    say.act("A host behind swp3 speaks; somebody plugs both ends of another switch into swp1 and swp2")
    with Traffic(lab) as traffic:
        traffic.wait_calm()
        lab.plug("swp1")
        lab.plug("swp2")
        wait_for(lambda: lab.down_ports() == ["swp1", "swp2"], 10, "both ports are shut")
        traffic.wait_calm()
        stray = traffic.stray()
    say.log(show=r"interface swp")
    tarnctl(lab, "show")
    say.type("show loop-detect detail", show=r"^loop interface|^swp")
    print(f"    a bystander behind swp4 got {stray} stray frames beside the {traffic.sent} that the host sent\n")
    say.act("The other switch is unplugged")
    lab.unplug("swp1")
    lab.unplug("swp2")


def shell(lab):
    """The operator's shell, until it is left. The Linux laboratory has its agent already."""
    if lab.switch == "linux":
        lab.start_tarnd()
    else:
        lab.start_agent()
    print("Type ? for help, and exit to leave. Try: enable, configure terminal, loop-detect enable.")
    subprocess.run([str(BUILD / "tools" / "ldash" / "ldash"), "-s", str(lab.cli_socket)], check=False)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--linux", action="store_true", help="on a kernel bridge")
    parser.add_argument("--shell", action="store_true", help="a shell instead of the script")
    options = parser.parse_args()
    if options.shell:
        with TarnLab(ports=4) if options.linux else Lab(ports=24) as lab:
            shell(lab)
    elif options.linux:
        kernel()
    else:
        simulated()


if __name__ == "__main__":
    main()
