#!/usr/bin/python3
"""Holds docs/behaviour-tests.md to docs/behaviour.md: every statement is shown by a test, or says why not.

A statement is a sentence of a paragraph or of a bullet, or a row of a table. Each is listed once, under its own
heading, by its first words. What shows it is a test that the sources have, by one of these names:

    Suite.Name              a test of tests/**/*.cpp
    test_file.test_name     a function of tests/**/test_file.py
    sweep.name              a scenario of tests/sweep

or `-` and the reason why no test is owed. Ends with a line for each fault, and with status 1 when there is one.
"""
import re
import sys
from pathlib import Path
from typing import NamedTuple

STATEMENTS = "docs/behaviour.md"
LIST = "docs/behaviour-tests.md"
COLUMNS = ["statement", "shown by"]

SENTENCE_END = re.compile(r"[.?!][\"')]*\s+(?=[A-Z`\"'(0-9/])")
CPP_COMMENT = re.compile(r'"(?:\\.|[^"\\\n])*"|//[^\n]*|/\*.*?\*/', re.DOTALL)
CPP_TEST = re.compile(r"^(?:TYPED_)?TEST(?:_F|_P)?\(\s*(\w+)\s*,\s*(\w+)\s*\)", re.MULTILINE)
PYTHON_TEST = re.compile(r"^def (test_\w+)\(", re.MULTILINE)
SCENARIO = re.compile(r'\{\s*"([^"\\]+)"\s*,\s*(?=[{\w])')


class Row(NamedTuple):
    heading: str
    statement: str
    shown_by: str


def cells(line):
    """Those of a row of a Markdown table; None for a line that is none."""
    if not line.startswith("|"):
        return None
    return [cell.strip() for cell in re.split(r"(?<!\\)\|", line.strip().strip("|"))]


def is_ruler(row):
    return all(re.fullmatch(r":?-+:?", cell) for cell in row)


def sentences(text):
    """A full stop inside of `code` ends none."""
    code_hidden = re.sub(r"`[^`]*`", lambda code: "`" + "x" * (len(code[0]) - 2) + "`", text)
    begin = 0
    for end in SENTENCE_END.finditer(code_hidden):
        yield text[begin:end.end()].strip()
        begin = end.end()
    if text[begin:].strip():
        yield text[begin:].strip()


def blocks(text):
    """(heading, paragraph, bullet or row of a table), with the lines of one joined."""
    heading, lines, table = "", [], []
    for line in [*text.splitlines(), ""]:
        row = cells(line)
        if lines and (row or not line.strip() or line.startswith(("#", "- "))):
            yield heading, " ".join(lines)
            lines = []
        if row:
            table.append(row)
            if len(table) > 2:  # the first is the head, the second the ruler
                yield heading, row
            continue
        table = []
        if line.startswith("#"):
            heading = line.strip()
        elif line.strip():
            lines.append(line.removeprefix("- ").strip())


def statements(text):
    """(heading, statement) in their order."""
    for heading, block in blocks(text):
        if isinstance(block, list):
            yield heading, " | ".join(block)
        else:
            for sentence in sentences(block):
                yield heading, sentence


def listed(text):
    heading = ""
    for line in text.splitlines():
        row = cells(line)
        if line.startswith("#"):
            heading = line.strip()
        elif row and row != COLUMNS and not is_ruler(row):
            yield Row(heading, row[0].replace(r"\|", "|"), " | ".join(row[1:]))


def known_tests(tree):
    names = set()
    for path in sorted((tree / "tests").rglob("*.cpp")):
        source = CPP_COMMENT.sub(lambda found: found[0] if found[0].startswith('"') else " ", path.read_text())
        names.update(f"{suite}.{name}" for suite, name in CPP_TEST.findall(source)
                     if not (suite + name).startswith("DISABLED_") and "DISABLED_" not in name)
        if path.name.endswith("_scenarios.cpp"):
            names.update(f"sweep.{name}" for name in SCENARIO.findall(source))
    for path in sorted((tree / "tests").rglob("test_*.py")):
        names.update(f"{path.stem}.{name}" for name in PYTHON_TEST.findall(path.read_text()))
    return names


def faults_of_what_shows(row, tests):
    where = f"{LIST}: {row.statement!r}"
    if row.shown_by.startswith("-"):
        if len(row.shown_by.lstrip("- ").split()) == 0:
            yield f"{where} gives no reason why no test is owed"
        return
    names = [name.strip().strip("`") for name in row.shown_by.split(",")]
    for name in names:
        if not name:
            yield f"{where} names no test"
        elif name not in tests:
            yield f"{where} names {name}, which is no test"


def faults(tree):
    stated = list(statements((tree / STATEMENTS).read_text()))
    rows = list(listed((tree / LIST).read_text()))
    tests = known_tests(tree)
    rows_of = [[row for row in rows if row.heading == heading and row.statement and text.startswith(row.statement)]
               for heading, text in stated]
    for (heading, text), its_rows in zip(stated, rows_of):
        if len(its_rows) != 1:
            times = "not listed" if not its_rows else f"listed {len(its_rows)} times"
            yield f"{STATEMENTS}, {heading}: {times}: {text!r}"
    for row in rows:
        matched = sum(any(row is its for its in its_rows) for its_rows in rows_of)
        if matched != 1:
            yield f"{LIST}, {row.heading}: begins {matched or 'no'} statement{'s' * (matched > 1)}: {row.statement!r}"
        yield from faults_of_what_shows(row, tests)


def main(tree):
    found = list(faults(Path(tree)))
    for fault in found:
        print(fault)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:] or [Path(__file__).resolve().parent.parent.parent]))
