"""Firmware jobs and images, as the tests need them."""
import fcntl
import os

import configuration
from bed import ARCHIVE
from conftest import BUILD

from cloud.jobs import firmware_job
from router.virtual.firmware import build_image

SERVER = "http://cloud.example:8000"
OLD, NEW = "1.0.0", "1.1.0"


def image(version=NEW, *faults, migrates=False):
    """An image of this build tree; the tests of one run share them."""
    folder = BUILD / "firmware" / "system-tests"
    folder.mkdir(parents=True, exist_ok=True)
    name = "-".join([version, *faults, *["migrates"] * migrates])
    path = folder / f"{name}.img"
    lock = os.open(folder, os.O_RDONLY | os.O_DIRECTORY)
    try:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not is_fresh(path):
            build_image(path, BUILD, version, faults, migrates)
    finally:
        os.close(lock)
    return path


def is_fresh(path):
    if not path.exists():
        return False
    newest = max(p.stat().st_mtime for p in (BUILD / "router-images").iterdir())
    return path.stat().st_mtime > newest


def wait_for_archived(router, job_id="fw", seconds=60):
    """The job's record, when it is in the archive: also while the router is between two boots."""
    path = f"{ARCHIVE}/{job_id}"
    router.wait_until(lambda: router.live(path).exists(), seconds, f"job {job_id} in the archive")
    return configuration.read(router, path)


def job(files, path, cfg, job_id="fw", **params):
    """A firmware job for an image that the server has."""
    return firmware_job(job_id, SERVER + files.serve_image(path), cfg, **params)


def running(router):
    """Version and slot."""
    return router.run("sysdb get SYS_FW_VER").strip(), router.status()["slot"]


def leftovers(router):
    """Marks and files of an upgrade that has ended: there should be none."""
    names = " ".join(["FIRMWARE_UPDATED", "LOCAL_FW_UPGRADE", "MIGRATE", "config.staged", "config.staged.hash",
                      "config.new", "ACTIVE_JOB", "FAILSAFE_TIMER"])
    return router.run(f"cd /var/data/orv; ls -d {names} /var/volatile/orv/*EXECUTING /var/data/boot/trial "
                      "/mnt/slots/*.* 2>/dev/null", check=False).split()
