"""Applies that are cut: by a power loss, a reboot, or the end of the agent. They are finished after the boot."""
import configuration
from bed import ACTIVE, PATIENCE
from configuration import LONG
from test_config_failsafe import EXPIRED, VERIFYING, is_back, request_lock_out, send_lock_out

RESUMED = ("Found remnant active config job and new config, so still need to finish config "
           "verification/cmd_apply")
# However long a test takes, the verification is still on; the test ends it by a step of the clock.
AN_HOUR = {"system__failsafe__timer": 60}


def test_a_lock_out_that_is_cut_by_a_power_loss_is_taken_back(router, cloud):
    before = send_lock_out(router, cloud, **AN_HOUR)
    router.power_cut()
    router.wait_for_log(RESUMED)
    configuration.wait_for_progress(router, VERIFYING)
    assert not configuration.reaches_cloud(router)
    router.clock(step=3600)
    assert cloud.wait_for_status("cfg", "failed", LONG).msg == EXPIRED
    configuration.wait_for_end(router)
    is_back(router, before)


def test_a_lock_out_that_is_cut_twice_is_taken_back(router, cloud):
    before = send_lock_out(router, cloud, **AN_HOUR)
    for times in (1, 2):
        router.power_cut()
        router.wait_for_log(RESUMED, times=times)
        configuration.wait_for_progress(router, VERIFYING)
    router.clock(step=3600)
    assert cloud.wait_for_status("cfg", "failed", LONG).msg == EXPIRED
    configuration.wait_for_end(router)
    is_back(router, before)


def test_a_lock_out_of_the_router_s_own_is_taken_back_after_a_power_loss(router, cloud):
    before = request_lock_out(router, cloud)
    router.power_cut()
    router.wait_for_log(RESUMED)
    configuration.wait_for_progress(router, EXPIRED)
    configuration.wait_for_end(router)
    is_back(router, before)


def test_a_good_configuration_that_is_cut_while_it_is_applied_is_finished(router, cloud):
    router.fault("cmd_firewall", "slow 1000")
    cfg = configuration.send(router, cloud, network__interfaces__wan__address="192.0.2.7")
    configuration.wait_for_progress(router, "firewall restart")
    router.fault("cmd_firewall")
    router.power_cut()
    assert cloud.wait_for_status("cfg", "success", LONG).msg == "failsafe config verified"
    configuration.wait_for_end(router)
    assert configuration.in_force(router) == cfg


def test_a_good_configuration_that_is_cut_while_it_is_verified_is_finished(router, cloud):
    router.net(False)
    cfg = configuration.send(router, cloud, network__interfaces__wan__address="192.0.2.7")
    configuration.wait_for_progress(router, VERIFYING)
    router.power_cut()
    router.wait_for_log(RESUMED)
    router.net(True)
    assert cloud.wait_for_status("cfg", "success", LONG).msg == "failsafe config verified"
    configuration.wait_for_end(router)
    assert configuration.in_force(router) == cfg


def test_a_reboot_during_an_apply_finishes_it(router, cloud):
    router.fault("cmd_netgen", "slow 1000")
    cfg = configuration.send(router, cloud, network__interfaces__wan__address="192.0.2.7")
    configuration.wait_for_progress(router, "network restart")
    router.fault("cmd_netgen")
    router.reboot()
    cloud.wait_for_status("cfg", "success", LONG)
    configuration.wait_for_end(router)
    assert configuration.in_force(router) == cfg


def test_an_agent_that_is_killed_during_an_apply_reboots_the_router(router, cloud):
    router.fault("cmd_firewall", "slow 1000")
    cfg = configuration.send(router, cloud, network__interfaces__wan__address="192.0.2.7")
    configuration.wait_for_progress(router, "firewall restart")
    router.fault("cmd_firewall")
    router.end_agent()
    router.wait_for_boot(PATIENCE, beyond=1)
    assert "it was in the middle of a job: rebooting" in router.log()
    assert cloud.wait_for_status("cfg", "success", LONG).msg == "failsafe config verified"
    configuration.wait_for_end(router)
    assert configuration.in_force(router) == cfg


def test_an_agent_that_is_killed_during_a_lock_out_does_not_leave_it(router, cloud):
    before = send_lock_out(router, cloud)
    router.end_agent()
    router.wait_for_boot(PATIENCE, beyond=1)
    assert cloud.wait_for_status("cfg", "failed", LONG).msg == EXPIRED
    configuration.wait_for_end(router)
    is_back(router, before)


def test_a_power_loss_while_a_request_waits_loses_the_request_only(router, cloud):
    before = configuration.read(router)
    cloud.send_script("busy", "sleep 1000\n")
    router.wait_until(lambda: router.live("/var/volatile/orv/FW_JOBID").exists(), PATIENCE, "the script")
    configuration.place(router, configuration.changed(before, system__general__location="Depot"))
    configuration.request(cloud)
    router.wait_until(lambda: router.text(f"{ACTIVE}/FAILSAFE_CONFIG"), PATIENCE, "the queued request")
    router.power_cut()
    cloud.wait_for_status("busy", "failed", LONG)
    router.wait_until(lambda: "FAILSAFE_CONFIG" in router.archived_jobs(), LONG, "the archive")
    assert router.archived_job("FAILSAFE_CONFIG")["msg"] == "config apply has no new config to apply"
    configuration.wait_for_end(router)
    is_back(router, before)
