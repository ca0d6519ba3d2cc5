"""What boot and supervision do for an agent that was cut: tessard-boot in the router's own boot.

Cuts that must come between an end that is stored and what follows it are made in real time, in the two seconds that
the agent waits after a report.
"""
import configuration
import firmware
import pytest
from bed import ACTIVE, PATIENCE
from configuration import LONG
from test_config_cut import RESUMED
from test_firmware_other import accepted, start_local_upgrade
from test_jobs import wait_archived
from test_survival import assert_failed_and_ran_once, start_script

MARKS = "/var/data/orv"


def told(router):
    """What tessard-boot has said in all boots."""
    return [line.split("tessard-boot: ", 1)[1] for line in router.log().splitlines() if " tessard-boot: " in line]


def persistent_files(router):
    """Every file with its content and when and where it was last written."""
    return router.run("find /var/data/orv /var/data/boot -type f -exec stat -c '%n %i %s %y %z' {} + | sort;"
                      "find /var/data/orv -type f -exec sha256sum {} + | sort")


def wait_for_stored(router, job, status):
    router.wait_until(lambda: f'"status" : "{status}"' in router.text(f"{ACTIVE}/{job}"), LONG,
                      f"job {job} to be stored as {status}")


def send(router, cloud, job, rule=None):
    router.wait_back(cloud)
    cloud.send_job(job, rule)


def nobody(*_):
    """The cloud takes no notice of a report."""


# --- nothing to do

def test_a_healthy_boot_is_told_nothing_and_changed_in_nothing(router, cloud):
    cloud.send_script("1", "true")
    wait_archived(router, "1")
    router.reboot()
    router.power_cut()
    assert told(router) == []
    before = persistent_files(router)
    router.run("tessard-boot boot && tessard-boot restart")
    assert persistent_files(router) == before
    assert told(router) == []


# --- an apply that had ended

@pytest.mark.router(speed=1)
def test_a_refused_configuration_that_is_cut_at_its_end_is_not_applied_again(router, cloud):
    before = configuration.read(router)
    configuration.send(router, cloud, network__interfaces__wan__mtu=1)
    wait_for_stored(router, "cfg", "failed")
    router.power_cut()
    wait_archived(router, "cfg")
    assert told(router) == ["the apply of job cfg had ended as failed: it is not resumed"]
    assert RESUMED not in router.log()
    assert router.archived_job("cfg")["status"] == "failed"
    assert configuration.in_force(router) == before


@pytest.mark.router(speed=1)
def test_an_aborted_configuration_that_is_cut_at_its_end_is_not_applied_again(router, cloud):
    before = configuration.read(router)
    router.net(False)
    configuration.place(router, configuration.changed(before, network__interfaces__wan__address="192.0.2.7"))
    cloud.send_job({"jobId": "request", "action": "FAILSAFE_CONFIG"})
    configuration.wait_for_progress(router, "performing connection test")
    cloud.publish("v1/device/cmd/config/abort/apply", "")
    wait_for_stored(router, "request", "failed")
    router.power_cut()
    router.net(True)
    wait_archived(router, "request")
    assert told(router) == ["the apply of job request had ended as failed: it is not resumed"]
    assert RESUMED not in router.log()
    assert router.archived_job("request")["status"] == "failed"
    assert configuration.in_force(router) == before


# --- a firmware job whose end was stored

@pytest.mark.router(speed=1)
def test_a_success_that_is_cut_before_its_mark_is_gone_keeps_its_firmware(router, cloud, files):
    cfg = configuration.changed(configuration.read(router), system__failsafe__enable=False)
    send(router, cloud, firmware.job(files, firmware.image(), cfg))
    wait_for_stored(router, "fw", "success")
    assert router.text(f"{MARKS}/FIRMWARE_UPDATED") == "slot 2\n"
    router.power_cut()
    assert firmware.wait_for_archived(router)["status"] == "success"
    router.reboot()
    assert firmware.running(router) == ("1.1.0", "2")
    assert "the upgrade of job fw is a success: its marks are deleted" in told(router)
    assert set(firmware.leftovers(router)) <= {"/var/data/boot/trial"}


@pytest.mark.router(speed=1)
def test_a_failure_that_is_cut_before_the_slot_is_switched_back_boots_the_former_one(router, cloud, files):
    before = configuration.read(router)
    send(router, cloud, firmware.job(files, firmware.image("1.1.0", "config"), before), nobody)
    wait_for_stored(router, "fw", "failed")
    router.power_cut()
    router.wait_for_event("up", LONG, slot="1", boot=4)
    assert "job fw failed and its firmware still runs: booting the other one" in told(router)
    assert firmware.running(router) == ("1.0.0", "1")
    assert configuration.read(router) == before
    assert firmware.leftovers(router) == []
    assert router.active_job("fw")["status"] == "failed"


def test_a_firmware_that_was_installed_after_a_failure_that_waits_stays(router, cloud, files):
    send(router, cloud, firmware.job(files, firmware.image("1.1.0", "config"), configuration.read(router)), nobody)
    accepted(router, 3)
    assert firmware.running(router) == ("1.0.0", "1")
    path = files.serve_image(firmware.image("1.2.0"))
    router.run(f"setsid local-upgrade {firmware.SERVER}{path} >/tmp/local-upgrade 2>&1 &", check=False)
    accepted(router, 5)
    for _ in range(2):
        router.reboot()
        assert firmware.running(router) == ("1.2.0", "2")
    assert router.active_job("fw")["status"] == "failed"
    assert [text for text in told(router) if "booting the other one" in text] == []
    cloud.rules.clear()
    assert firmware.wait_for_archived(router)["status"] == "failed"


def test_a_firmware_job_that_was_corrupt_is_told(router, cloud):
    router.run(f"echo '{{' >{ACTIVE}/fw; echo 1 >{MARKS}/FIRMWARE_UPDATED")
    router.wait_for_log("FW job corrupted, reverting to previous FW")
    cloud.wait_for_status("fw", "failed", LONG)
    wait_archived(router, "fw")
    assert told(router) == ["job fw failed without a session: it gets one, and will be told"]
    assert router.status()["slot"] == "2"


# --- an upgrade whose tool was cut

def cut_local_upgrade(router, files, fault):
    router.fault("orv-upgradefw", f"{fault} 1000")
    start_local_upgrade(router, files, firmware.image(), system__general__location="Depot 7")
    router.wait_until(lambda: router.text("/var/data/boot/installed"), LONG, "the installation")


def test_a_local_upgrade_that_is_cut_before_the_slot_is_chosen_leaves_nothing(router, files):
    cut_local_upgrade(router, files, "wait-before-switch")
    assert router.text(f"{MARKS}/LOCAL_FW_UPGRADE") == "slot 2\n"
    assert router.text(f"{MARKS}/FIRMWARE_UPDATED") == ""
    router.power_cut()
    assert told(router) == ["slot 2 of the local upgrade does not run: its marks are deleted"]
    assert firmware.running(router) == ("1.0.0", "1")
    assert firmware.leftovers(router) == []
    assert "job_mgr detects firmware update" not in router.texts()


def test_a_local_upgrade_that_is_cut_after_the_slot_is_chosen_is_verified(router, files):
    cut_local_upgrade(router, files, "wait-before-mark")
    router.wait_until(lambda: router.text("/var/data/boot/slot") == "2\n", PATIENCE, "the slot to be chosen")
    assert router.text(f"{MARKS}/FIRMWARE_UPDATED") == ""
    router.power_cut()
    accepted(router, 4)
    assert told(router)[0] == "slot 2 was chosen by an upgrade that was cut: FIRMWARE_UPDATED is set"
    assert "Config verification after FW upgrade successful" in router.texts()
    router.reboot()
    assert firmware.running(router) == ("1.1.0", "2")
    assert firmware.leftovers(router) == []


def test_an_upgrade_of_the_cloud_that_is_cut_after_the_slot_is_chosen_is_verified(router, cloud, files):
    router.fault("orv-upgradefw", "wait-before-mark 1000")
    send(router, cloud, firmware.job(files, firmware.image(), configuration.read(router)))
    router.wait_until(lambda: router.text("/var/data/boot/slot") == "2\n", LONG, "the slot to be chosen")
    router.power_cut()
    cloud.wait_for_status("fw", "success", LONG)
    firmware.wait_for_archived(router)
    assert told(router) == ["slot 2 was chosen by an upgrade that was cut: FIRMWARE_UPDATED is set"]
    assert "job_mgr detects IOT firmware update" in router.texts()
    assert firmware.running(router) == ("1.1.0", "2")


def test_a_local_upgrade_that_does_not_boot_is_forgotten(router, files):
    start_local_upgrade(router, files, firmware.image("1.1.0", "init"))
    router.wait_for_event("slot", LONG, text="slot 2 does not come up: back to slot 1")
    router.wait_for_log("slot 2 of the local upgrade does not run: its marks are deleted", LONG)
    router.wait_for_event("up", LONG, slot="1", boot=router.status()["boots"])
    assert firmware.running(router) == ("1.0.0", "1")
    assert firmware.leftovers(router) == []
    assert "job_mgr detects local firmware update" not in router.texts()


# --- an agent that was killed

def test_a_killed_agent_leaves_no_process_id_for_the_next_one(router, cloud):
    start_script(router, cloud)
    pid_file = "/var/volatile/orv/42.pid"
    router.wait_until(lambda: router.text(pid_file), PATIENCE, "the script's process id")
    router.kill_agent()
    assert router.text(pid_file) == ""
    assert router.text("/var/volatile/orv/FW_JOBID") == ""
    assert sorted(told(router)) == ["/var/volatile/orv/42.pid of a killed agent is deleted",
                                    "/var/volatile/orv/FW_JOBID of a killed agent is deleted"]
    assert_failed_and_ran_once(router, cloud)
