"""No case gets lost between the programs that ran and the sum: .ci/cases.py and .ci/sum.py."""
import subprocess
import xml.etree.ElementTree as xml
from pathlib import Path

import pytest

CHECKS = Path(__file__).resolve().parent.parent.parent / ".ci"
PASSED = '<testcase name="{}" status="run" classname="Suite"/>'
FAILED = '<testcase name="{}" status="run" classname="Suite"><failure message="broken"/></testcase>'
LEFT_OUT = '<testcase name="{}" status="notrun" result="suppressed" classname="Suite"/>'
SKIPPED = '<testcase name="{}" status="run" classname="Suite"><skipped message="no network"/></testcase>'


@pytest.fixture
def run(tmp_path):
    """What ctest tells of the program `one_test`, and what the program told of its cases."""
    def run(ctest, cases, name="one_test"):
        (tmp_path / "build/results").mkdir(parents=True)
        (tmp_path / "build/ctest.xml").write_text(
            f'<testsuite><testcase name="{name}" classname="{name}" {ctest}</testcase></testsuite>')
        if cases is not None:
            (tmp_path / "build/results/one_test.xml").write_text(cases)
        words = ["/usr/bin/python3", CHECKS / "cases.py", tmp_path / "build/ctest.xml", tmp_path / "build/results"]
        (tmp_path / "asan.xml").write_bytes(subprocess.run(words, capture_output=True, check=True).stdout)
        names = [case.get("name") for case in xml.parse(tmp_path / "asan.xml").iter("testcase")]
        done = subprocess.run(["/usr/bin/python3", CHECKS / "sum.py", tmp_path / "asan.xml"], capture_output=True,
                              text=True, check=False)
        return names, done.returncode, done.stdout.splitlines()[-1]
    return run


def told(*cases):
    inside = "".join(case.format(f"Case{number}") for number, case in enumerate(cases))
    return f"<testsuites><testsuite>{inside}</testsuite></testsuites>"


RAN = 'status="run">'
BROKE = 'status="fail"><failure message=""/>'
REFUSED = 'status="notrun"><skipped message="SKIP_RETURN_CODE=77"/>'


@pytest.mark.parametrize("ctest, cases, names, status, last", [
    (RAN, told(PASSED, PASSED), ["Case0", "Case1"], 0, "2 passed, 0 failed"),
    (BROKE, told(PASSED, FAILED), ["Case0", "Case1"], 1, "1 passed, 1 failed"),
    (RAN, told(PASSED, SKIPPED), ["Case0", "Case1"], 0, "1 passed, 0 failed, 1 skipped"),
    (RAN, told(PASSED, LEFT_OUT), ["Case0", "Case1"], 0, "1 passed, 0 failed, 1 skipped"),
    # A leak, or a crash after the last case.
    (BROKE, told(PASSED), ["Case0", "one_test"], 1, "1 passed, 1 failed"),
    # A crash on the way.
    (BROKE, None, ["one_test"], 1, "0 passed, 2 failed"),
    (BROKE, "<testsuites><testsu", ["one_test"], 1, "0 passed, 2 failed"),
    (RAN, None, ["one_test"], 1, "0 passed, 2 failed"),
    (RAN, told(), ["one_test"], 1, "0 passed, 2 failed"),
    (REFUSED, None, ["one_test"], 1, "0 passed, 1 failed, 1 skipped"),
])
def test_a_program_is_counted_by_its_cases(run, ctest, cases, names, status, last):
    assert run(ctest, cases) == (names, status, last)


def test_what_has_no_cases_of_its_own_is_one_case(run):
    assert run(RAN, None, name="sweep.scripts") == (["sweep.scripts"], 0, "1 passed, 0 failed")
