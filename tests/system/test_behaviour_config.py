"""What docs/behaviour.md says of configurations, where disks, services and boots take part."""
import configuration
import pytest
from bed import PATIENCE
from configuration import LONG
from test_config_failsafe import EXPIRED, WRONG_GATEWAY, is_back
from test_jobs import wait_archived

NO_CANDIDATE = "config apply has no new config to apply"
NO_TIMER = "error writing failsafe timer file"


def hold_apply_at(router, service, told):
    """For before the configuration is sent: what waits until that command of a service is held, and what lets
    it go on."""
    router.fault(service, "slow 1000")

    def held():
        configuration.wait_for_progress(router, told)
        router.wait_until(lambda: "sleep 1000" in router.run("ps"), PATIENCE, f"{service} to be held")

    def go_on():
        router.fault(service)
        router.run("kill $(ps | awk '/sleep 1000/ && !/awk/ {print $1}')")

    return held, go_on


def fill_disk(router):
    router.run("dd if=/dev/zero of=/var/data/filler bs=1k 2>/dev/null", check=False)


@pytest.mark.router(data_size="2m")
def test_a_disk_that_is_full_at_the_commit_brings_the_former_configuration_back_at_the_next_boot(router, cloud):
    before = configuration.read(router)
    held, go_on = hold_apply_at(router, "cmd_firewall", "firewall restart")
    cfg = configuration.send(router, cloud, system__failsafe__enable=False,
                             network__interfaces__wan__address="192.0.2.7")
    held()
    fill_disk(router)
    go_on()
    assert cloud.wait_for_status("cfg", "success", LONG).msg == "config has been applied (no failsafe)"
    assert cloud.wait_for_status("cfg", "failed", LONG).msg == NO_CANDIDATE
    assert configuration.read(router) == cfg
    assert configuration.read(router, configuration.STORED) == before
    router.reboot()
    router.run("rm /var/data/filler")
    assert configuration.read(router) == before
    assert configuration.reaches_cloud(router)


@pytest.mark.router(data_size="2m")
def test_a_lock_out_on_a_full_disk_lasts_until_somebody_reboots_the_router(router, cloud):
    before = configuration.read(router)
    held, go_on = hold_apply_at(router, "cmd_firewall", "firewall restart")
    cfg = configuration.send(router, cloud, **WRONG_GATEWAY)
    held()
    fill_disk(router)
    go_on()
    configuration.wait_for_progress(router, NO_TIMER)
    configuration.wait_for_progress(router, NO_CANDIDATE)
    assert EXPIRED not in configuration.progress(router)
    assert configuration.read(router) == cfg
    assert configuration.read(router, configuration.STORED) == before
    assert not configuration.reaches_cloud(router)
    assert cloud.statuses("cfg")[-1:] == ["executed"]
    router.reboot()
    cloud.wait_for_status("cfg", "failed", LONG)
    router.run("rm /var/data/filler")
    wait_archived(router, "cfg")
    is_back(router, before)


def test_other_services_keep_a_configuration_that_was_taken_back_until_the_next_boot(router, cloud):
    before = configuration.read(router)
    former_name = router.run("hostname")
    configuration.send(router, cloud, **WRONG_GATEWAY, system__general__hostname="depot-7")
    assert cloud.wait_for_status("cfg", "failed", LONG).msg == EXPIRED
    configuration.wait_for_end(router)
    is_back(router, before)
    assert router.run("hostname").strip() == "depot-7"
    router.reboot()
    assert router.run("hostname") == former_name
