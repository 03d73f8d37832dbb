"""The laboratory of the lease rounds: a redis-server, agents under supervision, and a witness beside each.

The agents run the simulated switch and have their own command-line sockets, so that the lease alone keeps them
apart. A supervisor starts an agent again as soon as it has ended. The witness of an agent asks it "show role"
every few milliseconds and never waits for the answer, so that it also asks while the agent is stopped.
"""

import json
import os
import pathlib
import select
import signal
import socket
import subprocess
import tempfile
import threading
import time

import redis

from lab import BUILD, wait_for
from moved_clock import MovedClock

LEASE_S = 1.0
ASK_EVERY_S = 0.01
REQUEST = b'{"exec": "show role | json"}\n'


class Incarnation:
    """What a witness has seen of one process: it acted at some moment between each question and its answer."""

    def __init__(self, agent, pid, fence, asked, answered):
        self.agent, self.pid, self.fence = agent, pid, fence
        self.first_answer = answered
        self.last_question = asked
        self.answers = [answered]

    def __str__(self):
        return (f"{self.agent}, process {self.pid}, number {self.fence}: from {self.first_answer:.3f} "
                f"until {self.last_question:.3f}")


class Agent:
    """One agent with its supervisor and its witness, each a thread."""

    def __init__(self, lab, name):
        self.lab, self.name = lab, name
        self.socket = lab.folder / f"{name}.sock"
        self.platform_file = lab.folder / f"{name}.toml"
        self.platform_file.write_text(
            'switch = "embedded"\nstore = "redis"\n[embedded]\nports = 2\n'
            f'[redis]\nsocket = "{lab.redis_socket}"\n[cli]\nsocket = "{self.socket}"\n'
            f'[files]\nstartup_config = "{lab.folder}/{name}.cfg"\n'
            f'[role]\nmode = "lease"\nlease_ms = {round(1000 * LEASE_S)}\n')
        self.log = lab.folder / f"{name}.log"
        self.statuses = []  # of processes that have ended
        self.process = None
        self.incarnations = []
        self.ending = False
        self.threads = [threading.Thread(target=self._supervise), threading.Thread(target=self._witness)]

    def start(self):
        for thread in self.threads:
            thread.start()

    def end(self):
        self.ending = True
        if self.process:
            self.process.kill()
        for thread in self.threads:
            thread.join()

    def signal(self, how):
        self.process.send_signal(how)

    def acts(self):
        """Whether the witness has had an answer within the last moment."""
        seen = self.incarnations[-1:]
        return bool(seen) and seen[0].pid == self.process.pid and time.monotonic() - seen[0].answers[-1] < 0.1

    def _supervise(self):
        while not self.ending:
            with open(self.log, "ab") as log:
                self.process = subprocess.Popen(
                    [str(BUILD / "platform" / "lda")], stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                    env={**os.environ, **self.lab.clock.environment, "LDA_PLATFORM": str(self.platform_file)})
            if self.ending:
                self.process.kill()
            self.statuses.append(self.process.wait())
            time.sleep(0.02)

    def _witness(self):
        while not self.ending:
            with socket.socket(socket.AF_UNIX) as session:
                try:
                    session.connect(str(self.socket))
                    session.setblocking(False)
                    self._watch(session)
                except OSError:
                    time.sleep(ASK_EVERY_S)

    def _watch(self, session):
        questions, received = [], b""
        while not self.ending:
            if len(questions) < 5000:
                questions.append(time.monotonic())
                session.send(REQUEST)
            until = time.monotonic() + ASK_EVERY_S
            while (left := until - time.monotonic()) > 0:
                if not select.select([session], [], [], left)[0]:
                    break
                now_received = session.recv(65536)
                if not now_received:
                    raise ConnectionError("the session has ended")
                received += now_received
                *lines, received = received.split(b"\n")
                for line in lines:
                    self._note(json.loads(line), questions.pop(0), time.monotonic())

    def _note(self, answer, asked, answered):
        role = json.loads(answer["output"])
        if not self.incarnations or self.incarnations[-1].pid != role["pid"]:
            self.incarnations.append(Incarnation(self.name, role["pid"], role["fence"], asked, answered))
        self.incarnations[-1].last_question = asked
        self.incarnations[-1].answers.append(answered)


class LeaseLab:
    def __init__(self, names=("a", "b")):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="lda-lease-"))
        self.redis_socket = self.folder / "redis.sock"
        self.redis_server = None
        self.clock = MovedClock(self.folder)
        self.agents = [Agent(self, name) for name in names]

    def __enter__(self):
        self.start_redis()
        for agent in self.agents:
            agent.start()
        return self

    def __exit__(self, *_):
        for agent in self.agents:
            agent.end()
        self.kill_redis()
        subprocess.run(["rm", "-rf", str(self.folder)], check=False)

    # ---- redis ----

    def start_redis(self):
        self.redis_server = subprocess.Popen(
            ["redis-server", "--port", "0", "--unixsocket", str(self.redis_socket), "--databases", "32",
             "--save", "", "--appendonly", "yes", "--appendfsync", "always", "--dir", str(self.folder)],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env={**os.environ, **self.clock.environment})
        wait_for(self._redis_answers, 10, "redis-server answers", every=0.005)

    def _redis_answers(self):
        try:
            return redis.Redis(unix_socket_path=str(self.redis_socket)).ping()
        except redis.exceptions.ConnectionError:
            return False

    def kill_redis(self, forget=False):
        if self.redis_server:
            self.redis_server.kill()
            self.redis_server.wait()
            self.redis_server = None
        if forget:
            subprocess.run(["rm", "-rf", str(self.folder / "appendonlydir")], check=True)

    def database(self, number=0):
        return redis.Redis(unix_socket_path=str(self.redis_socket), db=number)

    # ---- roles ----

    def acting(self):
        return [agent for agent in self.agents if agent.acts()]

    def wait_for_master(self, timeout=10):
        return wait_for(self.acting, timeout, "an agent acts", every=0.002)[0]

    def standby(self):
        master = self.wait_for_master()
        return next(agent for agent in self.agents if agent is not master)

    def incarnations(self):
        return sorted((one for agent in self.agents for one in list(agent.incarnations)),
                      key=lambda one: one.first_answer)

    def acted_after(self, moment):
        """The first time after `moment` at which an agent is known to have acted; None while there is none."""
        return min((answer for one in self.incarnations() for answer in one.answers if answer > moment), default=None)

    def forget(self):
        """Drops everything seen, except for the processes that may still act."""
        for agent in self.agents:
            agent.incarnations[:-1] = []
            for one in agent.incarnations:
                one.answers[:-1] = []

    def overlaps(self):
        """Pairs of processes that acted at the same time: each answered a question that was asked after the other had
        answered one."""
        seen = self.incarnations()
        return [f"both act: {first}; {second}" for number, first in enumerate(seen) for second in seen[number + 1:]
                if first.last_question > second.first_answer and second.last_question > first.first_answer]
