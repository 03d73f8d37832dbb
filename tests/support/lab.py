"""A laboratory: agents, a private redis-server and, for the Linux switch, a network namespace with a bridge.

Everything lives in one temporary folder and ends with the `with` block:

    with Lab(switch="linux", ports=4) as lab:
        lab.start_redis()
        lab.start_agent()
        lab.cli("show loop-detect")

Programs are taken from build/dev, or from the folder named in LDA_BUILD. Only the Linux switch needs root.
"""

import contextlib
import ctypes
import itertools
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import redis

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("LDA_BUILD", ROOT / "build" / "dev"))
APP_DB = 4
LOCAL_DB = 3
CFG_DB = 22
CLONE_NEWNET = 0x40000000


def _schemas():
    """The record classes, generated from proto/ into a temporary folder."""
    folder = tempfile.mkdtemp(prefix="lda-schemas-")
    names = ["p_app", "p_bridge", "p_mng", "p_nc"]
    subprocess.run(["protoc", f"--proto_path={ROOT / 'proto'}", f"--python_out={folder}",
                    *[f"{name}.proto" for name in names]], check=True)
    sys.path.insert(0, folder)
    modules = [__import__(f"{name}_pb2") for name in names]
    shutil.rmtree(folder)
    return modules


p_app, p_bridge, p_mng, p_nc = _schemas()
_numbers = itertools.count(1)  # of laboratories


def wait_for(condition, timeout, what, every=0.02):
    """Polls until `condition()` is true and returns its value; AssertionError with `what` after `timeout` s."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"after {timeout} s still not: {what}")
        time.sleep(every)


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, **options).stdout


@contextlib.contextmanager
def within(namespace):
    """Moves this thread into a network namespace; sockets that it opens there stay inside."""
    libc = ctypes.CDLL(None, use_errno=True)
    with open("/proc/thread-self/ns/net") as home, open(f"/run/netns/{namespace}") as inside:
        if libc.setns(inside.fileno(), CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), "setns")
        try:
            yield
        finally:
            libc.setns(home.fileno(), CLONE_NEWNET)


class Lab:
    """One agent with its surroundings. Ports of the Linux switch are named swp1, swp2, ..."""

    def __init__(self, switch="embedded", store=None, ports=4, speed=None):
        self.switch = switch
        self.store = store or ("redis" if switch == "linux" else "memory")
        self.port_names = [f"swp{number}" for number in range(1, ports + 1)]
        self.speed = speed
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="lda-lab-"))
        self.namespace = f"lda{os.getpid()}-{next(_numbers)}" if switch == "linux" else None
        self.redis_socket = self.folder / "redis.sock"
        self.cli_socket = self.folder / "cli.sock"
        self.netconf_runtime = self.folder / "netconf"
        self.startup_config = self.folder / "startup.cfg"
        self.platform_file = self.folder / "lda.toml"
        self.agent_log = self.folder / "agent.log"
        self.agent = None
        self.redis_server = None

    def __enter__(self):
        if self.namespace:
            self._make_bridge()
        self.write_platform_file()
        return self

    def __exit__(self, *_):
        self.kill_agent()
        self.kill_redis()
        if self.namespace:
            subprocess.run(["ip", "netns", "delete", self.namespace], check=False)
        shutil.rmtree(self.folder, ignore_errors=True)

    # ---- surroundings ----

    def write_platform_file(self, extra=""):
        clock = f"[clock]\nspeed = {self.speed}\n" if self.speed else ""
        linux = '[linux]\nbridge = "br0"\n' if self.switch == "linux" else ""
        embedded = f"[embedded]\nports = {len(self.port_names)}\n" if self.switch == "embedded" else ""
        self.platform_file.write_text(
            f'switch = "{self.switch}"\nstore = "{self.store}"\n'
            f'{linux}{embedded}[redis]\nsocket = "{self.redis_socket}"\n'
            f'[cli]\nsocket = "{self.cli_socket}"\n'
            f'[files]\nstartup_config = "{self.startup_config}"\nlog_dir = "{self.folder}"\n'
            f'[netconf]\nruntime = "{self.netconf_runtime}"\n{clock}{extra}')

    def _make_bridge(self):
        run("ip", "netns", "add", self.namespace)
        self.ip("link", "add", "br0", "type", "bridge")
        self.ip("link", "set", "br0", "up")
        self.batch(*(line for name in self.port_names for line in self.port_lines(name)))

    def ip(self, *arguments):
        return run("ip", "-n", self.namespace, *arguments)

    def port_lines(self, name):
        """Lines of ip(8) that make a veth pair: `name` in the bridge, its peer `name`-far beside it."""
        return (f"link add name {name} type veth peer name {name}-far", f"link set {name}-far up",
                f"link set {name} master br0 up")

    def add_port(self, name):
        self.batch(*self.port_lines(name))

    def batch(self, *lines):
        """Executes lines of ip(8) in the namespace, with one process for all."""
        subprocess.run(["ip", "-n", self.namespace, "-batch", "-"], input="\n".join(lines) + "\n", text=True,
                       check=True)

    def link(self, name):
        return json.loads(self.ip("-j", "link", "show", "dev", name))[0]

    def ifindex(self, name):
        return self.link(name)["ifindex"]

    def is_up(self, name):
        """The administrative state of a kernel interface."""
        return "UP" in self.link(name)["flags"]

    def down_ports(self):
        """The ports that are administratively down."""
        links = {link["ifname"]: link["flags"] for link in json.loads(self.ip("-j", "link", "show"))}
        return [name for name in self.port_names if "UP" not in links.get(name, "UP")]

    # ---- redis ----

    def start_redis(self, wait=True):
        self.redis_server = subprocess.Popen(
            ["redis-server", "--port", "0", "--unixsocket", str(self.redis_socket), "--databases", "32",
             "--save", "", "--appendonly", "yes", "--dir", str(self.folder)],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        if wait:
            wait_for(self._redis_answers, 10, "redis-server answers")

    def _redis_answers(self):
        try:
            return self.database(0).ping()
        except (redis.exceptions.ConnectionError, redis.exceptions.TimeoutError):
            return False

    def kill_redis(self):
        if self.redis_server:
            self.redis_server.kill()
            self.redis_server.wait()
            self.redis_server = None

    def database(self, number):
        return redis.Redis(unix_socket_path=str(self.redis_socket), db=number)

    def set_record(self, database, kind, key, record):
        """Stores a record and notifies the subscribers, as docs/object-database.md says."""
        packed = record if isinstance(record, bytes) else record.SerializeToString()
        with self.database(database).pipeline(transaction=True) as pipe:
            pipe.set(f"{kind}/{key}", packed)
            pipe.publish(f"mom/{database}/{kind}", b"\x00" + packed)
            pipe.execute()

    def report_loop(self, port, is_loop, source=None, vid=1):
        """Sets the probe protocol's record of a port; ports are given by name or interface index."""
        index = port if isinstance(port, int) else self.ifindex(port)
        origin = index if source is None else source if isinstance(source, int) else self.ifindex(source)
        record = p_bridge.tarn_loop_info(vid=vid, is_loop=is_loop, src_ifx=origin)
        record.index.ifx = index
        self.set_record(APP_DB, "p_bridge.tarn_loop_info", f"ifx={index}", record)

    def report_loops(self, ports):
        """Sets the records of all `ports`, named as for report_loop, at once: each sees its own probes."""
        records = []
        for port in ports:
            index = port if isinstance(port, int) else self.ifindex(port)
            record = p_bridge.tarn_loop_info(vid=1, is_loop=1, src_ifx=index)
            record.index.ifx = index
            records.append((index, record.SerializeToString()))
        with self.database(APP_DB).pipeline(transaction=True) as pipe:
            for index, packed in records:
                pipe.set(f"p_bridge.tarn_loop_info/ifx={index}", packed)
                pipe.publish(f"mom/{APP_DB}/p_bridge.tarn_loop_info", b"\x00" + packed)
            pipe.execute()

    def loop_entries(self):
        """The published loop entries, by key."""
        database = self.database(APP_DB)
        keys = [key.decode() for key in database.keys("p_app.lda_loop_entry/*")]
        return {key: p_app.lda_loop_entry.FromString(database.get(key)) for key in keys}

    # ---- agent ----

    def inside(self, *command):
        """The output of a command that runs in the network namespace."""
        return run("ip", "netns", "exec", self.namespace, *command)

    def start_agent(self, wait=True, through=()):
        """`through` is a command that runs the agent's command line, such as setpriv(1)."""
        prefix = ["ip", "netns", "exec", self.namespace] if self.namespace else []
        self.agent = subprocess.Popen([*prefix, *through, str(BUILD / "platform" / "lda")],
                                      env={**os.environ, "LDA_PLATFORM": str(self.platform_file)},
                                      stdin=subprocess.DEVNULL, stdout=open(self.agent_log, "ab"),
                                      stderr=subprocess.STDOUT)
        if wait:
            wait_for(lambda: self.cli_status("show loop-detect") == 0, 20, "the agent takes commands")

    def kill_agent(self, how=signal.SIGKILL):
        if self.agent:
            self.agent.send_signal(how)
            status = self.agent.wait()
            self.agent = None
            return status
        return None

    def ldash(self, *lines):
        command = [str(BUILD / "tools" / "ldash" / "ldash"), "-s", str(self.cli_socket)]
        for line in lines:
            command += ["-c", line]
        return subprocess.run(command, capture_output=True, text=True, check=False, timeout=60)

    def cli(self, *lines):
        """Types lines in one session and returns the output; a refusal is an error."""
        done = self.ldash(*lines)
        assert done.returncode == 0, f"{lines}: status {done.returncode}: {done.stdout}{done.stderr}"
        return done.stdout

    def cli_status(self, *lines):
        return self.ldash(*lines).returncode

    def configure(self, *lines):
        return self.cli("configure terminal", *lines)

    def saved(self):
        """The saved configuration, empty when there is none yet."""
        return self.startup_config.read_text() if self.startup_config.exists() else ""

    def log(self):
        """The agent's system log."""
        if self.switch == "linux":
            return self.cli("show logging")
        return self.agent_log.read_text(errors="replace")
