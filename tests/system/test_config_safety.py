"""Operators who configure: who changed what."""

import os
import re

import pytest

from lab import Lab, wait_for


@pytest.fixture
def lab():
    with Lab(ports=4, speed=60) as the_lab:
        the_lab.start_agent()
        yield the_lab


def test_lines_of_operators_are_in_the_log_and_those_of_the_agent_are_not(lab):
    lab.configure("loop-detect enable shutdown access-mode", "interface swp4", "shutdown")
    lab.cli("test loop plug swp1 swp2")
    wait_for(lambda: lab.cli("show running-config").count("apply shutdown-port") == 2, 10, "both ports are shut")
    lines = [line for line in lab.log().splitlines() if "%CLI-6-CONFIG: " in line]
    found = [re.fullmatch(r'.*%CLI-6-CONFIG: "(.*)" by \S+ \(uid (\d+), pid \d+\)', line) for line in lines]
    assert all(found), lines
    assert [match[1] for match in found] == ["loop-detect enable shutdown access-mode", "interface swp4; shutdown"]
    assert {match[2] for match in found} == {str(os.geteuid())}
