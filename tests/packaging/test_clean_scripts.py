"""tessard-clean-scripts, with a folder of its own in place of /var/volatile."""
import os
import subprocess
import time

import pytest

from conftest import TREE

MARKS = ["CONFIG_JOB_EXECUTING", "FW_JOB_EXECUTING", "RADIOFW_JOB_EXECUTING", "CRITICAL_JOB_EXECUTING", "FW_JOBID",
         "DEV_MGMT", "WD_MGMT", "SOMEBODY-ELSES_2024", "a:b:c"]
HOUR = 3600


@pytest.fixture
def folder(scratch):
    folder = scratch / "orv"
    folder.mkdir()
    return folder


def put(path, hours, text=""):
    path.write_text(f"{text}\n")
    os.utime(path, (time.time() - hours * HOUR,) * 2)


def clean(folder):
    """What is left. Processes are those of this machine."""
    script = (TREE / "packaging/tessard-clean-scripts").read_text()  # the tree itself may lie below /var
    subprocess.run(["bwrap", "--dev-bind", "/", "/", "--tmpfs", "/var", "--bind", folder.parent, "/var/volatile",
                    "/bin/sh", "-c", script], check=True)
    return sorted(path.name for path in folder.iterdir())


def ended_process():
    process = subprocess.Popen(["true"])
    process.wait()
    return process.pid


def test_old_scripts_and_process_ids_go(folder):
    put(folder / "critical 7_0:5:59_12-31-2025", 25)
    put(folder / "8_23:0:0_1-1-2026", 25)
    put(folder / "8.pid", 25, ended_process())
    put(folder / "9.pid", 25, "")
    assert clean(folder) == []


def test_marks_stay_whatever_their_age(folder):
    for mark in MARKS:
        put(folder / mark, 10000, "1")
    assert clean(folder) == sorted(MARKS)


def test_young_ones_stay(folder):
    put(folder / "8_23:0:0_1-1-2026", 23)
    put(folder / "8.pid", 23, ended_process())
    assert clean(folder) == ["8.pid", "8_23:0:0_1-1-2026"]


def test_what_belongs_to_a_living_process_stays_though_the_clock_was_set(folder):
    put(folder / "a_b_0:5:59_1-1-1970", 50 * 365 * 24)
    put(folder / "a_b.pid", 50 * 365 * 24, os.getpid())
    assert clean(folder) == ["a_b.pid", "a_b_0:5:59_1-1-1970"]
