"""Configurations that cut the router off from its cloud, and how it comes back."""
import json
import time

import configuration
import pytest
from bed import HELD, PATIENCE
from configuration import LONG

from router.virtual.network import GATEWAY

WRONG_GATEWAY = {"network__interfaces__wan__gateway": "192.0.2.99", "system__failsafe__timer": 1}
EXPIRED = "failsafe timer expired, reverting to config.failsafe"
ABORTED = "aborted, reverting to config.failsafe"
VERIFYING = "performing connection test"


def send_lock_out(router, cloud, **values):
    """Returns the configuration before it, when the verification has begun."""
    before = configuration.read(router)
    configuration.send(router, cloud, **{**WRONG_GATEWAY, **values})
    configuration.wait_for_progress(router, VERIFYING)
    return before


def is_back(router, before):
    assert configuration.in_force(router) == before
    assert configuration.reaches_cloud(router)
    assert f"via {GATEWAY}" in router.run("ip route show default")


def test_a_wrong_gateway_is_taken_back_within_its_time(router, cloud):
    before = send_lock_out(router, cloud)
    timer = json.loads(router.text("/var/data/orv/FAILSAFE_TIMER"))
    assert not configuration.reaches_cloud(router)
    assert timer["end_time"] == timer["start_time"] + 60
    assert cloud.wait_for_status("cfg", "failed", LONG).msg == EXPIRED
    configuration.wait_for_end(router)
    assert timer["end_time"] <= configuration.times(router)[EXPIRED]
    late = [event for event in configuration.apply_events(router)
            if event.get("text") == VERIFYING and event["time"] >= timer["end_time"] + 1]
    assert late == [], "no pass is begun after its end"
    told = configuration.progress(router)
    assert [text for text in told if text != VERIFYING] == [
        "executing config change", "validating config", "config validation successful",
        "config apply has failsafe enabled", "applying new config", "network restart", "firewall restart",
        "verifying new config", "cell is disabled, skipping cell connectivity checks", EXPIRED, EXPIRED]
    assert "performing connection test 2" not in told
    assert [entry.service for entry in router.journal() if "apply" in entry.text or "reload" in entry.text][-6:] == [
        "cmd_netgen", "cmd_netgen", "qtel-mgr", "qtel-mgr", "cmd_wifi", "cmd_wifi"]
    is_back(router, before)
    router.reboot()
    is_back(router, before)


def test_a_wrong_address_is_taken_back(router, cloud):
    before = send_lock_out(router, cloud, network__interfaces__wan__address="198.18.0.2",
                           network__interfaces__wan__gateway="198.18.0.1")
    assert cloud.wait_for_status("cfg", "failed", LONG).msg == EXPIRED
    configuration.wait_for_end(router)
    is_back(router, before)


def test_an_interface_switched_off_is_taken_back(router, cloud):
    before = send_lock_out(router, cloud, network__interfaces__wan__enable=False)
    assert cloud.wait_for_status("cfg", "failed", LONG).msg == EXPIRED
    configuration.wait_for_end(router)
    is_back(router, before)


def test_a_modem_that_never_connects_is_taken_back(router, cloud):
    router.fault("qtel-mgr", "connect never")
    before = configuration.read(router)
    configuration.send(router, cloud, network__wireless__cell__enable=True, system__failsafe__timer=1)
    assert cloud.wait_for_status("cfg", "failed", LONG).msg == EXPIRED
    configuration.wait_for_end(router)
    assert "failsafe waiting for cell connection" in configuration.progress(router)
    is_back(router, before)


def test_a_cloud_that_is_back_in_time_verifies(router, cloud):
    router.net(False)
    cfg = configuration.send(router, cloud, system__general__location="Depot")
    configuration.wait_for_progress(router, VERIFYING)
    router.net(True)
    assert cloud.wait_for_status("cfg", "success", LONG).msg == "failsafe config verified"
    configuration.wait_for_end(router)
    assert configuration.in_force(router) == cfg


@pytest.mark.router(speed=20)
def test_the_delivered_five_minutes(router, cloud):
    before = send_lock_out(router, cloud, system__failsafe__timer=5)
    assert cloud.wait_for_status("cfg", "failed", LONG).msg == EXPIRED
    configuration.wait_for_end(router)
    times = configuration.times(router)
    assert times[EXPIRED] - times["verifying new config"] >= 299, "the timer is in whole seconds"
    is_back(router, before)


# --- requests of the router's own, and aborts

def request_lock_out(router, cloud):
    before = configuration.read(router)
    configuration.place(router, configuration.changed(before, **WRONG_GATEWAY))
    configuration.request(cloud)
    configuration.wait_for_progress(router, VERIFYING)
    return before


def test_a_request_of_the_router_s_own_is_taken_back(router, cloud):
    before = request_lock_out(router, cloud)
    configuration.wait_for_progress(router, EXPIRED)
    configuration.wait_for_end(router)
    is_back(router, before)
    router.wait_until(lambda: "FAILSAFE_CONFIG" in router.archived_jobs(), PATIENCE, "the archive")
    assert cloud.reports("FAILSAFE_CONFIG") == []


def test_an_abort_ends_the_verification(router, cloud):
    before = request_lock_out(router, cloud)
    cloud.publish("v1/device/cmd/config/abort/apply", "")
    configuration.wait_for_progress(router, ABORTED)
    assert EXPIRED not in configuration.progress(router)
    configuration.wait_for_end(router)
    is_back(router, before)


def test_an_abort_does_not_touch_a_job_of_the_cloud(router, cloud):
    send_lock_out(router, cloud)
    cloud.publish("v1/device/cmd/config/abort/apply", "")
    assert cloud.wait_for_status("cfg", "failed", LONG).msg == EXPIRED


def test_an_abort_before_the_verification_ends_the_apply(router, cloud):
    before = configuration.read(router)
    cloud.send_script("busy", HELD)
    router.wait_until(lambda: router.live("/var/volatile/orv/FW_JOBID").exists(), PATIENCE, "the script")
    configuration.place(router, configuration.changed(before, **WRONG_GATEWAY))
    configuration.request(cloud)
    configuration.wait_for_progress(router, "config change is queued")
    queued = configuration.times(router)["config change is queued"]
    router.wait_until(lambda: router.clock() > queued + 2, PATIENCE, "the abort to be of a later second")
    cloud.publish("v1/device/cmd/config/abort/apply", "")
    router.wait_for_log("Abort cmd apply requested at time ")
    router.let_go()
    configuration.wait_for_progress(router, "Aborting before config validator")
    configuration.wait_for_end(router)
    assert configuration.progress(router)[-1] == "cmd apply aborted"
    is_back(router, before)


def test_a_request_during_a_verification_is_refused(router, cloud):
    before = request_lock_out(router, cloud)
    configuration.request(cloud)
    router.wait_for_log("failsafe config apply already in progess")
    configuration.wait_for_progress(router, EXPIRED)
    configuration.wait_for_end(router)
    is_back(router, before)


def test_a_second_request_during_an_apply_is_lost_with_its_candidate(router, cloud):
    router.fault("vtr-system", "held until the second request is there")
    before = configuration.read(router)
    first = configuration.changed(before, system__general__location="first")
    second = configuration.changed(before, system__general__location="second")
    configuration.place(router, first)
    configuration.request(cloud)
    router.wait_until(lambda: router.journal("vtr-system"), LONG, "the first apply")
    configuration.place(router, second)
    configuration.request(cloud)
    router.wait_for_log("write new job file: FAILSAFE_CONFIG", times=2)
    router.fault("vtr-system")
    configuration.wait_for_end(router)
    router.wait_until(lambda: "FAILSAFE_CONFIG" in router.archived_jobs(), PATIENCE, "the archive")
    assert configuration.in_force(router) == first
    configuration.place(router, second)
    configuration.request(cloud)
    router.wait_until(lambda: configuration.read(router) == second, LONG, "the second one, asked for again")
    configuration.wait_for_end(router)
    assert configuration.in_force(router) == second


# --- the clock

def test_a_clock_set_forward_during_a_verification_ends_it(router, cloud):
    before = send_lock_out(router, cloud, system__failsafe__timer=60)
    router.clock(step=3600)
    assert cloud.wait_for_status("cfg", "failed", LONG).msg == EXPIRED
    configuration.wait_for_end(router)
    is_back(router, before)


@pytest.mark.router(clock_at=0)
def test_a_clock_set_from_1970_to_today_takes_even_a_good_configuration_back(router, cloud):
    router.fault("qtel-mgr", "connect never")
    before = configuration.read(router)
    configuration.send(router, cloud, network__wireless__cell__enable=True)
    configuration.wait_for_progress(router, "failsafe waiting for cell connection")
    router.clock(set=time.time())
    router.run("sysdb set CELL_CONNECTED 1")
    configuration.wait_for_end(router)
    assert cloud.wait_for_status("cfg", "failed", LONG).msg == EXPIRED
    configuration.wait_for_end(router)
    is_back(router, before)


def test_a_clock_set_back_by_a_minute_makes_the_verification_longer(router, cloud):
    before = send_lock_out(router, cloud)
    end = json.loads(router.text("/var/data/orv/FAILSAFE_TIMER"))["end_time"]
    router.clock(step=-60)
    assert cloud.wait_for_status("cfg", "failed", LONG).msg == EXPIRED
    configuration.wait_for_end(router)
    assert end <= configuration.times(router)[EXPIRED], "by the clock that was set back"
    kinds = [(event["kind"], event.get("text")) for event in router.events()]
    assert kinds.index(("clock", None)) < kinds.index(("progress", EXPIRED))
    is_back(router, before)
