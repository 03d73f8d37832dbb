"""The drop-in for sshd ends the NETCONF sessions of clients that have silently gone."""
import pathlib
import subprocess

SAMPLE = pathlib.Path(__file__).resolve().parents[3] / "packaging" / "sshd-netconf.conf"


def settings_of(user, folder):
    """The settings in force for `user`, when root stands for the members of the group."""
    key = folder / "host"
    if not key.exists():
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", str(key)], check=True)
    config = folder / "sshd_config"
    text = SAMPLE.read_text()
    assert "Match Group netconf\n" in text
    config.write_text(f"HostKey {key}\n" + text.replace("Match Group netconf\n", "Match User root\n"))
    pathlib.Path("/run/sshd").mkdir(exist_ok=True)
    run = subprocess.run(["/usr/sbin/sshd", "-T", "-f", str(config), "-C", f"user={user},host=h,addr=192.0.2.1,laddr=192.0.2.2,lport=22"],
                         capture_output=True, text=True, check=False)
    assert run.returncode == 0, run.stderr
    return run.stdout.splitlines()


def test_sessions_of_vanished_clients_end_after_90_s(tmp_path):
    lines = settings_of("root", tmp_path)
    assert "clientaliveinterval 30" in lines
    assert "clientalivecountmax 3" in lines


def test_other_logins_keep_their_settings(tmp_path):
    assert "clientaliveinterval 0" in settings_of("daemon", tmp_path)
