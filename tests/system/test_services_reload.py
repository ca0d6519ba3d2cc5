"""Reloads, the modem manager, the journal, and the faults that services can be given."""
import time

import configuration
from bed import PATIENCE


def texts(router, *services):
    return [str(entry) for entry in router.journal(*services)]


def modem_manager(router):
    return int(router.run("cat /var/run/qtel-mgr.pid"))


def cell_connected(router):
    return router.run("sysdb get CELL_CONNECTED").strip()


def wait_for_restart(router, former):
    router.wait_until(lambda: modem_manager(router) != former, PATIENCE, "another modem manager")


def test_every_service_tells_the_journal_in_order(router):
    services = ("cmd_wifi", "cmd_ipsec", "vtr-netwd", "vtr-app-mgr", "vtr-iot")
    router.run("cmd_wifi apply; cmd_wifi reload; cmd_ipsec restart; systemctl reload vtr-netwd;"
               "systemctl reload vtr-app-mgr.service; systemctl reload vtr-iot")
    assert texts(router, *services) == [
        "cmd_wifi apply", "cmd_wifi apply done: off", "cmd_wifi reload", "cmd_wifi reload done: off",
        "cmd_ipsec restart", "cmd_ipsec restart done: off", "vtr-netwd reload", "vtr-netwd reload done",
        "vtr-app-mgr reload", "vtr-app-mgr reload done", "vtr-iot reload", "vtr-iot reload done"]


def test_wifi_and_tunnels_are_told_as_configured(router):
    configuration.change(
        router, network__wireless__wifi={"enable": True, "ssid": "Depot", "security": {"mode": "wpa3-sae"}},
        network__tunnels__ipsec={"enable": True, "tunnels": [
            {"name": "hq", "enable": True, "remote": "203.0.113.1"}, {"name": "old", "enable": False, "remote": "x"}]})
    router.run("cmd_wifi apply; cmd_ipsec restart")
    assert texts(router, "cmd_wifi")[-1] == "cmd_wifi apply done: Depot, wpa3-sae"
    assert texts(router, "cmd_ipsec")[-1] == "cmd_ipsec restart done: hq to 203.0.113.1"


def test_the_journal_outlives_a_power_cut(router):
    router.run("cmd_wifi apply")
    router.power_cut()
    assert "cmd_wifi apply done: off" in texts(router)
    assert texts(router).count("cmd_netgen apply done") == 2


def test_an_unknown_unit_is_refused(router):
    assert router.run("systemctl reload nonsense 2>&1 || echo status $?").splitlines() == [
        "Failed to reload nonsense.service: Unit nonsense.service not found.", "status 5"]


def test_a_reload_of_the_system_service_sets_the_host_name(router):
    configuration.change(router, system__general__hostname="depot-7")
    router.run("systemctl reload vtr-system")
    assert router.run("hostname").strip() == "depot-7"


def test_the_modem_manager_restarts_and_the_former_one_ends(router):
    former = modem_manager(router)
    router.run("systemctl reload qtel-mgr")
    wait_for_restart(router, former)
    router.wait_until(lambda: "gone" in router.run(f"test -e /proc/{former} || echo gone"), PATIENCE, "its end")
    assert router.run(f"test -e /proc/{modem_manager(router)} && echo runs").strip() == "runs"


def test_the_modem_manager_outlives_whoever_reloaded_it(router):
    former = modem_manager(router)
    router.run("setsid sh -c 'systemctl reload qtel-mgr; kill -9 -$$'", check=False)
    wait_for_restart(router, former)
    router.run(f"kill -0 {modem_manager(router)}")


def test_a_reload_returns_when_the_modem_manager_stands_on_its_own(router):
    """However long that takes: here a second until it has its session."""
    former = modem_manager(router)
    router.run("mkdir /tmp/late; printf '#!/bin/sh\\nsleep 1\\nexec /usr/bin/setsid \"$@\"\\n' >/tmp/late/setsid;"
               "chmod +x /tmp/late/setsid")
    router.run("/usr/bin/setsid sh -c 'PATH=/tmp/late:$PATH systemctl reload qtel-mgr; kill -9 -$$'", check=False)
    assert modem_manager(router) != former
    router.run(f"kill -0 {modem_manager(router)}")


def test_a_cell_that_is_switched_off_is_not_connected(router):
    router.wait_until(lambda: cell_connected(router) == "0", PATIENCE, "the modem manager to say so")


def test_the_cell_connects_after_the_time_that_was_set(router):
    configuration.change(router, network__wireless__cell__enable=True)
    router.fault("qtel-mgr", "connect 20")
    began = time.monotonic()
    router.run("systemctl reload qtel-mgr")
    router.wait_until(lambda: cell_connected(router) == "1", PATIENCE, "the cell to connect")
    assert (time.monotonic() - began) * 10 > 20
    router.fault("qtel-mgr", "connect never")
    router.run("systemctl reload qtel-mgr")
    router.wait_until(lambda: cell_connected(router) == "0", PATIENCE, "the cell to be gone")


COMMANDS = {"cmd_netgen": "cmd_netgen apply", "cmd_firewall": "cmd_firewall apply", "cmd_wifi": "cmd_wifi apply",
            "cmd_ipsec": "cmd_ipsec restart", "vtr-iot": "systemctl reload vtr-iot",
            "qtel-mgr": "systemctl reload qtel-mgr"}


def test_a_service_fails_when_it_is_told_to(router):
    former = modem_manager(router)
    for service, command in COMMANDS.items():
        router.fault(service, "fail 7")
        assert router.run(f"{command} || echo status $?").strip() == "status 7"
        assert texts(router, service)[-1].endswith(" failed, status 7")
    assert modem_manager(router) == former
    for service, command in COMMANDS.items():
        router.fault(service)
        router.run(command)


def test_a_service_takes_as_long_as_it_is_told_to(router):
    router.fault("cmd_ipsec", "slow 2")
    began = time.monotonic()
    router.run("cmd_ipsec restart")
    assert time.monotonic() - began >= 2
