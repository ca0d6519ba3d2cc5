"""Copies of the configuration that merely parse."""
import configuration
import pytest
from configuration import FAILSAFE, LONG, STORED


def test_a_bad_failsafe_copy_does_not_keep_the_router_cut_off(router, cloud):
    before = configuration.read(router)
    router.live(FAILSAFE).write_text("{}")
    configuration.send(router, cloud, network__interfaces__wan__gateway="192.0.2.99",
                       system__failsafe__timer=1, system__failsafe__auto_mode=False)
    cloud.wait_for_status("cfg", "failed", LONG)
    configuration.wait_for_end(router)
    assert configuration.read(router) == configuration.read(router, STORED) == before
    assert configuration.reaches_cloud(router)
    router.wait_for_log("failsafe restore: /var/data/orv/config.failsafe cannot be used: ", times=2)


@pytest.mark.parametrize("content", ["{}", "one digit"])
def test_boot_goes_back_to_the_failsafe_copy_when_the_persistent_one_is_bad(router, content):
    good = configuration.read(router)
    router.run(f"cp {STORED} {FAILSAFE}")
    if content == "one digit":
        configuration.change(router, STORED, network__interfaces__wan__address="192.968.2.2")
    else:
        router.live(STORED).write_text(content)
    router.reboot()
    assert configuration.in_force(router) == good
    assert configuration.reaches_cloud(router)
    router.wait_for_log(f"vtrcfg: {STORED} is replaced by {FAILSAFE}")
