"""tessard-boot: as a command, and where the units call it under a real systemd."""
import json
import re
import subprocess

import pytest

MARKS = "/var/volatile/orv"
DATA = "var/data/orv"
ACTIVE = f"{DATA}/vantrel_iot/jobs/active"
STUB = "#!/bin/sh\necho tessard-boot $1 >>/out/order\n"


@pytest.fixture
def command(installed, prefix):
    return installed / prefix / "sbin/tessard-boot"


# --- the command itself

def run(command, *words):
    return subprocess.run([command, *words], capture_output=True, text=True, check=False)


def test_it_says_what_it_is_for(command):
    told = run(command, "--help")
    assert (told.returncode, told.stderr) == (0, "")
    assert {"boot", "restart"} <= set(re.findall(r"^  (\w+) ", told.stdout, re.MULTILINE))


@pytest.mark.parametrize("words", [[], ["start"], [""], ["boot", "restart"], ["--version"]])
def test_it_refuses_everything_else(command, words):
    told = run(command, *words)
    assert (told.returncode, told.stdout) == (2, "")
    assert "usage: tessard-boot boot|restart" in told.stderr
    if len(words) == 1:
        assert f"unknown verb '{words[0]}'" in told.stderr


def test_it_loads_nothing_that_the_agent_does_not(command, installed, prefix):
    def libraries(program):
        listing = subprocess.run(["readelf", "-dW", program], capture_output=True, text=True, check=True).stdout
        return set(re.findall(r"NEEDED.*\[(lib[^.]+)", listing))
    needed = libraries(command) - {"libasan", "libubsan"}
    assert needed <= {"libjsoncpp", "libcrypto", "libstdc++", "libgcc_s", "libm", "libc"}
    assert needed <= libraries(installed / prefix / "bin/tessard") | {"libcrypto"}


# --- under the units

@pytest.fixture
def order(machine, command):
    """What was run, in order: tessard-boot is a stub, and a unit of the integrator's makes the configuration."""
    command.write_text(STUB)
    machine.write("etc/systemd/system/configuration.service",
                  "[Unit]\nAfter=tessard-boot.service\nBefore=tessard.service\n"
                  "[Service]\nType=oneshot\nExecStart=/bin/sh -c 'echo configuration >>/out/order'\n"
                  "[Install]\nWantedBy=multi-user.target\n")
    machine.systemctl("enable", "configuration.service")
    machine.behave("echo agent >>/out/order")
    return lambda: (machine.out / "order").read_text().splitlines()


def test_a_boot_is_finished_before_the_configuration_and_the_agent_and_a_restart_before_each_agent(machine, order):
    machine.boot()
    first = ["tessard-boot boot", "configuration", "tessard-boot restart", "agent"]
    assert order() == first
    for starts in (2, 3):
        machine.kill_agent()
        machine.wait_for_starts(starts)
    assert order() == first + ["tessard-boot restart", "agent"] * 2
    machine.run("systemctl reboot --force", check=False)
    machine.wait_for_end()
    machine.boot()
    assert order()[-4:] == first


def test_an_agent_starts_though_tessard_boot_fails(machine, command):
    command.write_text("#!/bin/sh\nexit 1\n")
    machine.boot()
    assert len(machine.starts()) == 1
    machine.kill_agent()
    machine.wait_for_starts(2)


def said(machine):
    return machine.run("journalctl --sync; journalctl --identifier tessard-boot --output cat").splitlines()


def test_what_a_killed_agent_has_left_is_gone_before_the_next_one(machine):
    machine.behave(f"ls {MARKS} >>/out/left; echo . >>/out/left")
    machine.boot()
    assert said(machine) == [], "the first start has nothing to clear"
    for name, text in (("CRITICAL_JOB_EXECUTING", 1), ("FW_JOBID", 42), ("42.pid", 4711), ("42_1:2:3_4-5-2026", "")):
        machine.run(f"echo {text} >{MARKS}/{name}")
    machine.kill_agent()
    machine.wait_for_starts(2)
    machine.wait(lambda: (machine.out / "left").read_text().count(".\n") == 2, "the second agent to look")
    assert (machine.out / "left").read_text() == ".\n42_1:2:3_4-5-2026\n.\n"
    assert sorted(said(machine)) == [f"{MARKS}/{name} of a killed agent is deleted"
                                     for name in ("42.pid", "CRITICAL_JOB_EXECUTING", "FW_JOBID")]


def put_ended_apply(machine, prefix, saved_pin, candidate_pin):
    """One that is stored as a success, with configurations that differ in a sensitive field at most."""
    config = json.loads((machine.root / prefix / "share/vantrel/default-config.json").read_text())
    for path, pin in ((f"{DATA}/config.json", saved_pin), (f"{DATA}/config.new", candidate_pin)):
        config["network"]["wireless"]["cell"]["sim1"]["pin"] = pin
        machine.write(path, json.dumps(config))
    machine.write(f"{DATA}/ACTIVE_JOB", '{"jobId": "77", "status": "executed"}')
    machine.write(f"{DATA}/FAILSAFE_TIMER", "{}")
    machine.write(f"{ACTIVE}/77", '{"jobId": "77", "status": "success", "ack": false, "ackId": 5}')


def left_of_apply(machine):
    return machine.run(f"cd /{DATA}; ls -d ACTIVE_JOB config.new FAILSAFE_TIMER 2>/dev/null", check=False).split()


def test_an_apply_that_had_ended_is_forgotten_before_the_agent_starts(machine, prefix):
    machine.behave(f"ls /{DATA} >/out/seen")
    put_ended_apply(machine, prefix, "1234", "1234")
    machine.boot()
    assert said(machine) == ["the apply of job 77 had ended as success: it is not resumed"]
    assert not {"ACTIVE_JOB", "config.new", "FAILSAFE_TIMER"} & set((machine.out / "seen").read_text().split())


def test_a_field_that_was_encoded_by_its_commit_makes_no_difference(machine, prefix):
    put_ended_apply(machine, prefix, "1234", "4321")
    machine.boot()
    assert len(left_of_apply(machine)) == 3, "another one is in force"
    machine.run("vtrcfg init", check=False)
    stored = json.loads(machine.run(f"cat /{DATA}/config.json"))
    assert stored["network"]["wireless"]["cell"]["sim1"]["pin"].startswith("$siv1$")
    machine.run(f"sed -i 's/4321/1234/' /{DATA}/config.new; tessard-boot boot")
    assert left_of_apply(machine) == []
