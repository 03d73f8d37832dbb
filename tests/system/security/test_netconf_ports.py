"""The drop-in for sshd: only NETCONF on port 830, nothing new on the others, and no port is opened."""

import pathlib
import subprocess

import pytest

SAMPLE = pathlib.Path(__file__).resolve().parents[3] / "packaging" / "sshd-netconf.conf"
COMMAND = "/usr/sbin/lda-netconf --platform /etc/lda/lda.toml"

ONLY_NETCONF = {"forcecommand": COMMAND, "disableforwarding": "yes", "permittty": "no", "permituserrc": "no",
                "clientaliveinterval": "30", "clientalivecountmax": "3"}
AS_BEFORE = {"forcecommand": "none", "disableforwarding": "no", "permittty": "yes", "permituserrc": "yes",
             "clientaliveinterval": "0", "clientalivecountmax": "3"}


@pytest.fixture(scope="module")
def host_key(tmp_path_factory):
    key = tmp_path_factory.mktemp("sshd") / "host"
    subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", str(key)], check=True)
    pathlib.Path("/run/sshd").mkdir(exist_ok=True)
    return key


def settings(host_key, text, connection="user=root,lport=22"):
    """What sshd -T says, each setting with its values, when the drop-in is included by `text`."""
    drop_in = host_key.parent / "netconf.conf"
    # The group exists wherever the package is installed; here its place is taken by one of every machine.
    sample = SAMPLE.read_text()
    assert sample.count("Match Group netconf\n") == 1
    drop_in.write_text(sample.replace("Match Group netconf\n", "Match Group bin\n"))
    config = host_key.parent / "sshd_config"
    config.write_text(f"Include {drop_in}\nHostKey {host_key}\n{text}")
    # The test that the unit of ssh makes before each start.
    subprocess.run(["/usr/sbin/sshd", "-t", "-f", str(config)], check=True)
    run = subprocess.run(["/usr/sbin/sshd", "-T", "-f", str(config), "-C", connection], capture_output=True, text=True,
                         check=False)
    assert run.returncode == 0, run.stderr
    found = {}
    for line in run.stdout.splitlines():
        name, _, value = line.partition(" ")
        found.setdefault(name, []).append(value)
    return found


# `bin` is a member of the group, `daemon` and `root` are not.
@pytest.mark.parametrize("user, port, expected", [
    ("bin", 830, ONLY_NETCONF),
    ("daemon", 830, ONLY_NETCONF),
    ("root", 830, ONLY_NETCONF),
    ("bin", 22, ONLY_NETCONF),
    ("bin", 2222, ONLY_NETCONF),
    ("daemon", 22, AS_BEFORE),
    ("root", 22, AS_BEFORE),
    ("daemon", 2222, AS_BEFORE),
    ("root", 2222, AS_BEFORE),
    ("daemon", 831, AS_BEFORE),
    ("root", 8300, AS_BEFORE),
    ("daemon", 83, AS_BEFORE),
])
def test_what_a_connection_may_do(host_key, user, port, expected):
    connection = f"user={user},host=h,addr=192.0.2.1,laddr=192.0.2.2,lport={port}"
    found = settings(host_key, "", connection)
    assert {name: found[name][0] for name in expected} == expected


@pytest.mark.parametrize("text, ports", [("", ["22"]), ("Port 2222\n", ["2222"]),
                                         ("Port 2222\nPort 830\n", ["2222", "830"])])
def test_ports_are_those_of_the_operator(host_key, text, ports):
    assert settings(host_key, text)["port"] == ports


def test_addresses_are_those_of_the_operator(host_key):
    found = settings(host_key, "ListenAddress 127.0.0.1:2222\n")
    assert found["listenaddress"] == ["127.0.0.1:2222"]


def test_settings_after_the_include_hold_for_everybody(host_key):
    assert settings(host_key, "MaxAuthTries 2\n")["maxauthtries"] == ["2"]
