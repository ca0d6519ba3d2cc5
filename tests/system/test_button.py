"""The reset button."""
import json

import pytest
from bed import ACTIVE, ARCHIVE, PATIENCE

CONFIG = "/var/data/orv/config.json"
DEVICE = "/dev/reset_button_dev"


def press_and_boot(router, how):
    router.wait_connected()
    router.press(how)
    router.wait_for_boot(PATIENCE, 1)


def change_stored_configuration(router, **settings):
    path = router.live(CONFIG)
    config = json.loads(path.read_text())
    config["system"]["general"].update(settings)
    path.write_text(json.dumps(config))
    return config


def stored_hostname(router):
    return json.loads(router.live(CONFIG).read_text())["system"]["general"]["hostname"]


def test_a_short_press_reboots(router):
    change_stored_configuration(router, hostname="mine")
    press_and_boot(router, "short")
    assert ("alert", "Reset button detected:reboot") in router.log_lines()
    assert stored_hostname(router) == "mine"


def test_a_failsafe_press_restores_the_failsafe_configuration(router):
    change_stored_configuration(router, hostname="good")
    router.run(f"cp {CONFIG} /var/data/orv/config.failsafe")
    change_stored_configuration(router, hostname="bad")
    press_and_boot(router, "failsafe")
    assert ("alert", "Reset button detected:failsafe") in router.log_lines()
    assert stored_hostname(router) == "good"


def test_a_factory_press_restores_the_delivered_state(router):
    change_stored_configuration(router, hostname="mine")
    router.run(f"echo '{{}}' > {ARCHIVE}/old")
    press_and_boot(router, "factory")
    assert ("alert", "Reset button detected:factory") in router.log_lines()
    assert stored_hostname(router) == "router"
    assert router.archived_jobs() == []
    assert router.active_jobs() == []
    assert router.run("cat /var/data/factory/device_type").strip() == "5"


def test_a_code_of_no_meaning_is_no_event(router):
    router.wait_connected()
    router.run(f"echo 7 > {DEVICE}")
    router.wait_for_log("active job count", times=3)
    assert router.boots() == 1
    assert router.run(f"cat {DEVICE}") == "7\n"


def test_the_acknowledging_byte_is_no_event_itself(router):
    """A press whose reboot does not come at once is not taken a second time."""
    router.wait_connected()
    router.run(f"printf '\\002' > {DEVICE}")
    router.wait_for_log("active job count", times=3)
    assert router.boots() == 1


@pytest.mark.router(device_type=1)
def test_a_device_without_a_button_does_not_look_at_it(router):
    router.wait_connected()
    router.run(f"echo 2 > {DEVICE}")    # a device that there should not be
    router.wait_for_log("active job count", times=3)
    assert router.boots() == 1
    assert router.run(f"cat {DEVICE}") == "2\n"
    assert router.run(f"ls {ACTIVE}") == ""
