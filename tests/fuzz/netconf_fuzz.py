"""Sends broken NETCONF input to lda-netconf, one process for each input.

    tests/fuzz/netconf_fuzz.py --runs 5000 --seed 7

Seeds are the messages in netconf_seeds/. Each input consists of some of them, changed inside valid frames or
together with their frames. The session may end, but only by itself, with a log line and within the time
allowed; any other input is kept in a file and reported. The same seed number gives the same inputs.
"""

import argparse
import os
import pathlib
import random
import subprocess
import sys
import tempfile
import time

FOLDER = pathlib.Path(__file__).resolve().parent
HELLO = (FOLDER / "netconf_seeds" / "hello.xml").read_bytes().strip() + b"]]>]]>"
RPC = b'<rpc xmlns="urn:ietf:params:xml:ns:netconf:base:1.0" message-id="1">%s</rpc>'
WORDS = [b"\n##\n", b"\n#1\n", b"\n#0\n", b"\n#4294967295\n", b"]]>]]>", b"\n#", b"##\n", b"\0", b"\xff\xfe",
         b"&#x0;", b"&lt;", b"<!DOCTYPE a [<!ENTITY b 'c'>]>", b"&b;", b"<![CDATA[", b"]]>", b"<!--", b"-->", b"<?a",
         b'xmlns=""', b' xmlns:a="urn:a"', b"<a>", b"</a>", b"<a/>", b"'", b'"', b"-1", b"99999999999999999999",
         b' nc:operation="create"', b"<running/>", b"<candidate/>", b"<filter/>", b"\xc3\x28", b" " * 300]
TIME_LIMIT_S = 20
ENDINGS = (": closed", ": ended: ")


def framed(text):
    return b"\n#%d\n%s\n##\n" % (len(text), text)


def seeds():
    return [path.read_bytes().strip() for path in sorted((FOLDER / "netconf_seeds").glob("*.xml"))]


def changed(data, dice, corpus):
    """`data` with one to eight changes."""
    data = bytearray(data)
    for _ in range(dice.randint(1, 8)):
        start = dice.randint(0, len(data))
        end = min(len(data), start + dice.choice([0, 1, 2, 5, 20, 100]))
        kind = dice.randrange(7)
        if kind == 0 and data:
            data[start % len(data)] ^= 1 << dice.randrange(8)
        elif kind == 1:
            del data[start:end]
        elif kind == 2:
            data[start:end] = dice.choice(WORDS)
        elif kind == 3:
            data[start:start] = data[start:end] * dice.choice([1, 2, 50])
        elif kind == 4:
            other = dice.choice(corpus)
            cut = dice.randint(0, len(other))
            data[start:end] = other[cut:cut + 60]
        elif kind == 5:
            del data[start:]
        else:
            data[start:start] = dice.choice(WORDS)
    return bytes(data)


def random_input(dice, corpus):
    messages = [dice.choice(corpus) for _ in range(dice.randint(1, 4))]
    if dice.random() < 0.6:  # valid frames, so that they reach the parser
        return HELLO + b"".join(framed(changed(message, dice, corpus) or b" ") for message in messages)
    stream = b"".join(framed(message) for message in messages)
    return changed(HELLO + stream, dice, corpus) if dice.random() < 0.3 else HELLO + changed(stream, dice, corpus)


def fixed_inputs():
    """(name, bytes): inputs known to be difficult."""
    yield "nothing", b""
    yield "hello and no more", HELLO
    yield "no hello", framed(RPC % b"<get/>")
    yield "hello without capabilities", HELLO.replace(b"base:1.", b"base:9.")
    yield "empty message", HELLO + b"\n##\n"
    yield "empty chunk", HELLO + b"\n#0\n\n##\n"
    yield "blank message", HELLO + framed(b" ")
    for prolog in (b'<?xml version="1.0"?>', b"<!-- <a/> -->", b' <?xml version="1.0"?>\n<!---->', b"<?xml ", b"<!-- ", b"<!",
                   b"<!DOCTYPE a>", b"<![CDATA[ ]]>", b"text"):
        yield f"message of {prolog!r} alone", HELLO + framed(prolog)
    yield "ten megabytes of nested tags", HELLO + framed(b"<a>" * 3_500_000)
    yield "ten megabytes in small chunks", HELLO + framed(b"<a>")[:-4] * 1_300_000
    yield "ten megabytes of hello", b"<a>" * 3_500_000 + b"]]>]]>"
    yield "nested tags within the limit", HELLO + framed(b"<a>" * 21_000)
    yield "nested filter within the limit", HELLO + framed(
        RPC % (b"<get><filter>" + b"<a>" * 9_000 + b"</a>" * 9_000 + b"</filter></get>"))
    yield "nested subscription within the limit", HELLO + framed(
        RPC % (b'<create-subscription xmlns="urn:ietf:params:xml:ns:netconf:notification:1.0"><filter>' + b"<a>" * 9_000
               + b"</a>" * 9_000 + b"</filter></create-subscription>"))
    yield "wide configuration within the limit", HELLO + framed(
        RPC % (b"<edit-config><target><running/></target><config>" + b"<a/>" * 16_000 + b"</config></edit-config>"))
    yield "many attributes", HELLO + framed(b"<rpc " + b" ".join(b'a%d="x"' % n for n in range(5_000)) + b"/>")
    yield "long path", HELLO + framed(
        RPC % (b'<get><filter type="xpath" select="' + b"(" * 60_000 + b'"/></get>'))
    laughs = b"".join(b'<!ENTITY l%d "%s">' % (n + 1, b"&l%d;" % n * 10) for n in range(9))
    yield "entity expansion", HELLO + framed(
        b'<!DOCTYPE l [<!ENTITY l0 "ha">' + laughs + b"]>" + RPC % b"<get>&l9;</get>")
    yield "outer entity", HELLO + framed(b'<!DOCTYPE l [<!ENTITY f SYSTEM "file:///etc/passwd">]>' + RPC % b"&f;")
    good = framed(RPC % b"<get-config><source><running/></source></get-config>")
    for length in range(0, len(good), 7):
        yield f"frame cut after {length} bytes", HELLO + good[:length]
    bad = b"\n#3\n<a>#4\n</a>\n##\n"
    for length in range(len(bad)):
        yield f"broken frame from byte {length}", HELLO + bad[length:] + good


class Target:
    def __init__(self, command):
        self.command = [str(word) for word in command]
        self.crashes = 0  # ends that the session caught, but the library did not

    def fault_of(self, data):
        """The fault in the reaction to `data`, or None."""
        with tempfile.TemporaryFile() as log:
            process = subprocess.Popen(self.command, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=log)
            started = time.monotonic()
            try:
                process.communicate(data, timeout=TIME_LIMIT_S)
            except BrokenPipeError:
                process.wait(TIME_LIMIT_S)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
                return f"still there after {time.monotonic() - started:.0f} s"
            log.seek(0)
            lines = log.read().decode(errors="replace").splitlines()
        self.crashes += any("broke the parser" in line for line in lines)
        if process.returncode not in (0, 1):
            return f"status {process.returncode}: {lines[-3:]}"
        if not any(ending in line for line in lines for ending in ENDINGS):
            return f"no line tells of the end: {lines[-3:]}"
        return None


def attack(target, runs, seed, inputs=None):
    """Runs all inputs; returns the faults as (name, fault) and keeps their inputs in files."""
    dice = random.Random(seed)
    corpus = seeds()
    faults = []
    known = list(fixed_inputs()) if inputs is None else inputs
    for name, data in known + [(f"{seed}-{n}", random_input(dice, corpus)) for n in range(runs)]:
        fault = target.fault_of(data)
        if fault:
            path = pathlib.Path(tempfile.gettempdir()) / f"netconf-{name.replace(' ', '-')}.input"
            path.write_bytes(data)
            faults.append((name, f"{fault} ({path})"))
    return faults


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--runs", type=int, default=2000, help="random inputs (2000)")
    parser.add_argument("--seed", type=int, default=1, help="number that they follow from (1)")
    arguments = parser.parse_args()
    sys.path.insert(0, str(FOLDER.parent / "support"))
    from lab import Lab
    from netconf_lab import Front
    with Lab(store="redis") as lab, Front(lab) as front:
        lab.start_redis()
        lab.start_agent()
        target = Target(front.command())
        faults = attack(target, arguments.runs, arguments.seed)
        for name, fault in faults:
            print(f"{name}: {fault}")
        print(f"{arguments.runs} random inputs, {len(faults)} faults, {target.crashes} ends in the parser, "
              f"agent {'alive' if lab.agent.poll() is None else 'dead'}")
        return 1 if faults or lab.agent.poll() is not None else 0


if __name__ == "__main__":
    os.umask(0o077)
    sys.exit(main())
