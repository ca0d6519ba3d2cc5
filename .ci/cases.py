#!/usr/bin/python3
"""cases.py CTEST-FILE FOLDER: one JUnit file of all cases, on standard output.

CTEST-FILE is the JUnit file of a ctest run, in which a test program is one test; FOLDER has the files in which
the programs tell their cases. A test with a dot in its name, such as sweep.scripts, is one case. Any other is a
program: one that crashed or left no file, or that failed although none of its cases did (a leak, say), is a failure
by its name.
"""
import sys
import xml.etree.ElementTree as xml
from pathlib import Path


def cases_of(path, program):
    """The cases of a program, in JUnit's words; none when the file is missing or broken off."""
    try:
        found = list(xml.parse(path).iter("testcase"))
    except (OSError, xml.ParseError):
        return []
    for case in found:
        case.set("classname", f"{program}.{case.get('classname')}")
        if case.get("status") == "notrun" and case.find("skipped") is None:
            xml.SubElement(case, "skipped")
    return found


def is_failed(case):
    return case.find("failure") is not None or case.find("error") is not None


def program_case(test, why=None):
    """The program as a case of its own, with its output."""
    case = xml.Element("testcase", name=test.get("name"), classname="program", time=test.get("time", "0"))
    for tag in ("failure", "skipped", "system-out"):
        case.extend(test.findall(tag))
    if test.get("status") in ("notrun", "disabled") and case.find("skipped") is None:
        why = why or "it was not run"
    if why and not is_failed(case):
        xml.SubElement(case, "failure", message=why)
    return case


def cases_of_test(test, folder):
    name = test.get("name")
    if "." in name:
        return [program_case(test)]
    cases = cases_of(folder / f"{name}.xml", name)
    if not cases:
        skipped = test.find("skipped") is not None
        return [program_case(test, None if skipped else "it told no cases")]
    if is_failed(test) and not any(map(is_failed, cases)):
        cases.append(program_case(test))
    return cases


def main(ctest_file, folder):
    suite = xml.Element("testsuite", name=Path(ctest_file).parent.name)
    for test in xml.parse(ctest_file).iter("testcase"):
        suite.extend(cases_of_test(test, Path(folder)))
    xml.ElementTree(suite).write(sys.stdout.buffer, encoding="utf-8", xml_declaration=True)
    return 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
