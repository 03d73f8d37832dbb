"""Files, folders and sockets have the same modes whatever the umask; folders open to everybody are refused."""

import os
import stat
import subprocess

import pytest

from lab import BUILD, Lab, wait_for
from netconf_lab import PROGRAM, RawSession
from storm_lab import Program

# All that the agent, the probe service and a NETCONF session create.
MODES = {
    "cli/run": 0o750, "cli/run/cli.sock": 0o660, "cli/run/cli.sock.lock": 0o600,
    "saved/startup.cfg": 0o640, "saved/startup.cfg.journal": 0o600, "saved/startup.cfg.history": 0o640,
    "log/lda.log": 0o600, "log/.lda.lock": 0o600,
    "tarn": 0o700, "tarn/lock": 0o600, "tarn/key": 0o600, "tarn/cuts": 0o600, "tarn/guards": 0o600, "tarn/control": 0o600,
}
OWN_FOLDERS = ("cli", "saved", "log", "netconf")  # made by the test


class ModesLab(Lab):
    def write_platform_file(self, extra=""):
        for name in OWN_FOLDERS:
            (self.folder / name).mkdir(exist_ok=True)
        self.cli_socket = self.folder / "cli" / "run" / "cli.sock"
        self.startup_config = self.folder / "saved" / "startup.cfg"
        super().write_platform_file(f'{extra}[tarn]\nstate = "{self.folder}/tarn"\n')
        text = self.platform_file.read_text()
        self.platform_file.write_text(text.replace(f'log_dir = "{self.folder}"', f'log_dir = "{self.folder}/log"'))

    def probe_service(self):
        return Program("ip", "netns", "exec", self.namespace, "env", f"LDA_PLATFORM={self.platform_file}",
                       str(BUILD / "services" / "tarnd" / "tarnd"))

    def modes(self):
        """The modes below the folders that the programs use, by relative path."""
        found = {}
        for top in (*OWN_FOLDERS, "tarn"):
            for path in (self.folder / top).rglob("*"):
                found[str(path.relative_to(self.folder))] = stat.S_IMODE(path.lstat().st_mode)
        if (self.folder / "tarn").exists():
            found["tarn"] = stat.S_IMODE((self.folder / "tarn").stat().st_mode)
        return found


@pytest.fixture(params=[0o000, 0o077], ids=["umask 000", "umask 077"])
def lab(kernel_ports, request):
    with ModesLab(switch="linux", ports=2) as made:
        made.start_redis()
        before = os.umask(request.param)
        try:
            yield made
        finally:
            os.umask(before)


def test_modes_do_not_depend_on_the_umask(lab):
    lab.start_agent()
    lab.configure("loop-detect enable shutdown access-mode")
    lab.report_loop("swp1", True)
    wait_for(lambda: "loop-detect apply shutdown-port" in lab.saved(), 20, "the configuration is saved")
    wait_for(lambda: "saved/startup.cfg.history" in lab.modes(), 20, "the history is saved")
    program = [PROGRAM, "--platform", str(lab.platform_file), "--runtime", str(lab.folder / "netconf"), "--stderr"]
    with lab.probe_service(), RawSession(program, lab.folder / "session.log") as session:
        session.rpc("<lock><target><running/></target></lock>")
        wait_for(lambda: MODES.keys() <= lab.modes().keys(), 20, "all files are there")
        found = lab.modes()
        files = {path: found.pop(path) for path in list(found) if path.startswith("netconf/")}
        assert len(files) >= 2 and set(files.values()) == {0o660}
        assert found == MODES


@pytest.mark.parametrize("folder", ["cli/run", "saved", "log", "tarn", "netconf"])
def test_folder_in_which_everybody_may_write_is_refused(kernel_ports, folder):
    with ModesLab(switch="linux", ports=1) as lab:
        path = lab.folder / folder
        path.mkdir(exist_ok=True)
        path.chmod(0o777)
        reason = f'every user may exchange files in the folder {path}: take the right away with "chmod o-w"\n'
        env = {**os.environ, "LDA_PLATFORM": str(lab.platform_file)}
        for name, command in (("lda", ["platform/lda"]), ("lda", ["platform/lda", "--check", str(lab.platform_file)]),
                              ("tarnd", ["services/tarnd/tarnd"])):
            done = subprocess.run([str(BUILD / command[0]), *command[1:]], env=env, capture_output=True, text=True,
                                  check=False, timeout=20)
            assert (done.returncode, done.stderr) == (1, f"{name}: {reason}")
        path.chmod(0o1777)
        done = subprocess.run([str(BUILD / "platform" / "lda"), "--check", str(lab.platform_file)], check=False,
                              timeout=20)
        assert done.returncode == 0
