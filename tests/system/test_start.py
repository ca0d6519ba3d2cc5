"""The agent's start, its main loop, and how it lives with its broker."""
import time

import pytest
from bed import ACTIVE, PATIENCE, TOPICS
from netns import ConnectionCounter, NotifySocket

WATCHDOG_PERIOD = 30


def wait_for_counts(router, text, times=1):
    router.wait_for_log(f"active job count: {text}", times=times)


def test_starts_in_the_documented_order(router):
    router.wait_connected()
    router.wait_for_log("starting job_mgr_main")
    assert router.log_lines()[0] == ("notice", "Starting tessard")
    assert ("notice", "starting job_mgr_main") in router.log_lines()
    assert router.run("cat /var/run/tessard.pid").strip() == str(router.agent_pid())


@pytest.mark.router(speed=1)
def test_starts_and_routes_a_message_in_real_time(router, cloud):
    cloud.publish("v1/device/iot/job/update", "{}")
    router.wait_for_log("on_message: topic[v1/device/iot/job/update]")


def test_subscribes_its_topics_in_order(router):
    router.wait_connected()
    assert router.subscriptions()[:7] == TOPICS


def test_subscribes_again_after_the_broker_was_restarted(router):
    router.wait_connected()
    router.broker(False)
    router.broker(True)
    router.wait_connected(times=2)
    assert [t for t in router.subscriptions() if t in TOPICS] == TOPICS * 2


@pytest.mark.router(broker=False)
def test_waits_for_a_broker_that_is_down_at_start(router):
    wait_for_counts(router, 0)
    assert router.subscriptions() == []
    pid = router.agent_pid()
    router.broker(True)
    router.wait_connected()
    assert router.agent_pid() == pid


@pytest.mark.router(broker=False, speed=2)
def test_tries_one_reconnect_in_each_pass(router):
    with ConnectionCounter(router, 1883) as counter:
        router.wait_until(lambda: len(counter.times) >= 11, PATIENCE, "eleven connections")
    seconds = (counter.times[10] - counter.times[0]) * 2
    assert seconds > 8, "each of the ten passes between them sleeps one second of the agent's time"


def test_subscribes_nothing_when_the_broker_refuses_it(make_router):
    router = make_router(boot=False)
    router.state.make()
    (router.state / "outside/mosquitto.conf").write_text(
        "user root\nlog_dest syslog\nlog_type all\nlistener 1883 127.0.0.1\nallow_anonymous false\n")
    router.boot()
    router.wait_for_log("not authorised", times=2)
    assert "Received SUBSCRIBE" not in router.log()
    wait_for_counts(router, 0)


def test_counts_the_active_jobs(router):
    wait_for_counts(router, 0)
    assert router.run("sysdb get SYS_JOB_COUNT").strip() == "0"
    router.run(f"mkdir {ACTIVE}/a {ACTIVE}/b {ACTIVE}/c")
    wait_for_counts(router, 3)
    router.wait_until(lambda: router.run("sysdb get SYS_JOB_COUNT").strip() == "3", PATIENCE, "the count")


def test_counts_a_missing_job_folder_as_empty(router):
    router.run(f"rm -r {ACTIVE} && sysdb set SYS_JOB_COUNT 7")
    router.wait_until(lambda: router.run("sysdb get SYS_JOB_COUNT").strip() == "0", PATIENCE, "the count")


def test_counts_on_every_eleventh_pass(router):
    wait_for_counts(router, 0)
    first = time.monotonic()
    wait_for_counts(router, 0, times=router.count_in_log("active job count: 0") + 2)
    assert (time.monotonic() - first) * 10 > 11, "at least one whole period of eleven seconds"


@pytest.mark.router(speed=1, boot=False)
def test_pings_the_watchdog_at_once(router):
    router.state.make()
    with NotifySocket(router.state / "outside/notify") as watchdog:
        router.boot()
        watchdog.wait_for_ping(PATIENCE)
        assert "active job count" not in router.log(), "the eleventh pass counts, the first one pings"


@pytest.mark.router(boot=False)
def test_pings_the_watchdog_every_30_seconds(router):
    router.state.make()
    with NotifySocket(router.state / "outside/notify") as watchdog:
        router.boot()
        pings = [watchdog.wait_for_ping(PATIENCE) for _ in range(4)]
    gaps = [(later - earlier) * 10 for earlier, later in zip(pings, pings[1:])]
    assert sum(gaps) > 3 * (WATCHDOG_PERIOD - 2)
    assert min(gaps) < 2 * WATCHDOG_PERIOD


@pytest.mark.router(boot=False)
def test_a_clock_that_jumps_back_delays_the_next_ping(router):
    router.state.make()
    with NotifySocket(router.state / "outside/notify") as watchdog:
        router.boot()
        first = watchdog.wait_for_ping(PATIENCE)
        router.clock(step=-60)
        second = watchdog.wait_for_ping(PATIENCE)
    assert (second - first) * 10 > WATCHDOG_PERIOD + 60 - 5


@pytest.mark.router(broker=False, boot=False)
def test_pings_and_counts_without_a_broker(router):
    router.state.make()
    with NotifySocket(router.state / "outside/notify") as watchdog:
        router.boot()
        watchdog.wait_for_ping(PATIENCE)
        watchdog.wait_for_ping(PATIENCE)
    wait_for_counts(router, 0, times=2)
