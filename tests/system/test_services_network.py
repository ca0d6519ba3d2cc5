"""cmd_netgen and cmd_firewall do to the kernel what the running configuration says."""
import subprocess

import configuration
from bed import PATIENCE

from router.virtual.network import CLOUD_ADDRESS, GATEWAY, ROUTER_ADDRESS


def reaches(router, address):
    return "yes" in router.run(f"ping -c 1 -W 1 {address} >/dev/null && echo yes", check=False)


def answers(router, address):
    """As seen from the cloud's side."""
    return router.cloud_run("ping", "-c", "1", "-W", "1", address).returncode == 0


def apply(router, command="cmd_netgen apply", **values):
    configuration.change(router, **values)
    router.run(command)


def test_boot_brings_up_what_is_configured(router):
    assert f"inet {ROUTER_ADDRESS}/24" in router.run("ip -4 addr show wan0")
    assert "inet 192.168.1.1/24" in router.run("ip -4 addr show lan0")
    assert router.run("ip route show default").strip() == f"default via {GATEWAY} dev wan0"
    assert reaches(router, CLOUD_ADDRESS)
    assert [str(entry) for entry in router.journal("cmd_netgen", "cmd_firewall")] == [
        "cmd_netgen apply", "cmd_netgen apply done", "cmd_firewall apply", "cmd_firewall apply done"]


def test_another_address_is_the_one_that_answers(router):
    apply(router, network__interfaces__wan__address="192.0.2.7")
    assert answers(router, "192.0.2.7")
    assert not answers(router, ROUTER_ADDRESS)
    assert reaches(router, CLOUD_ADDRESS)


def test_a_wrong_gateway_cuts_the_router_off(router):
    apply(router, network__interfaces__wan__gateway="192.0.2.99")
    assert not reaches(router, CLOUD_ADDRESS)
    apply(router, network__interfaces__wan__gateway=GATEWAY)
    assert reaches(router, CLOUD_ADDRESS)


def test_a_gateway_that_is_not_on_the_wire_is_a_failure(router):
    configuration.change(router, network__interfaces__wan__gateway="198.18.0.1")
    assert router.run("cmd_netgen apply || echo status $?").strip() == "status 1"
    assert "cmd_netgen apply failed: " in str(router.journal("cmd_netgen")[-1])
    assert not reaches(router, CLOUD_ADDRESS)


def test_an_interface_that_is_switched_off_is_down(router):
    apply(router, network__interfaces__wan__enable=False)
    assert "state DOWN" in router.run("ip link show wan0")
    assert not reaches(router, GATEWAY)
    apply(router, network__interfaces__wan__enable=True)
    assert reaches(router, CLOUD_ADDRESS)


def test_a_port_that_is_switched_off_is_down(router):
    apply(router, hardware__ports__wan0__enable=False)
    assert "state DOWN" in router.run("ip link show wan0")


def test_mtu_metric_and_static_routes(router):
    apply(router, network__interfaces__wan__mtu=1400, network__interfaces__wan__metric=10,
          network__routes__static=[
              {"destination": "203.0.113.0/24", "gateway": GATEWAY, "interface": "wan", "metric": 5},
              {"destination": "198.18.0.0/15", "interface": "lan"}])
    assert "mtu 1400" in router.run("ip link show wan0")
    routes = [line.strip() for line in router.run("ip route").splitlines()]
    assert f"default via {GATEWAY} dev wan0 metric 10" in routes
    assert f"203.0.113.0/24 via {GATEWAY} dev wan0 metric 5" in routes
    assert "198.18.0.0/15 dev lan0 scope link" in routes


def test_the_pulse_takes_the_ports_down_and_up(router):
    router.run("ip monitor link >/tmp/links 2>&1 &")
    router.wait_until(lambda: "wan0" in router.run("ip link set wan0 alias listening; cat /tmp/links"), PATIENCE,
                      "the monitor to listen")
    router.run("cmd_netgen apply --pulse-ethernet")

    def went_down():
        wan = [line for line in router.run("cat /tmp/links").splitlines() if "wan0" in line]
        return any("UP" not in line.split(">")[0].split(",") and "state DOWN" in line for line in wan)
    router.wait_until(went_down, PATIENCE, "the port to have been down")
    assert reaches(router, CLOUD_ADDRESS)


def test_a_lease_is_asked_for_and_used(router, tmp_path):
    folder = tmp_path
    (folder / "udhcpd.conf").write_text(
        "interface cloud0\nstart 192.0.2.50\nend 192.0.2.50\nopt subnet 255.255.255.0\n"
        f"opt router {GATEWAY}\nlease_file {folder}/leases\npidfile {folder}/pid\n")
    (folder / "leases").touch()
    server = subprocess.Popen([*router.nsenter(cloud=True), "busybox", "udhcpd", "-f", str(folder / "udhcpd.conf")],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        apply(router, network__interfaces__wan__mode="dhcp")
        router.wait_until(lambda: "192.0.2.50/24" in router.run("ip addr show wan0"), PATIENCE, "the lease")
        router.wait_until(lambda: reaches(router, CLOUD_ADDRESS), PATIENCE, "the way to the cloud")
    finally:
        server.terminate()
        server.wait()
    apply(router, network__interfaces__wan__mode="static")
    assert "192.0.2.50" not in router.run("ip addr show wan0")


def connect(router, port):
    """From the cloud's side: "open", "refused" or "dropped"."""
    code = (f"import socket\ntry: socket.create_connection(('{ROUTER_ADDRESS}', {port}), 1); print('open')\n"
            "except ConnectionRefusedError: print('refused')\nexcept TimeoutError: print('dropped')")
    return router.cloud_run("/usr/bin/python3", "-c", code).stdout.strip()


def test_the_firewall_really_filters(router):
    router.run("httpd -p 2200 -h /tmp; httpd -p 2300 -h /tmp")
    assert connect(router, 2200) == "dropped"
    rule = {"name": "shell", "enable": True, "chain": "input", "action": "accept", "interface": "wan",
            "protocol": "tcp", "port": 2200}
    apply(router, "cmd_firewall apply", network__firewall__rules=[
        rule, {**rule, "name": "other", "port": 2300, "action": "reject"}, {**rule, "enable": False, "port": 2400}])
    router.wait_until(lambda: connect(router, 2200) == "open", PATIENCE, "the port to open")
    assert connect(router, 2300) == "refused"
    assert connect(router, 2400) == "dropped"
    assert not answers(router, ROUTER_ADDRESS), "nothing accepts a ping any more"
    apply(router, "cmd_firewall apply", network__firewall__enable=False)
    assert connect(router, 2300) == "open"


def test_forwards_and_masquerading_are_loaded(router):
    apply(router, "cmd_firewall apply", network__firewall__port_forwards=[
        {"name": "web", "enable": True, "interface": "wan", "protocol": "tcp", "port": 8080,
         "to_address": "192.168.1.20", "to_port": 80}],
        network__firewall__policy={"input": "reject", "forward": "drop"})
    rules = router.run("nft list ruleset")
    assert 'iifname "wan0" tcp dport 8080 dnat to 192.168.1.20:80 comment "web"' in rules
    assert 'oifname "wan0" masquerade' in rules
    assert connect(router, 9) == "refused"


def test_a_firewall_that_is_wrong_leaves_the_former_one(router):
    configuration.change(router, network__firewall__rules=[
        {"name": "bad", "enable": True, "chain": "input", "action": "accept", "source": "nonsense/99"}])
    before = router.run("nft list ruleset")
    assert router.run("cmd_firewall apply || echo status $?").strip() == "status 1"
    assert router.run("nft list ruleset") == before
    assert "cmd_firewall apply failed: " in str(router.journal("cmd_firewall")[-1])


def test_a_command_that_is_not_understood_does_nothing(router):
    commands = ("cmd_netgen", "cmd_firewall", "cmd_wifi", "cmd_ipsec")
    before = router.journal(*commands)
    for command in (*commands, "systemctl"):
        assert router.run(f"{command} nonsense 2>/dev/null || echo status $?").strip() == "status 2"
    assert router.journal(*commands) == before
