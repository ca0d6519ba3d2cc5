"""Jobs that are cut short, and what is left of them when the router comes back."""
import pytest
from bed import ACTIVE, HELD, PATIENCE
from test_jobs import REPEAT, wait_archived

INTERRUPTED = "job: 42 was interrupted by reboot, setting status to FAILED"
RUNS = "/var/data/runs"


def start_script(router, cloud, script="sleep 3000"):
    """A job whose script has begun, and leaves a persistent trace of each run."""
    cloud.send_script("42", f"echo ran >> {RUNS}\n{script}")
    router.wait_until(lambda: router.text(RUNS), PATIENCE, "the script to start")


def assert_failed_and_ran_once(router, cloud):
    cloud.wait_for_status("42", "failed", 60)
    wait_archived(router, "42")
    assert ("alert", INTERRUPTED) in router.log_lines()
    assert router.text(RUNS) == "ran\n"
    assert router.active_jobs() == []
    assert "FW_JOBID" not in router.run("ls /var/volatile/orv")


@pytest.mark.parametrize("cut", ["kill_agent", "reboot", "power_cut"])
def test_a_job_cut_in_mid_script_fails_and_does_not_run_again(router, cloud, cut):
    start_script(router, cloud)
    getattr(router, cut)()
    assert_failed_and_ran_once(router, cloud)


def test_a_script_that_reboots_fails_its_job(router, cloud):
    start_script(router, cloud, "/sbin/reboot -f; sleep 1000")
    assert_failed_and_ran_once(router, cloud)
    assert router.status()["last_end"] == "reboot"


def test_a_job_that_asks_for_a_reboot_succeeds_through_it(router, cloud):
    cloud.send_script("42", f"echo ran >> {RUNS}", reboot=True)
    router.wait_for_log("reboot requested - delaying for 8 seconds")
    router.wait_for_boot(PATIENCE, 1)
    cloud.wait_for_status("42", "success", 60)
    wait_archived(router, "42")
    assert router.text(RUNS) == "ran\n"


@pytest.mark.parametrize("cut", ["kill_agent", "reboot", "power_cut"])
def test_a_received_job_that_was_not_started_runs_after_the_cut(router, cloud, cut):
    router.net(False)
    cloud.send_script("1", "sleep 3000")
    router.wait_until(lambda: "sleep 3000" in router.run("ps"), PATIENCE, "the first script")
    cloud.send_script("42", f"echo ran >> {RUNS}")
    router.wait_until(lambda: "42" in router.active_jobs(), PATIENCE, "the second job")
    getattr(router, cut)()
    router.net(True)
    wait_archived(router, "42")
    assert router.text(RUNS) == "ran\n"


@pytest.mark.parametrize("cut", ["kill_agent", "reboot", "power_cut"])
def test_a_final_status_that_waits_is_repeated_after_the_cut(router, cloud, cut):
    router.net(False)
    cloud.send_script("42", f"echo ran >> {RUNS}")
    router.wait_until(lambda: router.active_jobs() == ["42"] and router.active_job("42")["status"] == "success",
                      60, "the job to end")
    getattr(router, cut)()
    router.net(True)
    cloud.wait_for_status("42", "success", 60)
    wait_archived(router, "42")
    assert router.text(RUNS) == "ran\n"


def test_a_status_waits_while_the_broker_is_away(router, cloud):
    start_script(router, cloud, HELD)
    router.broker(False)
    router.let_go()
    router.wait_until(lambda: router.active_job("42")["status"] == "success", PATIENCE, "the job to end")
    assert cloud.statuses("42")[-1:] != ["success"]
    router.broker(True)
    cloud.wait_for_status("42", "success", 60)
    wait_archived(router, "42")


def test_a_status_waits_while_the_network_is_gone(router, cloud):
    router.net(False)
    cloud.send_script("42", "true")
    router.wait_for_log("network check: 0", times=2)
    assert cloud.reports() == [], "a ping that fails holds every report back"
    router.net(True)
    cloud.wait_for_status("42", "success", 60)
    wait_archived(router, "42")


@pytest.mark.router(data_size="2m")
def test_a_full_disk_loses_the_job_that_arrives_and_nothing_else(router, cloud):
    router.run("dd if=/dev/zero of=/var/data/filler bs=1k 2>/dev/null", check=False)
    pid = router.agent_pid()
    cloud.send_script("1", "true")
    router.wait_for_log("write new job file: 1")
    assert router.active_jobs() == []
    router.run("rm /var/data/filler")
    cloud.send_script("2", "true")
    wait_archived(router, "2")
    assert router.agent_pid() == pid


@pytest.mark.router(data_size="2m")
def test_a_disk_that_fills_in_mid_script_keeps_the_record_whole(router, cloud):
    """The end cannot be stored: the next pass finds a script that was started and has no end."""
    start_script(router, cloud, "dd if=/dev/zero of=/var/data/filler bs=1k 2>/dev/null || true")
    cloud.wait_for_status("42", "success")
    assert router.active_job("42")["status"] == "executed"
    router.run("rm /var/data/filler")
    assert_failed_and_ran_once(router, cloud)


@pytest.mark.router(clock_at=10)
def test_a_clock_that_steps_from_1970_lets_the_job_finish(router, cloud):
    start_script(router, cloud, HELD)
    assert router.active_job("42")["timestamp"] < 10000
    router.clock(set=1795000000)
    router.let_go()
    wait_archived(router, "42")
    assert router.archived_job("42")["status"] == "success"
    assert router.archived_job("42")["ackId"] >= 1795000000


def test_a_clock_that_steps_back_delays_repeats_and_no_more(router, cloud):
    start_script(router, cloud, HELD)
    router.clock(step=-60)
    router.let_go()
    wait_archived(router, "42")
    assert router.archived_job("42")["status"] == "success"


def test_a_stray_folder_among_the_jobs_holds_nothing_up(router, cloud):
    router.run(f"mkdir {ACTIVE}/stray")
    router.wait_for_log("repairing and failing corrupt or missing job stray")
    cloud.send_script("42", "true")
    wait_archived(router, "42")


def test_a_job_that_waits_for_its_acknowledgement_lets_the_next_one_run(router, cloud):
    cloud.send_script("1", "true", rule=lambda *_: None)
    cloud.wait_for_status("1", "success")
    cloud.send_script("2", "true")
    wait_archived(router, "2")
    router.wait_for_log(REPEAT)
    assert router.active_jobs() == ["1"]
