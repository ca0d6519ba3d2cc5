"""Modem firmware, and upgrades that a person at the router starts."""
import configuration
import firmware
import pytest
from bed import ACTIVE, PATIENCE

LONG = 60
MODEM = "/modem.bin"


def modem_job(job_id="modem", **members):
    return {"jobId": job_id, "action": "FW", "value": firmware.SERVER + MODEM, "params": {"radio": True},
            "radio": True, **members}


def ended(router, job_id, rc):
    text = f"job {job_id} ended, rc {rc}"
    router.wait_until(lambda: text in [entry.text for entry in router.journal("qtel-dfota")], PATIENCE, text)


def wait_for_the_next_message(router, cloud):
    """By then the agent is done with those before it."""
    cloud.publish("v1/device/iot/job/update", "")
    router.wait_for_log("on_message: topic[v1/device/iot/job/update]")


@pytest.fixture
def modem_files(files):
    """A server that the modem's own tool fetches from: it has no token."""
    files.token = None
    files.files[MODEM] = b"modem firmware 2"
    return files


def test_modem_firmware_is_fetched_installed_and_told(router, cloud, modem_files):
    former = router.run("cat /var/run/qtel-mgr.pid")
    cloud.send_job(modem_job())
    cloud.wait_for_status("modem", "executed")
    assert "FW:execute qtel dfota: modem" in router.texts()
    ended(router, "modem", 0)
    router.wait_for_log("topic[v1/device/job/modem/update]")
    assert router.run("cat /var/data/modem/firmware") == "modem firmware 2"
    assert router.run("cat /var/run/qtel-mgr.pid") != former
    assert firmware.running(router) == ("1.0.0", "1")


def test_the_end_of_modem_firmware_is_taken_for_jobs_of_the_cloud_s_put(router, cloud, modem_files):
    """The action that ends by the modem service's report is stored by another service of the device."""
    cloud.send_job(modem_job())
    cloud.wait_for_status("modem", "executed")
    ended(router, "modem", 0)
    router.wait_for_log("tessard job update message v1/device/job/modem/update")
    wait_for_the_next_message(router, cloud)
    record = router.active_job("modem")
    assert record["status"] == "executed", "a report ends only a put"
    configuration.write(router, {**record, "action": "fw_put"}, f"{ACTIVE}/modem")
    assert router.run("cat /var/volatile/orv/RADIOFW_JOB_EXECUTING").strip() == "1"
    router.run(f"qtel-dfota -i {firmware.SERVER}{MODEM} -j modem")
    cloud.wait_for_status("modem", "success")
    router.wait_until(lambda: not router.live("/var/volatile/orv/RADIOFW_JOB_EXECUTING").exists(), PATIENCE, "the flag")


def test_modem_firmware_that_cannot_be_fetched_is_told(router, cloud, modem_files):
    modem_files.fault = 404
    cloud.send_job(modem_job())
    ended(router, "modem", 1)
    router.wait_for_log("topic[v1/device/job/modem/update]")
    assert router.run("test -e /var/data/modem/firmware || echo none").strip() == "none"


def test_a_second_modem_job_is_not_started_while_one_runs(router, cloud, modem_files):
    router.fault("qtel-dfota", "slow 1000")
    cloud.send_job(modem_job())
    cloud.wait_for_status("modem", "executed")
    router.wait_until(lambda: router.journal("qtel-dfota"), PATIENCE, "the tool")
    cloud.send_job({"jobId": "CLEAR_ACTIVE_JOBS"})
    cloud.send_job(modem_job("other"))
    router.wait_for_log("dfota job is already executing, not starting this one")
    assert len(router.journal("qtel-dfota")) == 1


def test_modem_firmware_is_left_alone_by_a_reboot(router, cloud, modem_files):
    cloud.send_job(modem_job())
    ended(router, "modem", 0)
    router.reboot()
    router.wait_for_log("start FW post install verification")
    assert router.active_job("modem")["status"] == "executed"
    assert firmware.running(router) == ("1.0.0", "1")


def test_modem_firmware_named_in_the_parameters_only_is_failed_by_a_reboot(router, cloud, modem_files):
    job = modem_job()
    del job["radio"]
    cloud.send_job(job)
    ended(router, "modem", 0)
    router.reboot()
    router.wait_for_log("FW upgrade failed, job missing partition property.")
    assert firmware.wait_for_archived(router, "modem")["status"] == "failed"


# --- upgrades from the router itself

def start_local_upgrade(router, files, image, **values):
    path = files.serve_image(image)
    configuration.change(router, configuration.STORED, **values)
    router.reboot()
    router.run(f"setsid local-upgrade {firmware.SERVER}{path} >/tmp/local-upgrade 2>&1 &", check=False)


def accepted(router, boots):
    router.wait_for_event("up", LONG, boot=boots)


def test_a_local_upgrade_carries_the_configuration_over(router, files):
    start_local_upgrade(router, files, firmware.image(), system__general__location="Depot 7")
    accepted(router, 4)
    assert firmware.running(router) == ("1.1.0", "2")
    for text in ("job_mgr detects local firmware update", "Config verification after FW upgrade successful",
                 "rebooting after successful FW upgrade"):
        assert text in router.texts()
    assert configuration.read(router)["system"]["general"]["location"] == "Depot 7"
    router.reboot()
    assert firmware.running(router) == ("1.1.0", "2")
    assert firmware.leftovers(router) == []


def test_a_local_upgrade_from_a_file(router):
    image = firmware.image()
    for source in (image, image.with_name(image.name + ".sha256")):
        router.live("/var/data").joinpath(source.name).write_bytes(source.read_bytes())
    router.run(f"setsid local-upgrade file:///var/data/{image.name} >/tmp/local-upgrade 2>&1 &", check=False)
    accepted(router, 3)
    assert firmware.running(router) == ("1.1.0", "2")


def test_a_local_upgrade_migrates_what_it_carries_over(router, files):
    start_local_upgrade(router, files, firmware.image("1.1.0", migrates=True))
    accepted(router, 4)
    assert "rebooting after successful FW upgrade and config migration" in router.texts()
    assert configuration.read(router)["system"]["general"]["location"] == "not told"
    assert configuration.read(router) == configuration.read(router, configuration.STORED)


def test_a_local_upgrade_that_is_found_wrong_goes_back(router, files):
    start_local_upgrade(router, files, firmware.image("1.1.0", "config"))
    accepted(router, 4)
    assert firmware.running(router) == ("1.0.0", "1")
    assert "FW upgrade config verification failed. Reverting to previous FW" in router.texts()
    assert firmware.leftovers(router) == []


def test_a_local_upgrade_with_a_bad_image_leaves_nothing(router, files):
    path = files.serve_image(firmware.image("1.1.0", "kernel-signature"))
    told = router.run(f"local-upgrade {firmware.SERVER}{path} 2>&1 || echo status $?")
    assert "local-upgrade: the upgrade tool failed with code 112\nstatus 1" in told
    assert firmware.leftovers(router) == []
    assert router.boots() == 1


def test_a_migrating_local_upgrade_that_goes_back_finds_its_configuration_as_it_was(router, files):
    before = configuration.read(router)
    start_local_upgrade(router, files, firmware.image("1.1.0", "config", migrates=True))
    accepted(router, 4)
    assert firmware.running(router) == ("1.0.0", "1")
    assert configuration.read(router) == before
    assert firmware.leftovers(router) == []
