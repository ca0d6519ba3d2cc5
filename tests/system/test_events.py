"""The stream of events and the log: all that happens stands in them once, whatever a reboot wipes."""
import json
import os
import re
import signal
import socket
import subprocess
import threading
from contextlib import contextmanager

import configuration
import pytest
from bed import PATIENCE

from router.virtual.client import TREE
from router.virtual.events import told
from router.virtual.state import connect_unix, short_path

BURST = 200
# Tells of an apply as the configuration library does, and is gone: `config-apply.events` is all that is left.
TELL_AND_REBOOT = """for n in $(seq 1 50); do
    echo '{{"event":"text","time":{time},"text":"step '$n'"}}' >>/run/config-apply.events
done
echo '{{"event":"end","time":{time}}}' >>/run/config-apply.events
exec /bin/busybox reboot -n -f"""


def kinds(router):
    return [event["kind"] for event in router.events()]


def of(router, kind, *names):
    return [tuple(event[name] for name in names) for event in router.events(kind)]


def vrouter(router, *words):
    command = [str(TREE / "router/vrouter"), "--root", str(router.state.folder.parent), "--name", router.name, *words]
    return subprocess.run(command, capture_output=True, text=True, check=True, timeout=60).stdout


@contextmanager
def launcher_held(router):
    """As on a machine that does not get round to it: what happens inside meanwhile, it finds afterwards."""
    pid = router.status()["launcher"]
    os.kill(pid, signal.SIGSTOP)
    try:
        yield
    finally:
        os.kill(pid, signal.SIGCONT)


def reboot_with(router, command):
    """Runs a command that ends the boot; returns when the next one is up."""
    boots = router.boots()
    router.run(command, check=False)
    router.wait_for_boot(PATIENCE, boots)


# --- the stream

def test_the_stream_tells_boots_their_slots_and_their_ends(router):
    router.reboot()
    router.power_cut(off=True)
    router.boot()
    router.run("/sbin/halt -f", check=False)
    router.wait_for_event("end", PATIENCE, boot=3)
    assert of(router, "boot", "boot", "slot") == [(1, "1"), (2, "1"), (3, "1")]
    assert of(router, "end", "boot", "why") == [(1, "reboot"), (2, "power cut"), (3, "halt")]
    assert of(router, "power", "on") == [(True,), (False,), (True,)]
    assert [kind for kind in kinds(router) if kind in ("boot", "up", "end")] == ["boot", "up", "end"] * 3


def test_the_stream_tells_what_was_done_to_the_router_in_order(router):
    begun = len(router.events())
    router.net(False)
    router.fault("cmd_wifi", "slow 1")
    router.net(True)
    router.clock(step=3600)
    router.fault("cmd_wifi")
    router.broker(False)
    router.broker(True)
    mine = [told(event).split(" ", 3)[3] for event in router.events()[begun:] if event["kind"] != "service"]
    assert mine == ["wire: up False", "fault: service cmd_wifi, faults ['slow 1']", "wire: up True",
                    "clock: step 3600.0", "fault: service cmd_wifi, faults []", "broker: on False", "broker: on True"]


def test_an_event_bears_router_time_and_real_time(router):
    before = router.clock()
    router.clock(step=3600)
    event = router.events("clock")[-1]
    assert event["time"] >= before + 3600
    assert abs(event["at"] - event["time"]) > 1800
    times = [e["time"] for e in router.events() if e["kind"] != "service"]
    assert times == sorted(times)


def test_the_time_of_the_stream_is_the_agent_s(make_router):
    """However long the boot took before the agent was started: 0.1 s of it are 5 s of this router's time."""
    router = make_router(speed=50)
    for _ in range(3):
        router.run("tr '\\0' '\\n' </proc/$(cat /run/agent)/environ | grep -E '^(LD_PRELOAD|FAKETIME)' | "
                   "sed \"s/=\\(.*\\)/='\\1'/; s/^/export /\" >/tmp/clock")
        before = router.clock()
        inside = int(router.run(". /tmp/clock; date +%s"))
        assert before - 2 <= inside <= router.clock() + 2
        router.reboot()


def test_a_broker_that_was_stopped_has_gone(router):
    """However long it takes to follow: here it is stopped itself while it is asked to end."""
    router.wait_connected()
    router.run("(killall -STOP mosquitto; sleep 2; killall -CONT mosquitto) >/dev/null 2>&1 &")
    router.broker(False)
    assert router.run("pidof mosquitto", check=False) == ""


def test_the_services_journal_is_part_of_the_stream(router):
    router.run("cmd_wifi apply; cmd_ipsec restart")
    assert of(router, "service", "service", "text")[-4:] == [
        ("cmd_wifi", "apply"), ("cmd_wifi", "apply done: off"),
        ("cmd_ipsec", "restart"), ("cmd_ipsec", "restart done: off")]
    assert of(router, "service", "service", "text") == [(entry.service, entry.text) for entry in router.journal()]


def test_another_slot_and_why_it_boots_is_told(router):
    router.run("echo 2 > /var/data/boot/slot; echo '2 1' > /var/data/boot/trial")
    router.reboot()
    assert of(router, "slot", "slot", "text") == [("2", "tries slot 2, 0 more")]
    assert of(router, "boot", "slot") == [("1",), ("2",)]


def test_no_progress_text_is_lost_by_a_reboot_right_after_it(router):
    for _ in range(5):
        begun = len(router.events())
        boots, command = router.boots(), TELL_AND_REBOOT.format(time=router.clock())
        with launcher_held(router):
            router.run(command, check=False)
        router.wait_for_boot(PATIENCE, boots)
        events = router.events()[begun:]
        texts = [event.get("text", event["kind"]) for event in events
                 if event["kind"] in ("progress", "apply-end", "end")]
        assert texts == [*(f"step {n}" for n in range(1, 51)), "apply-end", "end"]


def test_an_apply_that_ends_in_a_reboot_is_told_to_its_end(router, cloud):
    """The one after an upgrade does, within a tenth of a second; here the next boot is asked for at its end."""
    configuration.send(router, cloud, network__interfaces__wan__gateway="198.51.100.1")
    end = router.wait_for_event("apply-end", PATIENCE)
    router.reboot()
    texts = [event["text"] for event in router.events("apply-begin", "progress")]
    assert texts[:2] == ["executing config change", "validating config"]
    assert texts[-1].startswith("network.interfaces.wan.gateway: 198.51.100.1 is outside")
    assert end["boot"] == 1
    assert all(event["time"] <= end["time"] for event in router.events("progress"))


def test_two_applies_one_after_the_other_keep_their_texts(router, cloud):
    for job in ("first", "second"):
        configuration.send(router, cloud, job, network__interfaces__wan__gateway="198.51.100.1")
    router.wait_until(lambda: kinds(router).count("apply-end") >= 2, PATIENCE, "both to end")
    assert [kind for kind in kinds(router) if kind in ("apply-begin", "apply-end")] == ["apply-begin", "apply-end"] * 2


def test_every_line_of_the_file_is_one_event(router):
    router.run("cmd_wifi apply")
    router.reboot()
    router.events()
    text = (router.state / "events").read_text()
    assert text.endswith("\n")
    for line in text.splitlines():
        assert {"at", "time", "kind", "boot"} <= json.loads(line).keys()
    assert vrouter(router, "events").startswith(text)


def test_a_follower_sees_what_happens_after_it_came(router):
    command = [str(TREE / "router/vrouter"), "--root", str(router.state.folder.parent), "events", "-f"]
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as follower:
        try:
            router.reboot()
            router.fault("cmd_wifi", "slow 1")
            seen = []
            while seen[-1:] != ["fault"]:
                seen.append(json.loads(follower.stdout.readline())["kind"])
        finally:
            follower.kill()
    kept = [kind for kind in seen if kind in ("boot", "up", "end", "fault")]
    assert kept == ["boot", "up", "end", "boot", "up", "fault"]


def test_a_new_router_of_the_same_name_begins_a_new_stream(router):
    router.reboot()
    reader = type(router)(router.name, router.state.folder.parent)
    assert len(reader.events("boot")) == reader.log().count("boot: firmware") == 2
    router.down()
    assert kinds(router)[-1] == "end", "it can be read when the router is gone"
    router.boot()
    for client in (router, reader):
        assert of(client, "boot", "boot") == [(1,)]
        assert client.log().count("boot: firmware") == 1


# --- the log

def numbers(router, word):
    return [int(number) for number in re.findall(rf"user\.notice burst: {word} (\d+)$", router.log(), re.MULTILINE)]


def test_every_line_logged_right_before_a_reboot_is_there_once(router):
    for boot in range(1, 6):
        reboot_with(router, f"for n in $(seq 1 {BURST}); do logger -t burst 'of-{boot}' $n; done; /sbin/reboot -f")
        assert numbers(router, f"of-{boot}") == list(range(1, BURST + 1))


def test_every_line_logged_right_before_a_power_cut_is_there_once(router):
    router.run(f"for n in $(seq 1 {BURST}); do logger -t burst cut $n; done")
    router.power_cut()
    assert numbers(router, "cut") == list(range(1, BURST + 1))


def test_what_was_logged_when_the_boot_is_over_is_still_written_down(router):
    router.wait_connected()
    with launcher_held(router):
        router.run("for n in 1 2 3; do logger -t burst late $n; done; exec /bin/busybox reboot -n -f", check=False)
    end = router.wait_for_event("end", PATIENCE)
    assert numbers(router, "late") == [1, 2, 3]
    second = router.wait_for_event("boot", PATIENCE, boot=2)
    assert end["boot"] == 1
    assert b"burst: late 3" in router.read_log()[:second["log"]], "and belongs to that boot"


def test_a_boot_that_ends_is_never_counted_twice(router):
    """Read all the time while it does."""
    seen, stop = [], threading.Event()
    reader = type(router)(router.name, router.state.folder.parent)

    def read():
        while not stop.is_set():
            lines = reader.log().splitlines()
            seen.append((lines.count(lines[0]) if lines else 0, reader.log().count("boot: firmware"),
                         len(reader.events("boot"))))
    thread = threading.Thread(target=read)
    thread.start()
    try:
        for _ in range(5):
            router.reboot()
    finally:
        stop.set()
        thread.join()
    assert len(seen) > 5
    assert max(firmware - boots for _, firmware, boots in seen) <= 0
    assert [firmware for _, firmware, _ in seen] == sorted(firmware for _, firmware, _ in seen), "nor taken back"


def test_the_first_line_of_every_boot_is_there(router):
    for _ in range(10):
        router.reboot()
    log = router.read_log()
    for boot in router.events("boot"):
        first, second = log[boot["log"]:].splitlines()[:2]
        assert first.endswith(b" starting pid 2, tty '': '/etc/init.d/boot'"), "the first that anybody logs"
        assert b" router daemon.notice boot: firmware 1.0.0 starts" in second


def test_a_line_has_the_form_of_the_usual_daemon(router):
    router.run(r"logger -t mine -p local3.warn 'a  b'; logger -t mine -p user.debug $(printf 'tab\there');"
               "logger -t mine plain")
    lines = [line for line in router.log().splitlines() if " mine: " in line]
    assert [line[16:] for line in lines] == [
        "router local3.warning mine: a  b", "router user.debug mine: tab here", "router user.notice mine: plain"]
    assert all(re.match(r"[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d ", line) for line in lines)
    assert router.run("grep ' mine: ' /var/log/messages").splitlines() == lines


def test_a_long_line_stays_whole_and_one_with_line_ends_one_line(router):
    router.run(f"logger -t mine {'x' * 3000}")
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as datagram:
        with short_path(router.state / "outside/log.sock") as name:
            datagram.connect(name)
        datagram.send(b"<999>odd priority\nand\ta\x01line end\n")
    assert f"user.notice mine: {'x' * 3000}\n" in router.log()
    assert " router user.notice odd priority and\ta^Aline end\n" in router.log()


def test_a_rotated_log_is_whole_outside(router):
    router.run("logger -t mine before; yes | head -c 1100000 >> /var/log/messages; /etc/init.d/housekeeping once;"
               "logger -t mine after")
    assert [line.split()[-1] for line in router.log().splitlines() if " mine: " in line] == ["before", "after"]
    assert " mine: before" not in router.run("cat /var/log/messages")


def test_the_log_of_this_boot_is_that_of_the_latest(router):
    router.run("logger -t mine first")
    router.reboot()
    router.run("logger -t mine second")
    assert "mine: first" not in router.log_of_this_boot()
    assert "mine: second" in router.log_of_this_boot()


def test_a_follower_of_the_log_goes_on_through_a_reboot(router):
    command = [str(TREE / "router/vrouter"), "--root", str(router.state.folder.parent), "log", "-f"]
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as follower:
        try:
            router.reboot()
            router.run("logger -t mine end")
            seen = []
            while " mine: end" not in "".join(seen[-1:]):
                seen.append(follower.stdout.readline())
        finally:
            follower.kill()
    assert sum("boot: firmware" in line for line in seen) == 2
    assert seen == router.log().splitlines(keepends=True)[:len(seen)]


# --- orders

@pytest.mark.parametrize("line", [
    pytest.param(b"", id="nothing"), pytest.param(b'{"do": "lo', id="half-a-line"),
    pytest.param(b"not json\n", id="no-json"), pytest.param(b"[]\n", id="no-object"),
    pytest.param(b"{}\n", id="no-order"), pytest.param(b'{"do": "net"}\n', id="half-an-order")])
def test_a_control_connection_that_says_nothing_sensible_stops_nothing(router, line):
    with connect_unix(router.state / "control", PATIENCE) as silent:
        silent.sendall(line)
        router.reboot()
        router.net(False)
        router.net(True)
        if line.endswith(b"\n"):
            assert b'"error"' in silent.recv(4096)
    assert of(router, "boot", "boot") == [(1,), (2,)]


def test_more_silent_connections_than_the_launcher_keeps_stop_nothing(router):
    silent = []
    try:
        for _ in range(4):      # not more at once than wait to be accepted
            silent += [connect_unix(router.state / "control", PATIENCE) for _ in range(50)]
            assert router.clock() > 0
        assert silent[0].recv(1) == b"", "the oldest was closed"
    finally:
        for connection in silent:
            connection.close()


# --- waits

def test_a_wait_that_fails_says_what_it_saw_meanwhile(router):
    router.wait_connected()
    with pytest.raises(TimeoutError) as failure:
        router.wait_until(lambda: router.run("cmd_wifi reload; logger -t mine meanwhile") is None, 0.1,
                          "the impossible")
    text = str(failure.value)
    assert re.match(r"waited \d+ s for the impossible\nmeanwhile these events:\n", text)
    assert "service: service cmd_wifi, text reload" in text
    assert "user.notice mine: meanwhile" in text
    assert "boot: firmware" not in text, "that was before"
    assert len(text.splitlines()) <= 24


def test_a_wait_for_the_cloud_that_fails_says_what_was_published_meanwhile(router, cloud):
    cloud.send_script("42", "true")
    cloud.wait_for_status("42", "success")
    with pytest.raises(TimeoutError, match=r"waited \d+ s for job 43 to be reported success; meanwhile the device "
                                           r"published .*, before that \[.*'42 success'.*\]"):
        cloud.wait_for_status("43", "success", 0.1)


def test_a_pause_before_every_wait_can_be_asked_for(router, monkeypatch):
    monkeypatch.setenv("VROUTER_PAUSE", "1")
    before = router.clock()
    router.wait_until(lambda: True, PATIENCE, "nothing")
    assert router.clock() - before >= 10
