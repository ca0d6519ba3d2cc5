"""The command line of the virtual router."""
import os
import signal
import subprocess
from pathlib import Path

import pytest
from bed import PATIENCE

from router.virtual.client import TREE

VROUTER = TREE / "router/vrouter"


def command(router, *words):
    return [VROUTER, "--root", router.state.folder.parent, *words]


def vrouter(router, *words):
    return subprocess.run(command(router, *words), capture_output=True, text=True, timeout=60, check=False)


def running(text):
    """Whether a process with this in its command line runs on this machine."""
    def holds(path):
        try:
            return text.encode() in path.read_bytes()
        except OSError:
            return False
    return any(holds(path) for path in Path("/proc").glob("[0-9]*/cmdline"))


def test_the_name_stands_before_or_behind_the_verb(make_router):
    router = make_router("second")
    for words in (["--name", "second", "status"], ["status", "--name", "second"], ["status", "--name=second"]):
        assert "second: up" in vrouter(router, *words).stdout, words
    assert vrouter(router, "exec", "--name", "second", "--", "echo", "--name", "x").stdout == "--name x\n"
    assert vrouter(router, "exec", "--name", "second", "echo", "--name", "x").stdout == "--name x\n"
    assert vrouter(router, "status", "--name", "third").stdout.startswith("third: down")


@pytest.mark.parametrize("words, told", [
    (["vtr-iot", "lame", "3"], "knows no fault 'lame 3'"), (["vtr-iot", "slow", "long"], "knows no fault 'slow long'"),
    (["vtr-iot", "slow"], "each word of a fault has a value"), (["vtr-iot", "connect", "never"], "slow SECONDS"),
    (["nobody", "slow", "3"], "nobody")])
def test_a_fault_that_no_service_knows_is_refused(router, words, told):
    done = vrouter(router, "fault", *words)
    assert done.returncode != 0
    assert told in done.stderr
    assert not list((router.state / "outside").glob("faults/*"))


def test_a_fault_that_is_known_is_set(router):
    assert vrouter(router, "fault", "qtel-mgr", "connect", "never", "slow", "0.5").returncode == 0
    assert (router.state / "outside/faults/qtel-mgr").read_text() == "connect never\nslow 0.5\n"


@pytest.mark.router(device_type=1)
def test_a_press_on_a_router_without_a_button_says_so(router):
    done = vrouter(router, "press", "short")
    assert done.returncode == 1
    assert "device type 1, which has no reset button" in done.stderr


def test_a_command_of_the_cloud_s_side_takes_its_children_with_it(router):
    mark = f"86401.{os.getpid()}"
    done = vrouter(router, "cloud-exec", "--", "sh", "-c", f"sleep {mark} & echo begun; exit 3")
    assert (done.stdout, done.returncode) == ("begun\n", 3)
    assert not running(f"sleep\0{mark}")


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGKILL])
def test_a_command_of_the_cloud_s_side_ends_with_its_caller(router, number):
    mark = f"86400.{os.getpid()}{number:02}"     # no other run's on this machine
    # Whoever runs the tests in the background may have them ignore an interrupt.
    caller = subprocess.Popen(["env", "--default-signal=INT",
                               *command(router, "cloud-exec", "sh", "-c", f"sleep {mark}; true")])
    router.wait_until(lambda: running(f"sleep\0{mark}"), PATIENCE, "the command")
    try:
        caller.send_signal(number)
        caller.wait(PATIENCE)
    finally:
        caller.kill()
    router.wait_until(lambda: not running(f"sleep\0{mark}"), PATIENCE, "the command to end")


def test_the_log_is_shown_by_job_and_by_level(router, cloud):
    cloud.send_script("one", "true")
    cloud.send_script("two", "true")
    router.wait_until(lambda: router.archived_jobs() == ["one", "two"], PATIENCE, "both jobs in the archive")
    shown = vrouter(router, "log", "--job", "one", "--level", "alert").stdout.splitlines()
    assert shown and all(".alert " in line and "one" in line and "two" not in line for line in shown)
    assert vrouter(router, "log", "--since", "2030-01-01 00:00:00").stdout == ""
    whole = vrouter(router, "log", "--since", "1h").stdout
    assert whole and vrouter(router, "log").stdout.startswith(whole)
    assert "no time: 'noon'" in vrouter(router, "log", "--since", "noon").stderr
