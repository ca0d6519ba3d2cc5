#!/usr/bin/env python3
"""plant.py [--build FOLDER] [--every N] [NAME...]: does the sweep find what is broken on purpose?

Each file of defects/ is one defect: a line that says what it is, the groups of scenarios to sweep, and a patch. In a
copy of this tree (in FOLDER, by default build/defects) each is applied, built and swept until something breaks, and
taken out again. Prints a table of what found it; ends with 1 when one was not found or could not be planted.
"""
import argparse
import re
import subprocess
import sys
import time
from pathlib import Path
from typing import NamedTuple

HERE = Path(__file__).resolve().parent
TREE = HERE.parents[1]


class Defect(NamedTuple):
    name: str
    what: str
    groups: list
    patch: str


def read_defect(path):
    what, groups, patch = path.read_text().split("\n", 2)
    return Defect(path.stem, what, groups.removeprefix("Groups: ").split(), patch)


def run(*command, **more):
    return subprocess.run(command, text=True, capture_output=True, check=False, **more)


def copy_tree(to):
    to.mkdir(parents=True, exist_ok=True)
    copied = run("sh", "-c", 'git ls-files -z | tar --null -T - -cf - | tar -xf - -C "$1"', "copy", str(to), cwd=TREE)
    if copied.returncode != 0:
        sys.exit(copied.stderr)
    packages = to / "build/packages"
    if not packages.exists():
        packages.parent.mkdir(exist_ok=True)
        packages.symlink_to(TREE / "build/packages")


def build(tree):
    if not (tree / "build/debug/build.ninja").exists():
        configured = run("cmake", "--preset", "debug", cwd=tree)
        if configured.returncode != 0:
            return configured
    return run("cmake", "--build", "build/debug", "--target", "sweep", cwd=tree)


def patch(tree, defect, *options):
    return run("patch", "-p1", "--quiet", "--no-backup-if-mismatch", *options, cwd=tree, input=defect.patch)


# The first breakage that a sweep prints: scenario, invariant, text.
FOUND = re.compile(r"^BROKEN:\n  (.*)\n    (.*):\n    (.*)\n", re.MULTILINE)


def sweep(tree, defect, every):
    for group in defect.groups:
        swept = run("build/debug/tests/sweep/sweep", "--first", "--every", str(every), group, cwd=tree)
        if swept.returncode == 0:
            continue
        found = FOUND.search(swept.stdout)
        return found.groups() if found else ("", "", f"the sweep ended with {swept.returncode}")
    return None


def plant(tree, defect, every):
    """What found it, or a text that says why it was not tried."""
    planted = patch(tree, defect, "--forward")
    try:
        if planted.returncode != 0:
            return "the patch does not fit"
        built = build(tree)
        if built.returncode != 0:
            return "it does not build:\n" + built.stdout[-2000:]
        return sweep(tree, defect, every)
    finally:
        if planted.returncode == 0:
            patch(tree, defect, "--reverse")


def row_of(defect, found, seconds):
    if found is None:
        outcome = "**not found** | |"
    elif isinstance(found, str):
        outcome = f"**not tried: {found}** | |"
    else:
        outcome = " | ".join(text.replace("|", "\\|") for text in found)
    return f"| {defect.what} (`{defect.name}`) | {outcome} | {seconds:.0f} |"


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("names", nargs="*")
    parser.add_argument("--build", type=Path, default=TREE / "build/defects")
    parser.add_argument("--every", type=int, default=1)
    wanted = parser.parse_args()
    tree = wanted.build.resolve()
    copy_tree(tree)
    built = build(tree)
    if built.returncode != 0:
        sys.exit(built.stdout + built.stderr)
    missed = 0
    print("| defect | found in | against | what broke | seconds |\n|---|---|---|---|---|", flush=True)
    for defect in [read_defect(path) for path in sorted((HERE / "defects").glob("*.patch"))]:
        if wanted.names and defect.name not in wanted.names:
            continue
        began = time.monotonic()
        found = plant(tree, defect, wanted.every)
        missed += not isinstance(found, tuple)
        print(row_of(defect, found, time.monotonic() - began), flush=True)
    print(f"\n{missed} not found")
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
