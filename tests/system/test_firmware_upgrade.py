"""Firmware jobs from the cloud, through the real tool, into the other slot and, where it has to be, back."""
import configuration
import firmware
import pytest
from bed import PATIENCE

from router.virtual.network import GATEWAY

# An upgrade is two boots and a verification.
LONG = 60


def send(router, cloud, job):
    router.wait_back(cloud)
    cloud.send_job(job)


def with_location(router, text):
    return configuration.changed(configuration.read(router), system__general__location=text)


def test_a_good_upgrade_is_verified_and_reported(router, cloud, files):
    cfg = with_location(router, "Depot 7")
    send(router, cloud, firmware.job(files, firmware.image(), cfg))
    assert cloud.wait_for_status("fw", "success", LONG).msg == "FW upgrade 1.0.0 to 1.1.0"
    assert cloud.statuses("fw")[-2:] == ["executed", "success"]
    firmware.wait_for_archived(router)
    assert firmware.running(router) == ("1.1.0", "2")
    assert router.run("sysdb get SYS_FW_LABEL").strip() == "tessard-1.1.0"
    assert configuration.read(router)["system"]["general"]["location"] == "Depot 7"
    assert configuration.read(router) == configuration.read(router, configuration.STORED)
    assert firmware.leftovers(router) == []
    router.reboot()
    assert firmware.running(router) == ("1.1.0", "2")
    assert configuration.read(router)["system"]["general"]["location"] == "Depot 7"


def test_the_next_upgrade_goes_into_the_first_slot_again(router, cloud, files):
    cfg = configuration.read(router)
    for version, slot in (("1.1.0", "2"), ("1.2.0", "1")):
        send(router, cloud, firmware.job(files, firmware.image(version), cfg, version))
        cloud.wait_for_status(version, "success", LONG)
        firmware.wait_for_archived(router, version)
        assert firmware.running(router) == (version, slot)


def test_every_service_starts_anew_under_the_new_firmware(router, cloud, files):
    send(router, cloud, firmware.job(files, firmware.image(), configuration.read(router)))
    cloud.wait_for_status("fw", "success", LONG)
    texts = [str(entry) for entry in router.journal()]
    begun = texts.index("boot-loader tries slot 2, 2 more")
    done = [text for text in texts[begun:] if text.endswith(("done", "done: off"))]
    assert done[2:11] == [
        "cmd_netgen apply done", "cmd_firewall apply done", "cmd_wifi apply done: off", "cmd_wifi reload done: off",
        "qtel-mgr reload done", "cmd_ipsec restart done: off", "vtr-netwd reload done", "vtr-app-mgr reload done",
        "vtr-iot reload done"]


def test_an_upgrade_whose_configuration_is_found_wrong_goes_back(router, cloud, files):
    before = configuration.read(router)
    send(router, cloud, firmware.job(files, firmware.image("1.1.0", "config"), with_location(router, "x")))
    report = cloud.wait_for_status("fw", "failed", LONG)
    assert report.msg == "FW upgrade config verification failed. Reverting to previous FW"
    job = firmware.wait_for_archived(router)
    assert "asset_tag" in job["validation_result"]
    assert firmware.running(router) == ("1.0.0", "1")
    assert configuration.read(router) == before
    assert firmware.leftovers(router) == []


def test_an_upgrade_whose_configuration_cuts_the_router_off_goes_back(router, cloud, files):
    before = configuration.read(router)
    cfg = configuration.changed(before, network__interfaces__wan__gateway="192.0.2.99", system__failsafe__timer=1)
    send(router, cloud, firmware.job(files, firmware.image(), cfg))
    report = cloud.wait_for_status("fw", "failed", LONG)
    assert report.msg == "FW upgrade config verification failed. Reverting to previous FW"
    firmware.wait_for_archived(router)
    assert firmware.running(router) == ("1.0.0", "1")
    assert configuration.read(router) == before
    assert f"via {GATEWAY}" in router.run("ip route show default")
    assert firmware.leftovers(router) == []


def test_a_configuration_with_another_hash_goes_back(router, cloud, files):
    job = firmware.job(files, firmware.image(), configuration.read(router))
    job["params"]["hashAtFwVer"] = "0" * 64
    send(router, cloud, job)
    router.wait_for_log("Error hash mismatch for staged config. Expecting: " + "0" * 64, LONG)
    assert firmware.wait_for_archived(router)["status"] == "failed"
    assert firmware.running(router) == ("1.0.0", "1")
    assert firmware.leftovers(router) == []


@pytest.mark.parametrize("fault", ["agent", "init"])
def test_an_image_that_does_not_bring_the_agent_up_is_given_up(router, cloud, files, fault):
    send(router, cloud, firmware.job(files, firmware.image("1.1.0", fault), configuration.read(router)))
    router.wait_for_log("FW upgrade failed current partition has not changed.", 120)
    assert firmware.wait_for_archived(router)["status"] == "failed"
    assert firmware.running(router) == ("1.0.0", "1")
    assert firmware.leftovers(router) == []
    told = [entry.text for entry in router.journal("boot-loader")]
    tries = ["tries slot 2, 2 more", "tries slot 2, 1 more", "tries slot 2, 0 more"] if fault == "agent" else []
    assert told == [*tries, "slot 2 does not come up: back to slot 1"]


def test_a_migrating_upgrade_reboots_migrated(router, cloud, files):
    cfg = with_location(router, "Depot 7")
    send(router, cloud, firmware.job(files, firmware.image("1.1.0", migrates=True), cfg))
    cloud.wait_for_status("fw", "success", LONG)
    assert router.count_in_log("rebooting after successful FW upgrade and config migration") == 1
    firmware.wait_for_archived(router)
    assert configuration.read(router)["system"]["general"]["location"] == "Depot 7"
    assert firmware.leftovers(router) == []


def test_a_power_cut_while_the_image_is_written_leaves_the_old_firmware(router, cloud, files):
    cfg = configuration.read(router)
    router.fault("orv-upgradefw", "wait-in-install 1000")
    send(router, cloud, firmware.job(files, firmware.image(), cfg))
    installing = "orv-upgradefw installs 1.1.0 into slot 2"
    router.wait_until(lambda: installing in map(str, router.journal()), PATIENCE, "the installation")
    router.fault("orv-upgradefw")
    router.power_cut()
    assert firmware.wait_for_archived(router)["status"] == "failed"
    assert firmware.running(router) == ("1.0.0", "1")
    send(router, cloud, firmware.job(files, firmware.image(), cfg, "again"))
    cloud.wait_for_status("again", "success", LONG)
    firmware.wait_for_archived(router, "again")
    assert firmware.leftovers(router) == []


def test_a_power_cut_after_the_switch_boots_the_new_firmware(router, cloud, files):
    router.fault("orv-upgradefw", "wait-before-reboot 1000")
    send(router, cloud, firmware.job(files, firmware.image(), configuration.read(router)))
    slot = router.live("/var/data/boot/slot")
    router.wait_until(lambda: slot.exists() and slot.read_text() == "2\n", PATIENCE, "the switch")
    router.power_cut()
    cloud.wait_for_status("fw", "success", LONG)
    firmware.wait_for_archived(router)
    assert firmware.running(router) == ("1.1.0", "2")
    assert firmware.leftovers(router) == []


def test_a_power_cut_during_the_verification_begins_it_anew(router, cloud, files):
    router.fault("cmd_ipsec", "slow 1000")
    send(router, cloud, firmware.job(files, firmware.image(), with_location(router, "Depot 7")))
    router.wait_until(lambda: "cmd_ipsec restart" in map(str, router.journal()), LONG, "the verification")
    router.fault("cmd_ipsec")
    router.power_cut()
    cloud.wait_for_status("fw", "success", LONG)
    firmware.wait_for_archived(router)
    assert firmware.running(router) == ("1.1.0", "2")
    assert configuration.read(router)["system"]["general"]["location"] == "Depot 7"
    assert firmware.leftovers(router) == []


def test_a_job_that_waits_is_run_by_the_new_firmware(router, cloud, files):
    router.fault("orv-upgradefw", "held until the other job is there")
    send(router, cloud, firmware.job(files, firmware.image(), configuration.read(router)))
    cloud.wait_for_status("fw", "executed")
    cloud.send_script("waits", "sysdb get SYS_FW_VER > /var/data/ran-under\n")
    router.wait_for_log("write new job file: waits")
    router.fault("orv-upgradefw")
    cloud.wait_for_status("waits", "success", LONG)
    assert router.run("cat /var/data/ran-under").strip() == "1.1.0"
    ends = [firmware.wait_for_archived(router, job)["status"] for job in ("fw", "waits")]
    assert ends == ["success", "success"]


def test_a_job_that_waits_is_run_by_the_old_firmware_after_a_fall_back(router, cloud, files):
    router.fault("orv-upgradefw", "held until the other job is there")
    send(router, cloud, firmware.job(files, firmware.image("1.1.0", "config"), configuration.read(router)))
    cloud.wait_for_status("fw", "executed")
    cloud.send_script("waits", "sysdb get SYS_FW_VER > /var/data/ran-under\n")
    router.wait_for_log("write new job file: waits")
    router.fault("orv-upgradefw")
    cloud.wait_for_status("waits", "success", LONG)
    assert router.run("cat /var/data/ran-under").strip() == "1.0.0"
    assert firmware.wait_for_archived(router)["status"] == "failed"
