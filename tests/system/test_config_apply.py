"""Configurations from the cloud and from the router itself: checked, applied by real services, committed."""
import configuration
from bed import HELD, PATIENCE
from configuration import LONG

NO_FAILSAFE = "config apply has failsafe disabled"
DONE = ["cmd_netgen apply --pulse-ethernet done", "cmd_firewall apply done"]


def done(router, since=0):
    return [str(entry) for entry in router.journal()[since:] if "done" in entry.text]


def archived(router, job_id="cfg"):
    router.wait_until(lambda: router.text(f"/var/data/orv/vantrel_iot/jobs/archive/{job_id}"), LONG, "the archive")
    return router.archived_job(job_id)


def test_another_address_is_applied_verified_and_committed(router, cloud):
    cfg = configuration.send(router, cloud, network__interfaces__wan__address="192.0.2.7")
    begun = len(router.journal())
    assert cloud.wait_for_status("cfg", "success", LONG).msg == "failsafe config verified"
    configuration.wait_for_end(router)
    assert configuration.progress(router) == [
        "executing config change", "validating config", "config validation successful",
        "config apply has failsafe enabled", "applying new config", "network restart", "firewall restart",
        "verifying new config", "cell is disabled, skipping cell connectivity checks", "performing connection test",
        "performing connection test 2", "failsafe config verified", "failsafe config verified"]
    assert done(router, begun)[:2] == DONE
    assert configuration.in_force(router) == cfg
    assert router.cloud_run("ping", "-c", "1", "-W", "1", "192.0.2.7").returncode == 0
    published = [(m.topic, m.payload) for m in cloud.messages if m.topic.startswith("v1/device/config/")]
    assert published == [("v1/device/config/network.interfaces/update", "cfg")]
    assert archived(router)["cfg_verified"] is True
    router.reboot()
    assert configuration.in_force(router) == cfg
    assert router.cloud_run("ping", "-c", "1", "-W", "1", "192.0.2.7").returncode == 0


def test_the_whole_configuration_is_pushed_after_a_verified_change(router, cloud):
    configuration.send(router, cloud, system__general__location="Depot")
    cloud.wait(lambda c: [m for m in c.messages if m.topic == "v1/device/cmd/cfgpush/ack"], LONG, "the push's answer")
    asked = [m.payload for m in cloud.messages if m.topic == "v1/device/cmd/cfgpush/apply"]
    assert [message["value"] for message in asked] == ["/"]


def test_a_person_at_the_router_asks_for_a_change(router, cloud):
    router.run("vtrcfg set network.interfaces.wan.address 192.0.2.8")
    told = router.run("vtrcfg request --wait --timeout 60", timeout=90)
    assert "failsafe config verified" in told
    configuration.wait_for_end(router)
    assert configuration.in_force(router)["network"]["interfaces"]["wan"]["address"] == "192.0.2.8"
    router.wait_until(lambda: "FAILSAFE_CONFIG" in router.archived_jobs(), PATIENCE, "the job in the archive")
    assert cloud.reports("FAILSAFE_CONFIG") == [], "the device's own job is nobody else's business"


def test_all_areas_change_in_the_fixed_order(router, cloud):
    begun = len(router.journal())
    configuration.send(
        router, cloud, apps__installed={"meter": {"enable": True}}, gps__gps__interval=60,
        iot__vantrel_iot__checkin_interval=600, network__monitoring__multiwan__interval=20,
        network__tunnels__ipsec={"enable": True, "tunnels": [
            {"name": "hq", "enable": True, "remote": "203.0.113.1", "local_subnet": "192.168.1.0/24",
             "remote_subnet": "10.0.0.0/8", "psk": "a long secret"}]},
        network__wireless__wifi={"enable": True, "ssid": "Depot", "country": "DE",
                                 "security": {"mode": "wpa2-psk", "passphrase": "long enough"}},
        system__general__hostname="depot-7")
    cloud.wait_for_status("cfg", "success", LONG)
    assert done(router, begun) == [
        "vtr-system reload done", "cmd_netgen apply done", "cmd_firewall apply done",
        "cmd_wifi apply done: Depot, wpa2-psk", "cmd_wifi reload done: Depot, wpa2-psk", "qtel-mgr reload done",
        "cmd_ipsec restart done: hq to 203.0.113.1", "vtr-netwd reload done", "vtr-app-mgr reload done",
        "vtr-iot reload done"]
    assert "dialer has restarted" not in configuration.progress(router), "neither cell nor GPS is enabled"
    assert router.run("hostname").strip() == "depot-7"
    configuration.wait_for_end(router)
    psk = configuration.read(router, configuration.STORED)["network"]["tunnels"]["ipsec"]["tunnels"][0]["psk"]
    assert psk.startswith("$siv1$")


def test_a_configuration_that_is_not_valid_changes_nothing(router, cloud):
    before = configuration.read(router)
    begun = done(router)
    configuration.send(router, cloud, network__interfaces__wan__gateway="198.51.100.1")
    assert cloud.wait_for_status("cfg", "failed", LONG).msg == "config validation failed"
    configuration.wait_for_end(router)
    explanation = ("network.interfaces.wan.gateway: 198.51.100.1 is outside the interface's subnet, "
                   "expected an address from 192.0.2.0 to 192.0.2.255")
    assert explanation in archived(router)["validation_result"]
    assert explanation in configuration.progress(router)[-1]
    assert done(router) == begun
    assert configuration.in_force(router) == before


def test_jobs_that_are_refused_before_the_apply(router, cloud):
    before = configuration.read(router)
    other = configuration.changed(before, system__general__location="Depot")
    good = configuration.job(other)
    for job_id, job, msg in (
            ("a", configuration.job(other, "a", configHash="0" * 64), "configHash mismatch"),
            ("b", configuration.job(other, "b", fwVer="9.9.9"), "FW version mismatch"),
            ("c", configuration.job(other, "c", configLevel=1), "invalid config level"),
            ("d", {**good, "jobId": "d", "value": "text"}, "value property is required")):
        cloud.send_job(job)
        assert cloud.wait_for_status(job_id, "failed").msg == msg
    cloud.send_job(configuration.job(before, "e"))
    assert cloud.wait_for_status("e", "success").msg == "config matches current device config"
    assert configuration.progress(router) == []
    assert configuration.read(router) == configuration.read(router, configuration.STORED) == before


def test_without_failsafe_a_configuration_is_committed_unverified(router, cloud):
    cfg = configuration.send(router, cloud, system__failsafe__enable=False,
                             network__interfaces__wan__address="192.0.2.9")
    assert cloud.wait_for_status("cfg", "success", LONG).msg == "config has been applied (no failsafe)"
    configuration.wait_for_end(router)
    assert NO_FAILSAFE in configuration.progress(router)
    assert configuration.in_force(router) == cfg
    assert not router.live(configuration.FAILSAFE).exists()


def test_without_failsafe_a_wrong_gateway_stays(router, cloud):
    cfg = configuration.send(router, cloud, system__failsafe__enable=False,
                             network__interfaces__wan__gateway="192.0.2.99")
    router.wait_until(lambda: NO_FAILSAFE in configuration.progress(router), LONG, "the apply")
    configuration.wait_for_end(router)
    router.reboot()
    assert configuration.in_force(router) == cfg
    assert not configuration.reaches_cloud(router)
    assert cloud.statuses("cfg")[-1:] == ["executed"], "the end waits until the cloud can be reached"


def test_hardware_that_cannot_be_applied_is_not_committed(router, cloud):
    before = configuration.read(router)
    ports = {**before["hardware"]["ports"], "lan7": {"enable": True, "speed": "auto"}}
    cfg = configuration.send(router, cloud, hardware__ports=ports, network__interfaces__wan__address="192.0.2.7")
    assert cloud.wait_for_status("cfg", "failed", LONG).msg == "failure applying new config"
    configuration.wait_for_end(router)
    assert configuration.progress(router)[-3:] == [
        "detected hardware config change, updating meta", "error applying hardware config",
        "failure applying new config"]
    assert configuration.read(router) == cfg
    assert configuration.read(router, configuration.STORED) == before
    router.reboot()
    assert configuration.in_force(router) == before


def test_with_auto_mode_the_failsafe_copy_is_the_configuration_before(router, cloud):
    for location in ("first", "second", "third"):
        before = configuration.read(router)
        configuration.send(router, cloud, location, system__general__location=location)
        cloud.wait_for_status(location, "success", LONG)
        assert configuration.read(router, configuration.FAILSAFE) == before


def test_without_auto_mode_the_first_failsafe_copy_stays(router, cloud):
    before = configuration.read(router)
    for location in ("first", "second"):
        configuration.send(router, cloud, location, system__general__location=location,
                           system__failsafe__auto_mode=False)
        cloud.wait_for_status(location, "success", LONG)
        assert configuration.read(router, configuration.FAILSAFE) == before
    assert ("failsafe config already exists and auto failsafe disabled, using existing failsafe config"
            in configuration.progress(router))


def test_the_cell_is_waited_for(router, cloud):
    router.fault("qtel-mgr", "connect 30")
    cfg = configuration.send(router, cloud, network__wireless__cell__enable=True)
    assert cloud.wait_for_status("cfg", "success", LONG).msg == "failsafe config verified"
    told = configuration.progress(router)
    order = ["waiting for dialer to restart", "dialer has restarted", "failsafe waiting for cell connection",
             "failsafe config detects cell is connected", "performing connection test"]
    assert [told.index(text) for text in order] == sorted(told.index(text) for text in order)
    configuration.wait_for_end(router)
    assert configuration.in_force(router) == cfg


def test_an_agent_that_is_busy_delays_a_request(router, cloud):
    router.run("vtrcfg set system.general.location Depot")
    cloud.send_script("busy", HELD)
    router.wait_until(lambda: router.live("/var/volatile/orv/FW_JOBID").exists(), PATIENCE, "the script")
    router.run("vtrcfg request")
    configuration.wait_for_progress(
        router, "a job is currently in progress, the config change will be delayed until current job completes")
    assert "validating config" not in configuration.progress(router)
    router.let_go()
    configuration.wait_for_progress(router, "failsafe config verified")
    assert cloud.statuses("busy")[-1:] == ["success"]
