"""NETCONF filters that would keep a processor busy."""
import os
import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
from netconf_lab import EVENT, running_front  # noqa: E402

KERNEL_TICKS = os.sysconf("SC_CLK_TCK")
DENIED = "<error-tag>resource-denied</error-tag>"
GET = '<get><filter type="xpath" select="{}"/></get>'


@pytest.fixture(scope="module")
def front():
    with running_front() as the_front:
        yield the_front


def cpu_seconds_of(pid):
    """Of the process and of the children that it has waited for."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return sum(int(field) for field in fields[11:15]) / KERNEL_TICKS


@pytest.mark.parametrize("select", [
    "//*[//*[//*[//*]]]",
    "//*[count(//*[count(//*[count(//*)])])]",
    "|".join(["//*[//*[//*]]"] * 100),
    "//*[//*[//*[//*[//*[//*[//*[//*[//*[//*]]]]]]]]]",
])
def test_xpath_that_takes_too_long_is_denied_and_the_session_goes_on(front, select):
    with front.raw() as session:
        for _ in range(2):
            before = cpu_seconds_of(session.process.pid)
            assert DENIED in session.rpc(GET.format(select), timeout=90)
            assert cpu_seconds_of(session.process.pid) - before < 2.3
        assert "<session-id>" in session.rpc(GET.format("//*[local-name()='session-id']"))
        assert "<ok/>" in session.rpc("<close-session/>")
        assert session.process.wait(timeout=20) == 0


def test_xpath_of_a_subscription_that_takes_too_long_ends_its_session(front):
    with front.raw() as session, front.raw() as other:
        select = "|".join(["//*[//*[//*[//*[//*]]]]"] * 2000)
        assert "<ok/>" in session.rpc(
            f'<create-subscription xmlns="{EVENT}"><filter type="xpath" select="{select}"/></create-subscription>')
        assert "<ok/>" in other.rpc(f'<create-subscription xmlns="{EVENT}"/>')
        assert cpu_seconds_of(session.process.pid) < 2.3
        front.lab.configure("loop-detect enable")
        front.lab.report_loop(2, is_loop=1)
        assert "<name>swp2</name>" in other.read(timeout=10)
        assert session.process.wait(timeout=90) == 1
    assert "): ended: the filter takes too much time or memory\n" in front.log()


def test_sessions_leave_the_processor_to_the_switch(front):
    with front.raw() as session:
        fields = pathlib.Path(f"/proc/{session.process.pid}/stat").read_text().rsplit(")", 1)[1].split()
        assert int(fields[16]) == os.getpriority(os.PRIO_PROCESS, 0) + 10
