"""The list of directories and ages, by systemd-tmpfiles on a folder, with the words that systemd gives it."""
import os
import subprocess
import time

import pytest

AT_BOOT = ["--create", "--remove", "--boot", "--exclude-prefix=/dev"]
DAY = 24 * 3600
ARCHIVE = "var/data/orv/vantrel_iot/jobs/archive"
ACTIVE = "var/data/orv/vantrel_iot/jobs/active"
DISTRIBUTIONS = {"none": None, "emptied": "D /tmp 1777 root root -\n", "aged": "q /tmp 1777 root root 10d\n"}


def tmpfiles(root, *words):
    as_root = [] if os.geteuid() == 0 else ["unshare", "--map-root-user"]
    subprocess.run([*as_root, "systemd-tmpfiles", f"--root={root}", *words], check=True, capture_output=True)


def put(path, days=0):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text("")
    os.utime(path, (time.time() - days * DAY,) * 2)
    return path


@pytest.mark.parametrize("distribution", DISTRIBUTIONS)
def test_boot_empties_tmp_whatever_the_distribution_says(installed, distribution):
    if DISTRIBUTIONS[distribution]:
        put(installed / "usr/lib/tmpfiles.d/tmp.conf").write_text(DISTRIBUTIONS[distribution])
    put(installed / "tmp/cli_output_1.txt")
    put(installed / "tmp/folder/.hidden")
    tmpfiles(installed, *AT_BOOT)
    assert list((installed / "tmp").iterdir()) == []
    assert (installed / "tmp").stat().st_mode & 0o7777 == 0o1777


def test_boot_makes_what_the_agent_needs_and_keeps_what_it_has_stored(installed):
    stored = [put(installed / path, days=1000) for path in
              (f"{ACTIVE}/1", f"{ARCHIVE}/2", "var/data/orv/config.json", "var/data/boot/slot")]
    staged = put(installed / "var/data/.tmp/half")
    tmpfiles(installed, *AT_BOOT)
    assert all(path.exists() for path in stored)
    assert not staged.exists()
    for folder in ("var/volatile/orv", "var/volatile/config", "var/volatile/log", "var/volatile/.tmp"):
        assert (installed / folder).is_dir(), folder


def test_what_is_old_goes_by_its_age(installed):
    tmpfiles(installed, *AT_BOOT)
    for path, days in (("tmp/cli_output_1.txt", 8), (f"{ARCHIVE}/1", 91)):
        put(installed / path, days)
    kept = [put(installed / path, days) for path, days in
            (("tmp/cli_output_2.txt", 6), (f"{ARCHIVE}/2", 89), (f"{ACTIVE}/3", 1000),
             ("var/volatile/orv/CONFIG_JOB_EXECUTING", 1000), ("var/volatile/orv/FW_JOBID", 1000),
             ("var/volatile/config/config.running", 1000))]
    tmpfiles(installed, "--clean")
    for folder in ("tmp", ARCHIVE):
        left = sorted(path for path in (installed / folder).iterdir())
        assert left == [path for path in kept if path.parent == installed / folder]
    assert all(path.exists() for path in kept)
