"""Each planted defect of the sweep fits the tree as it is: one that no longer applies is no longer looked for."""
import os
import subprocess
from pathlib import Path

TREE = Path(__file__).resolve().parents[2]
DEFECTS = sorted((TREE / "tests/sweep/defects").glob("*.patch"))


def refusal(defect):
    """What git says against the patch, empty when it applies. Nothing is written."""
    # No repository around the tree is asked: below the root of one, git passes over what it does not find there.
    alone = os.environ | {"GIT_CEILING_DIRECTORIES": str(TREE.parent)}
    checked = subprocess.run(["git", "apply", "--check", defect], cwd=TREE, env=alone, capture_output=True, text=True,
                             check=False)
    return checked.stderr if checked.returncode != 0 else ""


def test_each_defect_applies_to_the_sources():
    assert DEFECTS
    refusals = {defect.stem: refusal(defect) for defect in DEFECTS}
    assert {name: text for name, text in refusals.items() if text} == {}
