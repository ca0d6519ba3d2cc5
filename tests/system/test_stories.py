"""The stories of the demonstration, told in another order than theirs."""
import os
import subprocess

from conftest import BUILD

from router.virtual.client import TREE


def test_a_lock_out_comes_back_to_what_an_earlier_story_has_left(make_router):
    state = BUILD / "system/stories"
    done = subprocess.run(["/usr/bin/python3", "-m", "desk.stories", "--build", BUILD, "job", "lock-out"], cwd=TREE,
                          env={**os.environ, "VROUTER_STATE": str(state)}, capture_output=True, text=True,
                          timeout=300, check=False)
    assert done.returncode == 0, done.stderr[-3000:]
    assert "runs the configuration from before" in done.stdout
