"""Power cuts that take with them what was not flushed to the disk."""
import os
import shutil

import pytest
from bed import ACTIVE, PATIENCE
from real_disk import RealDisk

from cloud.service import Service, socket_of

RUNS = "/mnt/outside/runs"      # on this machine's own disk: a cut does not take it
SCRIPT = f"echo ran >> {RUNS}; sleep 20"
STORED = "write new job file: 42"


@pytest.fixture
def disk(make_router):
    if os.getuid() != 0 or not shutil.which("mkfs.ext4"):
        pytest.skip("a disk of its own needs root and mkfs.ext4")
    router = make_router(boot=False)
    disk = RealDisk(router)
    router.boot()
    yield disk
    router.down()
    disk.unmount()


def connected(router):
    router.wait_connected()
    return Service(socket_of(router))


def runs_of(router):
    runs = router.state / "outside/runs"
    return runs.read_text() if runs.exists() else ""


def assert_queue_is_whole(router):
    for name in router.active_jobs():
        assert router.active_job(name)["jobId"] == name


def test_the_disk_forgets_what_was_not_flushed(disk):
    disk.router.run("echo flushed > /var/data/flushed; sync -f /var/data; echo loose > /var/data/loose")
    disk.cut()
    assert disk.router.text("/var/data/flushed") == "flushed\n"
    assert disk.router.text("/var/data/loose") == ""


@pytest.mark.parametrize("moment", [
    STORED,
    "CMD:execute cmd job script jobId: 42",  # its script begins
    "execute command job script rc:0",      # it has ended, and nothing says so yet
    "send status update for job: 42 status: success",
])
def test_a_job_survives_a_cut_and_runs_once(disk, moment):
    router = disk.router
    with connected(router) as cloud:
        router.wait_until(cloud.link.is_connected, PATIENCE, "the broker")
        cloud.send_script("42", SCRIPT)
        router.wait_for_log(moment)
        if moment != STORED:    # the agent logs before the shell has said its first word
            router.wait_until(lambda: runs_of(router) == "ran\n", PATIENCE, "the first line of the script")
    disk.cut()
    assert_queue_is_whole(router)
    with connected(router):
        router.wait_until(lambda: router.archived_jobs() == ["42"], 60, "the job in the archive")
    assert runs_of(router) == "ran\n"
    record = router.archived_job("42")
    assert (record["jobId"], record["ack"]) == ("42", True)
    assert record["status"] in ("success", "failed")
    assert router.run(f"ls {ACTIVE} /var/data/.tmp | grep -v :; true").split() == []
