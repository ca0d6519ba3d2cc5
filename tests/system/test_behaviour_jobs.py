"""Scripts, clears and messages at the edges of what the agent promises."""
import json
import os
import resource

import pytest
from bed import ACTIVE, PATIENCE, TOPICS
from netns import NotifySocket
from test_jobs import wait_archived

from cloud.service import IGNORE

RUNS = "/var/data/runs"
UNTIL_TOLD = "while [ ! -e /tmp/go ]; do sleep 1; done"
CRITICAL = "# JOB PRIORITY CRITICAL\n"
CRITICAL_MARK = "/var/volatile/orv/CRITICAL_JOB_EXECUTING"


def wait_for_file(router, path):
    return router.wait_until(lambda: router.text(path), PATIENCE, path)


def let_go(router):
    router.run("touch /tmp/go")


def wait_long_enough_for_messages(router):
    """Time in which the agent reads a message many times over."""
    begun = router.clock()
    router.wait_until(lambda: router.clock() > begun + 15, PATIENCE, "15 seconds of the router")


def assert_in_this_order(router, *lines):
    at = [router.log().find(line) for line in lines]
    assert -1 not in at, lines[at.index(-1)]
    assert at == sorted(at), lines


# --- the time limit

def test_a_script_that_ignores_the_signal_outlasts_its_limit(router, cloud):
    cloud.send_script("42", "# MAX JOB TIME 1\n"
                      "(trap 'echo told > /tmp/told; exit' TERM; while :; do sleep 1 || true; done) &\n"
                      f"trap '' TERM\n{UNTIL_TOLD}\necho to the end > /tmp/end")
    wait_for_file(router, "/tmp/told")
    cloud.send_script("43", "true")
    wait_long_enough_for_messages(router)
    assert router.active_job("42")["status"] == "executed"
    assert router.active_job("43")["status"] == "received", "it waits"
    let_go(router)
    cloud.wait_for_status("42", "failed")
    assert router.text("/tmp/end") == "to the end\n"
    router.wait_for_log("execute command job script rc:124")


def test_a_child_with_a_session_of_its_own_outlives_the_limit(router, cloud):
    cloud.send_script("42", f"# MAX JOB TIME 1\nsetsid sh -c '{UNTIL_TOLD}; echo late > /tmp/late' &\nsleep 5555")
    cloud.wait_for_status("42", "failed")
    wait_archived(router, "42")
    let_go(router)
    wait_for_file(router, "/tmp/late")


# --- clears

@pytest.mark.parametrize("clear", ["CLEAR_ACTIVE_JOBS", "CLEAR_RUNNING_JOB"])
def test_a_clear_ends_the_shell_and_not_its_command(router, cloud, clear):
    cloud.send_script("101", f"sh -c '{UNTIL_TOLD}; echo done > /tmp/done'\necho after > /tmp/after")
    wait_for_file(router, "/var/volatile/orv/101.pid")
    cloud.publish(f"v1/device/job/{clear}/apply", "")
    router.wait_for_log("execute command job script rc:137")
    let_go(router)
    wait_for_file(router, "/tmp/done")
    assert router.text("/tmp/after") == ""


def failures(cloud, job):
    return [report.status for report in cloud.reports(job)].count("failed")


def test_a_running_job_that_is_cleared_fails_twice(router, cloud):
    cloud.send_script("101", UNTIL_TOLD, rule=IGNORE)
    wait_for_file(router, "/var/volatile/orv/101.pid")
    cloud.publish("v1/device/job/CLEAR_ACTIVE_JOBS/apply", "")
    cloud.wait(lambda c: failures(c, "101") >= 2, PATIENCE, "two reports")
    router.wait_for_log(f"deleted active job {ACTIVE}/101, forced fail")


def test_a_running_job_that_is_cleared_and_ends_later_is_stored_again(router, cloud, uploads):
    uploads.fault = "stall"
    cloud.send_script("101", UNTIL_TOLD, rule=IGNORE, postResults=True)
    wait_for_file(router, "/var/volatile/orv/101.pid")
    cloud.publish("v1/device/job/CLEAR_ACTIVE_JOBS/apply", "")
    router.wait_for_log(f"deleted active job {ACTIVE}/101, forced fail")
    router.wait_until(lambda: router.active_jobs() == ["101"], PATIENCE, "the job to come back")
    assert router.active_job("101")["status"] == "failed"
    cloud.wait(lambda c: failures(c, "101") >= 2, PATIENCE, "the second report")


def outer_pid(router, inner):
    """Of a process inside, as this side knows it."""
    space = os.stat(f"/proc/{router.status()['init']}/ns/pid").st_ino
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            if os.stat(f"/proc/{pid}/ns/pid").st_ino != space:
                continue
            with open(f"/proc/{pid}/status") as status:
                numbers = next(line for line in status if line.startswith("NSpid:")).split()
            if numbers[-1] == str(inner):
                return int(pid)
        except OSError:
            continue
    raise LookupError(f"no process {inner} inside")


def leave_descriptors(router, count):
    pid = router.agent_pid()
    limit = len(router.run(f"ls /proc/{pid}/fd").split()) + count
    resource.prlimit(outer_pid(router, pid), resource.RLIMIT_NOFILE, (limit, limit))


def test_an_agent_without_descriptors_lives_and_is_deaf(router, cloud):
    pid = router.agent_pid()
    leave_descriptors(router, 3)
    clears = 0

    def clear():
        nonlocal clears
        clears += 1
        cloud.publish("v1/device/job/CLEAR_ACTIVE_JOBS/apply", "")
        router.wait_for_log("clear_active_jobs exit", times=clears)

    while "get_active_job_list failed" not in router.log():
        clear()
        assert clears < 10, "each costs one"
        wait_long_enough_for_messages(router)
    assert 2 <= clears <= 5

    router.run(f"echo '{{\"jobId\":\"777\", \"status\":\"received\"}}' > {ACTIVE}/777")
    clear()
    cloud.publish("v1/device/job/CLEAR_RUNNING_JOB/apply", "")
    router.wait_for_log("clear_running_job exit")
    cloud.send_script("42", "true")
    router.wait_for_log("write new job file: 42")
    router.wait_for_log("get_active_job_list failed", times=router.count_in_log("get_active_job_list failed") + 2)
    assert router.active_jobs() == ["777"]
    assert cloud.reports() == []
    assert router.agent_pid() == pid

    router.kill_agent()
    router.wait_connected(times=2)
    clear()
    cloud.send_script("42", "true")
    wait_archived(router, "42")
    assert router.active_jobs() == []


@pytest.mark.router(boot=False)
def test_the_watchdog_hears_nothing_of_an_agent_without_descriptors(router):
    router.state.make()
    with NotifySocket(router.state / "outside/notify") as watchdog:
        router.boot()
        watchdog.wait_for_ping(PATIENCE)
        router.wait_connected()
        leave_descriptors(router, 0)
        router.wait_for_log("get_active_job_list failed")
        with pytest.raises(TimeoutError):
            for _ in range(3):      # what was on its way may still come
                watchdog.wait_for_ping(7)   # 70 seconds of the router: two periods


# --- what holds messages up

def test_an_update_for_all_during_a_script_holds_every_message_up(router, cloud):
    cloud.send_script("101", UNTIL_TOLD)
    wait_for_file(router, "/var/volatile/orv/101.pid")
    cloud.publish("v1/device/job/all/update", {"connected": True})
    router.wait_for_log("on_message: topic[v1/device/job/all/update]")
    cloud.publish("v1/device/job/CLEAR_RUNNING_JOB/apply", "")
    wait_long_enough_for_messages(router)
    let_go(router)
    router.wait_for_log("received command to clear running job")
    assert_in_this_order(router, "execute command job script rc:0", "received command to clear running job")


def test_a_critical_script_holds_every_message_up(router, cloud):
    cloud.send_script("101", CRITICAL + UNTIL_TOLD)
    wait_for_file(router, "/var/volatile/orv/101.pid")
    cloud.publish("v1/device/job/CLEAR_ACTIVE_JOBS/apply", "")
    wait_long_enough_for_messages(router)
    let_go(router)
    router.wait_for_log("received command to clear active jobs")
    assert_in_this_order(router, "execute command job script rc:0", "received command to clear active jobs")


# --- critical scripts that are cut

def start_critical(router, cloud):
    cloud.send_script("101", CRITICAL + f"echo ran >> {RUNS}\n{UNTIL_TOLD}")
    wait_for_file(router, RUNS)


@pytest.mark.parametrize("cut", ["kill_agent", "reboot", "power_cut"])
def test_a_critical_script_that_is_cut_runs_again_as_an_ordinary_one(router, cloud, cut):
    start_critical(router, cloud)
    getattr(router, cut)()
    router.wait_for_log("CMD:execute cmd job script jobId: 101")
    let_go(router)
    wait_archived(router, "101")
    assert router.text(RUNS) == "ran\nran\n"
    assert router.archived_job("101")["status"] == "success"


def test_a_kill_leaves_no_critical_mark(router, cloud):
    start_critical(router, cloud)
    assert router.text(CRITICAL_MARK) == "1\n"
    router.kill_agent()
    assert router.text(CRITICAL_MARK) == ""


# --- messages that nobody hears

def assert_lost_until_sent_again(router, cloud):
    router.wait_until(cloud.link.is_connected, PATIENCE, "the cloud to be back")
    cloud.send_script("after", "true")
    wait_archived(router, "after")
    assert "v1/device/job/lost/apply" not in router.log()
    cloud.send_script("lost", "true")
    wait_archived(router, "lost")


def test_a_message_to_an_agent_that_is_away_is_lost(router, cloud):
    pid = router.agent_pid()
    supervisor = router.run(f"awk '/^PPid/ {{print $2}}' /proc/{pid}/status").strip()
    router.run(f"kill -STOP {supervisor}; kill -9 {pid}")
    router.wait_until(lambda: "Client tessard closed its connection" in router.log(), PATIENCE, "the agent to go")
    cloud.link.publish("v1/device/job/lost/apply", json.dumps({"jobId": "lost", "action": "CMD"}),
                       qos=2).wait_for_publish(PATIENCE)
    router.run(f"kill -CONT {supervisor}")
    router.wait_connected(times=2)
    assert_lost_until_sent_again(router, cloud)


def test_a_message_while_the_broker_is_down_is_lost(router, cloud):
    router.broker(False)
    router.wait_until(lambda: not cloud.link.is_connected(), PATIENCE, "the cloud to notice")
    cloud.link.publish("v1/device/job/lost/apply", json.dumps({"jobId": "lost", "action": "CMD"}))
    router.broker(True)
    router.wait_connected(times=2)
    assert_lost_until_sent_again(router, cloud)


def test_the_agent_wants_no_message_kept(router):
    router.wait_connected()
    assert [line.split()[-2] for line in router.log().splitlines()
            if "New client connected" in line and " as tessard " in line] == ["c1,"], "a clean session"
    assert all(f"tessard 0 {topic}" in router.log() for topic in TOPICS), "QoS 0"
