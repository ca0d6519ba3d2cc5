"""What vtrcfg tells a person who asks for a change, with the agent and a cloud around."""
import configuration
from bed import PATIENCE


def ask(router, before=""):
    """What a request prints, and its exit code."""
    told = router.run(f"{before} vtrcfg request --wait --timeout 60 2>&1; echo status $?", timeout=120)
    *lines, status = told.splitlines()
    return lines, int(status.removeprefix("status "))


def test_a_configuration_that_runs_uncommitted_is_no_success(router, cloud):
    before = configuration.read(router)
    router.run("""vtrcfg set hardware.ports.lan7 '{"enable": true, "speed": "auto"}'""")
    lines, status = ask(router)
    assert lines[-2].endswith("failure applying new config")
    assert lines[-1] == ("vtrcfg: the configuration runs, but it is not committed: the next boot brings the "
                         "former one back")
    assert status == 1
    assert "lan7" in router.run("vtrcfg get hardware.ports --edited")
    router.reboot()
    assert configuration.in_force(router) == before


def test_a_request_to_an_agent_that_restarts_is_taken_although_a_cloud_hears_it(router, cloud):
    router.run("vtrcfg set network.interfaces.wan.address 192.0.2.8")
    lines, status = ask(router, before=f"kill -9 {router.agent_pid()};")
    assert lines[-1] == "the configuration runs"
    assert status == 0
    assert configuration.read(router, configuration.STORED)["network"]["interfaces"]["wan"]["address"] == "192.0.2.8"
    router.wait_until(lambda: "FAILSAFE_CONFIG" in router.archived_jobs(), PATIENCE, "the job in the archive")
    assert router.count_in_log("cmd_apply: v1/device/cmd/config/apply") == 1
