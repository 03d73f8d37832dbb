"""Man pages, and the units under which the services run."""

import re
import subprocess

import pytest

from lab import BUILD, ROOT

UNITS = ROOT / "packaging" / "systemd"
PAGES = sorted((ROOT / "docs" / "man").glob("*.scd"))

# The highest exposure that systemd-analyze(1) may report: 0 is a harmless service, 10 an
# unrestricted one.
EXPOSURE = {"lda.service": 1.5, "lda-redis.service": 1.5, "tarnd.service": 2.0}


def output_of(*command, text=""):
    return subprocess.run(command, input=text, capture_output=True, text=True, check=True)


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.stem)
def test_man_page_renders_without_warnings(page, tmp_path):
    roff = tmp_path / page.stem
    roff.write_text(output_of("scdoc", text=page.read_text()).stdout)
    shown = output_of("man", "--warnings", "--local-file", str(roff))
    assert shown.stderr == ""
    assert f"{page.stem.rpartition('.')[0]} - " in shown.stdout


def test_man_pages_refer_to_existing_pages():
    """Each page that another one refers to exists, or belongs to another package."""
    others = {"redis-cli(1)", "sd_notify(3)", "sshd(8)", "sshd_config(5)"}
    own = {f"{name}({section})" for name, _, section in (page.stem.rpartition(".") for page in PAGES)}
    named = {f"{name}({section})" for page in PAGES
             for name, section in re.findall(r"\*([\w.-]+)\*\((\d)\)", page.read_text())}
    assert named <= own | others
    assert {"lda(8)", "ldash(1)", "tarnd(8)", "lda-netconf(8)", "lda.toml(5)", "lda-records(7)"} <= own


@pytest.mark.parametrize("unit", EXPOSURE)
def test_unit_stays_within_its_exposure_level(unit):
    verdict = output_of("systemd-analyze", "security", "--offline=true", "--no-pager", str(UNITS / unit)).stdout
    level = float(re.search(r"Overall exposure level for \S+: ([\d.]+)", verdict)[1])
    assert level <= EXPOSURE[unit]


def test_units_pass_verification():
    """systemd-analyze names each unknown setting; missing programs and pages are not the units' fault."""
    verdict = subprocess.run(["systemd-analyze", "verify", "--man=no", *(str(UNITS / unit) for unit in EXPOSURE)],
                             capture_output=True, text=True, check=False).stderr
    assert [line for line in verdict.splitlines() if "is not executable" not in line] == []


def test_every_unit_of_the_package_is_tested():
    assert {path.name for path in UNITS.iterdir()} == set(EXPOSURE)


def test_every_message_of_agent_and_platform_is_explained():
    calls = re.compile(r"(?:log_message|printk_syslog(?:_ext)?)\(\s*\w+,\s*\"(\w+)\",\s*\"(\w+)\"")
    sources = [path for folder in ("app", "platform", "services") for path in (ROOT / folder).rglob("*.cpp")]
    logged = {"-".join(found) for path in sources for found in calls.findall(path.read_text())}
    page = (ROOT / "docs" / "operations.md").read_text()
    explained = set(re.findall(r"`([A-Z_]+-[A-Z_]+)`", page.split("## Messages of the system log")[1]))
    assert logged - explained == set()
    assert len(logged) > 20
    mnemonics = {name.partition("-")[2] for name in logged}
    known = {word for path in sources for word in re.findall(r"\"([A-Z_]+)\"", path.read_text())}
    assert {name for name in explained - logged if name.partition("-")[2] not in known | mnemonics} == set()


def keys_of_the_platform_file():
    """Key and default of each setting in the installed file; an empty default of one that is commented out."""
    section, settings = "", {}
    for line in (ROOT / "packaging" / "lda.toml").read_text().splitlines():
        if found := re.fullmatch(r"\[(\w+)\]", line):
            section = f"[{found[1]}] "
        elif found := re.fullmatch(r"(# )?(\w+) = (.*)", line):
            settings[section + found[2]] = "" if found[1] else found[3]
    return settings


def test_platform_file_manual_and_help_have_the_same_keys_and_defaults():
    settings = keys_of_the_platform_file()
    assert len(settings) == 22
    source = (ROOT / "platform" / "base" / "config.cpp").read_text()
    read = {f"[{section}] {key}" for section, keys in re.findall(r"section\(\"(\w+)\", {(.*?)}\)", source)
            for key in re.findall(r"\w+", keys)}
    assert read | {"switch", "store"} == set(settings)
    manual = re.findall(r"^\*(.*?)\*(?: = (.*))?$", (ROOT / "docs" / "man" / "lda.toml.5.scd").read_text(), re.M)
    assert dict(manual) == settings
    section, shown = "", {}
    usage = output_of(BUILD / "platform" / "lda", "--help").stdout
    for line in usage.split("with their defaults:\n")[1].splitlines():
        found = re.match(r"  (?:(\[\w+\] ) *| +)?(\w+)(?: = (\"[^\"]*\"|[\d.]+|true|false))?", line)
        section = found[1] or section if found else section
        if found:
            shown[section + found[2]] = found[3] or ""
    assert shown == settings


def check(file):
    return subprocess.run([str(BUILD / "platform" / "lda"), "--check", str(file)], capture_output=True, text=True,
                          check=False)


def test_platform_files_are_checked_without_a_start(tmp_path):
    for good in ("lda.toml", "lda-linux.toml"):
        done = check(ROOT / "packaging" / good)
        assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    bad = tmp_path / "bad.toml"
    bad.write_text('switch = "linux"\n[cli]\nmax_sessions = 0\n')
    done = check(bad)
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr == f"lda: {bad}:3: cli.max_sessions must be a whole number from 1 to 1024\n"
    assert check(tmp_path / "none.toml").stderr == (
        f"lda: {tmp_path}/none.toml: cannot be read: No such file or directory\n")


def test_every_test_named_on_the_security_page_exists():
    named = re.findall(r"`(\w+\.(?:cpp|py))`", (ROOT / "docs" / "security.md").read_text())
    there = {path.name for path in (ROOT / "tests").rglob("*_test.cpp")} | {
        path.name for path in (ROOT / "tests").rglob("test_*.py")}
    assert len(named) > 15
    assert set(named) - there == set()


PROGRAMS = {"lda": "platform", "ldash": "tools/ldash", "tarnctl": "tools/tarnctl", "tarnd": "services/tarnd",
            "lda-netconf": "services/netconf"}


def completions(program, previous, word):
    """What bash offers after the word `previous`; `:` and the name of a fallback when that is in force."""
    script = f"""
        compopt() {{ echo ":$2"; }}
        source {ROOT}/packaging/completion/lda
        _lda_programs /usr/bin/{program} '{word}' '{previous}'
        printf '%s\\n' "${{COMPREPLY[@]}}"
    """
    return output_of("bash", "-c", script).stdout.split()


@pytest.mark.parametrize("program", PROGRAMS)
def test_completion_offers_the_options_of_the_help(program):
    usage = output_of(BUILD / PROGRAMS[program] / program, "--help").stdout
    options = set(re.findall(r"(?<![\w-])(?:--[a-z]+|-[a-z])\b", usage)) | {"--help"}
    offered = completions(program, program, "")
    assert {word for word in offered if word.startswith("-")} == options
    assert set(offered) - options <= set(re.findall(r"^  ([a-z]+)", usage, re.M))


def test_completion_continues_a_word_and_names_files_where_a_file_stands():
    assert completions("tarnctl", "tarnctl", "") == ["show", "counters", "watch", "probe", "-s", "--json", "--help"]
    assert completions("tarnctl", "--json", "w") == ["watch"]
    assert completions("lda", "--check", "") == [":default"]
    assert completions("lda-netconf", "--yang", "") == [":dirnames"]
    assert completions("ldash", "-c", "") == []
