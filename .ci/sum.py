#!/usr/bin/python3
"""Adds up the JUnit files of ctest runs. The last line is `N passed, N failed`.

Fails when a test failed, and when a run consists of nothing but skips: a machine that cannot make a
virtual router has tested nothing of it.
"""
import sys
import xml.etree.ElementTree as xml
from pathlib import Path


def count(path):
    suite = xml.parse(path).getroot()
    total, failed, skipped = (int(suite.get(key, 0)) for key in ("tests", "failures", "skipped"))
    return total - failed - skipped, failed, skipped


def main(paths):
    passed = failed = 0
    empty = []
    for path in map(Path, paths):
        one_passed, one_failed, one_skipped = count(path)
        print(f"{path.stem:16} {one_passed} passed, {one_failed} failed, {one_skipped} skipped")
        passed += one_passed
        failed += one_failed
        if not one_passed:
            empty.append(path.stem)
    for name in empty:
        print(f"nothing was tested in {name}")
    print(f"{passed} passed, {failed + len(empty)} failed")
    return 1 if failed or empty or not paths else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
