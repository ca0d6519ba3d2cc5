"""The virtual router itself: power, slots, supervision, neighbours."""
import os
import subprocess
import time

import pytest
from bed import PATIENCE, TOPICS

from cloud.service import Service, socket_of
from router.virtual.client import TREE
from router.virtual.network import CLOUD_ADDRESS, ROUTER_ADDRESS

NOBODY = 65534


def leave_traces(router):
    for folder in ("/var/data", "/var/volatile", "/run", "/tmp"):
        router.run(f"echo here > {folder}/trace")


def traces(router):
    return router.run("ls /var/data/trace /var/volatile/trace /run/trace /tmp/trace 2>/dev/null; true").split()


def wait_for_boot_by_itself(router, beyond):
    router.wait_for_boot(PATIENCE, beyond)
    router.wait_connected(times=beyond + 1)


def test_a_command_inside_sees_nothing_of_this_machine(router):
    assert router.run("cat etc/firmware-version; pwd") == "1.0.0\n/\n", "not even its working directory"
    assert router.run("cat /proc/1/comm").strip() == "init"


def test_reboot_inside_comes_back_with_memory_lost(router):
    router.wait_connected()
    leave_traces(router)
    router.run("/sbin/reboot -f", check=False)
    wait_for_boot_by_itself(router, 1)
    assert router.status()["last_end"] == "reboot"
    assert traces(router) == ["/var/data/trace"]


def test_power_cut_leaves_var_data_alone(router):
    router.wait_connected()
    leave_traces(router)
    router.power_cut()
    router.wait_connected(times=2)
    assert router.status()["last_end"] == "power cut"
    assert traces(router) == ["/var/data/trace"]


def test_halt_stays_off_until_it_is_switched_on(router):
    router.run("/sbin/halt -f", check=False)
    router.wait_until(lambda: router.status()["state"] == "off", PATIENCE, "the router to halt")
    assert router.status()["last_end"] == "halt"
    router.boot()
    assert router.status()["boots"] == 2


def test_the_clock_goes_on_through_a_reboot(router):
    before = router.clock()
    router.reboot()
    assert router.clock() > before


def test_the_clock_takes_another_pace_without_a_step(router, cloud):
    before, began = router.clock(), time.monotonic()
    router.clock(pace=100)
    faster = router.clock()
    router.wait_until(lambda: router.clock() > faster + 200, PATIENCE, "200 seconds of the router")
    assert router.clock() - faster > 50 * (time.monotonic() - began)
    router.clock(pace=5)
    cloud.send_script("1", "date +%s > /tmp/told")
    session = cloud.wait_for_status("1", "executed").session
    assert before + 200 < session <= router.clock()
    router.wait_until(lambda: router.text("/tmp/told"), PATIENCE, "the script's time")
    assert session <= int(router.text("/tmp/told")) <= router.clock()
    now = router.clock()
    router.reboot()
    assert now < router.clock()


def test_an_agent_that_dies_is_started_again(router):
    router.wait_connected()
    router.kill_agent()
    router.wait_connected(times=2)
    assert router.boots() == 1


def test_children_of_a_killed_agent_die_with_it(router, cloud):
    router.wait_connected()
    cloud.send_script("1", "echo started > /tmp/started; sleep 1000")
    router.wait_until(lambda: router.run("cat /tmp/started 2>/dev/null; true"), PATIENCE, "the script")
    router.kill_agent()
    router.wait_until(lambda: "sleep 1000" not in router.run("ps"), PATIENCE, "the script to end")


@pytest.mark.parametrize("marker", ["CONFIG_JOB_EXECUTING", "FW_JOB_EXECUTING"])
def test_an_agent_that_dies_in_mid_apply_reboots_the_router(router, marker):
    router.wait_connected()
    router.run(f"echo 1 > /var/volatile/orv/{marker}")
    router.end_agent()
    wait_for_boot_by_itself(router, 1)
    assert router.status()["last_end"] == "reboot"


def test_the_other_slot_boots_when_the_boot_files_say_so(router):
    router.run("echo 2 > /var/data/boot/slot")
    router.reboot()
    assert "root=/dev/slot2" in router.run("cat /proc/cmdline")
    assert router.run("test -f /var/data/orv/ROOTFS2 && echo yes").strip() == "yes"
    router.run("echo 1 > /var/data/boot/slot")
    router.reboot()
    assert "root=/dev/slot1" in router.run("cat /proc/cmdline")
    assert router.run("test -e /var/data/orv/ROOTFS2 || echo gone").strip() == "gone"
    assert router.run("sysdb get SYS_FW_VER").strip() == "1.0.0"


def test_boot_rebuilds_the_running_configuration(router):
    stored, running = "/var/data/orv/config.json", "/var/volatile/config/config.running"
    assert router.run(f"cmp {stored} {running} && echo same").strip() == "same"
    router.run(f"sed -i 's/cloud.example/203.0.113.1/' {stored}; echo broken > {running}")
    router.reboot()
    assert router.run(f"cmp {stored} {running} && echo same").strip() == "same"


def test_a_ping_that_fails_fails_for_real(router):
    assert "1 packets received" in router.run(f"busybox ping -c 1 -W 1 {CLOUD_ADDRESS}")
    router.net(False)
    assert router.run(f"ping -c 1 -W 1 {CLOUD_ADDRESS} >/dev/null || echo lost").strip() == "lost"
    router.net(True)
    router.wait_until(lambda: not router.run(f"ping -c 1 -W 1 {CLOUD_ADDRESS} >/dev/null || echo lost"),
                      PATIENCE, "the wire to work again")


def test_the_broker_listens_on_loopback_only(router):
    router.wait_connected()
    router.run("nft flush ruleset")
    attempt = [*router.nsenter(cloud=True), "/usr/bin/python3", "-c",
               f"import socket; socket.create_connection(('{ROUTER_ADDRESS}', 1883), 5)"]
    refused = subprocess.run(attempt, capture_output=True, text=True, check=False)
    assert "ConnectionRefusedError" in refused.stderr


def test_two_routers_side_by_side_know_nothing_of_each_other(make_router):
    one, other = make_router("one"), make_router("other")
    for router in (one, other):
        router.wait_connected()
    with Service(socket_of(one)) as cloud:
        one.wait_until(cloud.link.is_connected, PATIENCE, "the broker")
        cloud.publish("v1/device/iot/job/update", "{}")
        one.wait_for_log("on_message: topic")
    one.power_cut(off=True)
    assert other.status()["state"] == "up"
    assert "on_message" not in other.log()
    assert other.subscriptions()[:7] == TOPICS


def as_ordinary_user():
    """What to put before a command, so that it does not run as root."""
    if os.getuid() != 0:
        return []
    drop = ["setpriv", "--reuid", str(NOBODY), "--regid", str(NOBODY), "--clear-groups"]
    if subprocess.run([*drop, "test", "-x", TREE / "router/vrouter"], check=False).returncode != 0:
        pytest.skip("this tree lies where only root may read it")
    return drop


def test_an_ordinary_user_boots_one(make_router):
    owner = make_router()   # the owner of the build tree makes the image
    root = owner.state.folder.parent / "ordinary"
    root.mkdir(exist_ok=True)
    root.chmod(0o777)
    command = [*as_ordinary_user(), str(TREE / "router/vrouter"), "--root", str(root)]

    def vrouter(*words):
        return subprocess.run([*command, *words], capture_output=True, text=True, check=True, timeout=60).stdout
    try:
        vrouter("up", "--build", str(owner.build))
        assert "uid=0(root)" in vrouter("exec", "--", "id")
        vrouter("reboot")
        assert vrouter("log").count("Starting tessard") == 2
    finally:
        vrouter("down")


def test_housekeeping_bounds_archive_and_outputs_in_age(router):
    archive = "/var/data/orv/vantrel_iot/jobs/archive"
    router.run(f"touch -d '2020-01-01 00:00' {archive}/old /tmp/cli_output_old.txt;"
               f" touch {archive}/new /tmp/cli_output_new.txt; /etc/init.d/housekeeping once")
    assert router.archived_jobs() == ["new"]
    assert router.run("ls /tmp/cli_output*").split() == ["/tmp/cli_output_new.txt"]


@pytest.mark.router(data_size="4m")
def test_housekeeping_keeps_a_reserve_on_the_disk(router):
    archive = "/var/data/orv/vantrel_iot/jobs/archive"
    router.run(f"for n in 1 2 3 4 5 6 7; do dd if=/dev/zero of={archive}/$n bs=1k count=512 2>/dev/null;"
               f" touch -d 2026-01-0$n\\ 00:00 {archive}/$n; done")
    router.run("tessard-reserve 1024")
    free = int(router.run("df -k /var/data").split("\n")[1].split()[3])
    assert free >= 1024
    left = router.archived_jobs()
    assert left == [str(n) for n in range(8 - len(left), 8)], "the oldest go first"
    assert len(left) >= 4


def test_the_log_rotates_in_memory(router):
    log = "/var/volatile/log/messages"
    router.run(f"yes | head -c 1100000 > {log}; /etc/init.d/housekeeping once")
    assert router.run(f"ls {log}.1").strip() == f"{log}.1"
    router.wait_until(lambda: "fresh" in router.run(f"logger fresh; cat {log} 2>/dev/null; true"), PATIENCE,
                      "a new log file")
    assert int(router.run(f"wc -c < {log}")) < 100000
