"""Kinds of crash rounds: events on the switch around the death of the agent.

A kind prepares the switch, then returns a Plan of events. The agent is killed shortly after one of these
moments. All choices come from `draw`, the round's own random.Random.
"""

import dataclasses
from functools import partial

from crash_lab import POLICY

WARNING = "loop-detect enable"


@dataclasses.dataclass
class Event:
    """Something that happens `at` seconds after the start. `must`: even when the agent is dead by then."""
    at: float
    act: object
    must: bool = False


@dataclasses.dataclass
class Plan:
    """`again`: the agent is started and killed again after each of these seconds. `keeps_shut`: nothing in this
    round can bring a port up, not even the loss of a new policy; ports down at the kill stay down."""
    events: list
    again: tuple = ()
    keeps_shut: bool = True


def some(draw, ports):
    return draw.sample(ports, draw.randint(1, len(ports)))


def one_after_another(draw, lab, ports, first=0.0):
    at, events = first, []
    for port in ports:
        events.append(Event(at, partial(lab.report_loops, [port])))
        at += draw.uniform(0, 0.04)
    return events


# ---- Loops ----

def burst(lab, draw):
    """One to ten ports at once."""
    lab.reset()
    return Plan([Event(0, partial(lab.report_loops, some(draw, lab.loop_ports)))])


def one_by_one(lab, draw):
    """Ports with up to 40 ms between them."""
    lab.reset()
    return Plan(one_after_another(draw, lab, some(draw, lab.loop_ports)))


def start(lab, draw):
    """A burst, and the next agents die within their first 100 ms."""
    lab.reset()
    again = tuple(draw.uniform(0, 0.1) for _ in range(draw.randint(2, 5)))
    return Plan([Event(0, partial(lab.report_loops, some(draw, lab.loop_ports)))], again)


# ---- Recovery ----

def shut_some(lab, draw):
    lab.reset()
    ports = some(draw, lab.loop_ports)
    lab.report_loops(ports)
    lab.wait_down(ports)
    return ports


def typing(lab, *lines):
    """Types without waiting for the answers."""
    def act():
        for line in lines:
            lab.session.send(line)
    return act


def recover_by_warning(lab, draw):
    """The policy is changed to one that shuts nothing."""
    shut_some(lab, draw)
    return Plan([Event(draw.uniform(0, 0.03), typing(lab, WARNING))], keeps_shut=False)


def recover_by_disabling(lab, draw):
    """Detection is switched off."""
    shut_some(lab, draw)
    return Plan([Event(draw.uniform(0, 0.03), typing(lab, "no loop-detect enable"))], keeps_shut=False)


def recover_by_release(lab, draw):
    """The operator removes the mark of all marked ports."""
    ports = shut_some(lab, draw)
    lines = ("interface range " + ",".join(ports), "no loop-detect apply shutdown-port")
    return Plan([Event(draw.uniform(0, 0.03), typing(lab, *lines))], keeps_shut=False)


def shut_while_recovering(lab, draw):
    """A policy change brings ports up while others loop under the next policy."""
    shut_some(lab, draw)
    events = [Event(0, typing(lab, WARNING)), Event(draw.uniform(0, 0.05), typing(lab, POLICY))]
    return Plan(events + one_after_another(draw, lab, some(draw, lab.loop_ports), 0.02), keeps_shut=False)


# ---- Policy ----

def typed_policy(lab, draw):
    """The shutting policy is typed right before the loops, or after them, and is not saved yet."""
    lab.reset(draw.choice([WARNING, "no loop-detect enable"]), settled=False)
    policy = Event(draw.uniform(0, 0.02), typing(lab, POLICY))
    loops = Event(draw.uniform(0, 0.02), partial(lab.report_loops, some(draw, lab.loop_ports)))
    return Plan([policy, loops], keeps_shut=False)


def requested_policy(lab, draw):
    """The same with a request record."""
    lab.reset(draw.choice([WARNING, "no loop-detect enable"]), settled=False)
    policy = Event(draw.uniform(0, 0.02), partial(lab.request_policy, 2))
    return Plan([policy, *one_after_another(draw, lab, some(draw, lab.loop_ports), draw.uniform(0, 0.02))],
                keeps_shut=False)


# ---- Bridge ----

def leaving(lab, draw):
    """Lines of ip(8) that remove some ports from the bridge, and lines that add them again."""
    ports = some(draw, lab.port_names)
    return ([f"link set {port} nomaster" for port in ports], [f"link set {port} master br0" for port in ports])


def replacing(lab, draw):
    """Ports are deleted, and new ones get their names: up, as new ports are."""
    ports = some(draw, lab.port_names)
    return [f"link del {port}" for port in ports], [line for port in ports for line in lab.port_lines(port)]


def remaking(lab, _):
    """The bridge is deleted and created again with its ports."""
    return ["link del br0"], ["link add br0 type bridge", "link set br0 up",
                              *(f"link set {port} master br0" for port in lab.port_names)]


def renaming(*_):
    """The bridge is renamed and named back."""
    return ["link set br0 down", "link set br0 name away"], ["link set away name br0", "link set br0 up"]


def away_and_back(lab, draw, change, first=0.0):
    """Events of one of the changes above; the second comes at the latest after the restart."""
    away, back = change(lab, draw)
    at = first + draw.uniform(0, 0.08)
    return [Event(at, partial(lab.batch, *away), must=True),
            Event(at + draw.uniform(0.001, 0.1), partial(lab.batch, *back), must=True)]


def loops_then(lab, draw, change):
    lab.reset()
    loops = Event(0, partial(lab.report_loops, some(draw, lab.loop_ports)))
    again = tuple(draw.uniform(0, 0.1) for _ in range(draw.randint(0, 2)))
    return Plan([loops, *away_and_back(lab, draw, change)], again, keeps_shut=False)


def ports_leave(lab, draw):
    """Ports leave the bridge and return."""
    return loops_then(lab, draw, leaving)


def ports_replaced(lab, draw):
    """Ports are deleted and created again."""
    return loops_then(lab, draw, replacing)


def bridge_made_again(lab, draw):
    """The bridge is deleted and created again."""
    return loops_then(lab, draw, remaking)


def bridge_renamed(lab, draw):
    """The bridge has another name for a while."""
    return loops_then(lab, draw, renaming)


def recover_while_away(lab, draw):
    """Detection stops shutting ports while some of its shut ports are not in the bridge."""
    shut_some(lab, draw)
    events = away_and_back(lab, draw, draw.choice([leaving, replacing, remaking, renaming]))
    policy = typing(lab, draw.choice([WARNING, "no loop-detect enable"]))
    return Plan([*events, Event(draw.uniform(0, 0.18), policy)], keeps_shut=False)


KINDS = {kind.__name__: kind for kind in (
    burst, one_by_one, start, recover_by_warning, recover_by_disabling, recover_by_release, shut_while_recovering,
    typed_policy, requested_policy, ports_leave, ports_replaced, bridge_made_again, bridge_renamed,
    recover_while_away)}
