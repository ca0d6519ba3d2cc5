"""The units under a real systemd."""
import json
import resource
import shutil
import subprocess
import tempfile
import time
from pathlib import Path

import pytest
from machine import REBOOT

MARKS = "/var/volatile/orv"


def test_the_agent_starts_when_its_machine_does(machine):
    machine.boot()
    assert len(machine.starts()) == 1
    assert machine.show("tessard.service", "ActiveState") == "active"


def test_an_agent_that_dies_again_and_again_is_started_for_ever(machine):
    machine.behave('[ "$(wc -l </out/starts)" -gt 12 ] || exit 1')
    machine.boot()
    machine.wait_for_starts(13)
    assert machine.show("tessard.service", "ActiveState") == "active"


@pytest.mark.parametrize("mark", ["CONFIG_JOB_EXECUTING", "FW_JOB_EXECUTING"])
def test_an_agent_that_dies_in_an_apply_or_an_upgrade_reboots_its_machine(machine, mark):
    machine.boot()
    machine.run(f"echo 1 >{MARKS}/{mark}")
    machine.kill_agent()
    assert machine.wait_for_end() == REBOOT

    machine.boot()
    assert len(machine.starts()) == 2
    assert machine.run(f"ls {MARKS}") == "", "the mark is gone with the memory it was in"


def test_an_agent_that_dies_otherwise_is_started_again(machine):
    machine.boot()
    for death, mark in enumerate([None, "CRITICAL_JOB_EXECUTING", "RADIOFW_JOB_EXECUTING", "FW_JOBID"], 1):
        if mark:
            machine.run(f"echo 1 >{MARKS}/{mark}")
        machine.kill_agent()
        machine.wait_for_starts(death + 1)


def test_an_agent_that_is_restarted_in_an_apply_does_not_reboot_its_machine(machine):
    machine.boot()
    machine.run(f"echo 1 >{MARKS}/CONFIG_JOB_EXECUTING; systemctl restart tessard.service")
    machine.wait_for_starts(2)


def test_what_the_agent_had_started_ends_with_it(machine):
    machine.behave("setsid sleep 12345 &")
    machine.boot()
    machine.behave("")
    machine.kill_agent()
    machine.wait_for_starts(2)
    assert machine.run("pgrep -x -a sleep").split()[1:] == ["sleep", "infinity"]


def test_the_limit_of_descriptors_is_in_force(machine):
    machine.boot()
    [limits] = machine.starts()
    soft, hard = map(int, limits.split())
    assert soft == 4096
    assert hard >= min(524288, resource.getrlimit(resource.RLIMIT_NOFILE)[1]), "what it starts may have more"


def test_a_silent_agent_is_started_again(machine):
    machine.boot()
    assert machine.show("tessard.service", "WatchdogUSec") == "5h"
    machine.run("mkdir -p /run/systemd/system/tessard.service.d;"
                " printf '[Service]\\nWatchdogSec=1\\n' >/run/systemd/system/tessard.service.d/quick.conf;"
                " systemctl daemon-reload; systemctl restart tessard.service")
    machine.wait_for_starts(3)


def test_the_agent_itself_runs_under_the_unit_and_pings(machine, build):
    machine.be_agent((build / "tessard").read_bytes())
    machine.boot()
    machine.wait(lambda: machine.show("tessard.service", "WatchdogTimestampMonotonic") != "0", "the first ping")
    pid = machine.show("tessard.service", "MainPID")
    assert machine.run("cat /run/tessard.pid").strip() == pid
    assert "Starting tessard" in machine.run("journalctl --sync; journalctl --unit tessard.service --output cat")


def test_the_agent_sees_the_same_files_as_every_other_service(machine):
    machine.behave("readlink /proc/self/ns/mnt >/out/mounts; echo from-agent >/tmp/left")
    machine.boot()
    assert (machine.out / "mounts").read_text().strip() == machine.run("readlink /proc/1/ns/mnt").strip()
    assert machine.run("cat /tmp/left").strip() == "from-agent"


def test_volatile_is_a_bounded_part_of_the_memory(machine):
    machine.boot()
    assert machine.run("findmnt -n -o FSTYPE,OPTIONS /var/volatile").split()[0] == "tmpfs"
    size = int(machine.run("df --output=size -k /var/volatile").split()[1])
    memory = int(machine.run("awk '/MemTotal/ { print $2 }' /proc/meminfo"))
    assert size == pytest.approx(memory / 4, rel=0.01)


def test_a_line_of_the_device_for_volatile_replaces_the_unit(machine):
    machine.write("etc/fstab", "tmpfs /var/volatile tmpfs mode=0755,size=1m 0 0\n")
    machine.boot()
    assert machine.run("df --output=size -k /var/volatile").split()[1] == "1024"
    assert len(machine.starts()) == 1


def test_tmp_is_in_memory_where_the_distribution_has_a_unit_for_it(machine):
    machine.write("etc/systemd/system/tmp.mount", "[Mount]\nWhat=tmpfs\nWhere=/tmp\nType=tmpfs\nOptions=size=50%\n")
    machine.boot(tmp_in_memory=False)
    assert machine.run("findmnt -n -o FSTYPE /tmp").strip() == "tmpfs"


@pytest.fixture
def disk(scratch):
    """A folder that is not in memory: the clone itself may be."""
    for place in (scratch, "/var/tmp", "/root"):
        if subprocess.run(["stat", "-f", "-c", "%T", place], capture_output=True, text=True,
                          check=True).stdout.strip() != "tmpfs":
            folder = tempfile.mkdtemp(prefix="disk-", dir=place)
            yield Path(folder)
            shutil.rmtree(folder)
            return
    pytest.skip("everything on this machine is in memory")


def test_an_agent_whose_marks_would_outlive_a_reboot_is_not_started(machine, disk):
    machine.mask("var-volatile.mount")
    machine.bind(disk, "/var/volatile")
    (disk / "orv").mkdir()
    (disk / "orv/CONFIG_JOB_EXECUTING").write_text("1\n")
    machine.boot()
    assert machine.show("tessard.service", "ActiveState") == "inactive"
    assert machine.show("tessard.service", "Result") == "exec-condition"
    assert machine.starts() == []
    log = machine.run("journalctl --sync; journalctl --unit tessard.service --priority crit --output cat")
    assert log == "/var/volatile/orv is not in memory (no tmpfs): the job agent is not started\n"


def test_boot_empties_tmp_where_it_is_a_disk(machine):
    machine.write("tmp/cli_output_77.txt", "of the run before\n")
    machine.write("tmp/folder/.hidden", "")
    machine.boot(tmp_in_memory=False)
    assert machine.run("findmnt /tmp", check=False) == "", "or this test would show nothing"
    assert machine.run("ls -d /tmp/cli_output_77.txt /tmp/folder", check=False) == ""


def test_housekeeping_runs_once_an_hour(machine):
    machine.boot()
    assert machine.show("tessard-housekeeping.timer", "ActiveState") == "active"
    assert "OnUnitActiveUSec=1h" in machine.show("tessard-housekeeping.timer", "TimersMonotonic")
    [timer] = json.loads(machine.run("systemctl list-timers --output json tessard-housekeeping.timer"))
    assert timer["activates"] == "tessard-housekeeping.service"
    assert 0 < timer["next"] / 1e6 - time.time() <= 16 * 60, "for the first time 15 minutes after the boot"


def test_housekeeping_removes_what_is_old_and_nothing_else(machine):
    machine.boot()
    boot = machine.run("cat /proc/sys/kernel/random/boot_id").strip().replace("-", "")
    archive = "/var/data/orv/vantrel_iot/jobs/archive"
    private = f"/tmp/systemd-private-{boot}-other.service-x/tmp"
    old = ["/tmp/cli_output_1.txt", f"{archive}/1", f"{MARKS}/1_9:5:7_1-2-2020", f"{MARKS}/1.pid"]
    kept = [f"{private}/file", f"{MARKS}/CONFIG_JOB_EXECUTING", "/var/data/orv/vantrel_iot/jobs/active/2"]
    machine.run(f"mkdir -p {private}; touch -d '2020-01-02 09:05' {' '.join(old + kept)}")
    machine.run("systemctl start tessard-housekeeping.service")
    assert machine.run(f"ls -d {' '.join(old)} 2>/dev/null", check=False) == ""
    assert machine.run(f"ls {' '.join(kept)}").split() == sorted(kept)
    assert machine.show("tessard-housekeeping.service", "Result") == "success"
