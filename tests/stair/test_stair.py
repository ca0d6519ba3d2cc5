"""The check of the stair, on small trees: it must fail when an arrow climbs."""
import subprocess
import sys
from pathlib import Path

import pytest

STAIR = Path(__file__).with_name("stair.py")


@pytest.fixture
def tree(tmp_path):
    subprocess.run(["git", "init", "-q", str(tmp_path)], check=True)
    return tmp_path


def write(tree, path, text):
    (tree / path).parent.mkdir(parents=True, exist_ok=True)
    (tree / path).write_text(text)


def check(tree):
    return subprocess.run([sys.executable, STAIR, tree], capture_output=True, text=True, check=False)


def test_an_arrow_down_is_shown(tree):
    write(tree, "jobs/job_store.cpp", '#include "platform/vantrel.h"\n')
    done = check(tree)
    assert done.returncode == 0
    assert "3  jobs               -> platform\n" in done.stdout


@pytest.mark.parametrize("path, used", [
    ("jobs/job_store.cpp", "config/apply.h"),
    ("jobs/job_status.h", "jobs/manager/job_manager.h"),
    ("agent/client/tessard.cpp", "agent/job_intake.h"),
    ("actions/requests/device_requests.cpp", "agent/requests/checkin.h"),
    ("config/apply.cpp", "host/cmd/paths.h"),
    ("host/cmd/boot.cpp", "jobs/job_record.h"),
])
def test_an_arrow_that_climbs_fails(tree, path, used):
    write(tree, path, f'#include "{used}"\n')
    done = check(tree)
    assert done.returncode == 1
    assert path in done.stderr


@pytest.mark.parametrize("path, used", [
    ("router/virtual/client.py", "from cloud.service import Service"),
    ("cloud/service.py", "import desk.stories"),
])
def test_an_import_that_climbs_fails(tree, path, used):
    write(tree, path, used + "\n")
    done = check(tree)
    assert done.returncode == 1
    assert path in done.stderr


def test_a_folder_that_is_no_room_fails(tree):
    write(tree, "jobs/other/x.cpp", "")
    assert "jobs/other/x.cpp lies in no room" in check(tree).stderr
