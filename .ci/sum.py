#!/usr/bin/python3
"""Adds up JUnit files. The last line is `N passed, N failed`, and `, N skipped` when there are any.

Fails when a case failed, and when a file has nothing but skips: a machine that cannot make a virtual router
has tested nothing of it.
"""
import sys
import xml.etree.ElementTree as xml
from pathlib import Path


def outcome(case):
    if case.find("failure") is not None or case.find("error") is not None:
        return "failed"
    return "skipped" if case.find("skipped") is not None else "passed"


def count(path):
    counts = {"passed": 0, "failed": 0, "skipped": 0}
    for case in xml.parse(path).iter("testcase"):
        counts[outcome(case)] += 1
        if outcome(case) == "failed":
            print(f"{path.stem}: failed: {case.get('classname')}.{case.get('name')}")
    return counts


def main(paths):
    total = {"passed": 0, "failed": 0, "skipped": 0}
    for path in map(Path, paths):
        counts = count(path)
        print(f"{path.stem:16} " + ", ".join(f"{number} {what}" for what, number in counts.items()))
        if not counts["passed"]:
            print(f"{path.stem}: nothing was tested")
            counts["failed"] += 1
        for what, number in counts.items():
            total[what] += number
    skipped = f", {total['skipped']} skipped" if total["skipped"] else ""
    print(f"{total['passed']} passed, {total['failed']} failed{skipped}")
    return 1 if total["failed"] or not paths else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
