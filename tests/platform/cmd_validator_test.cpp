// The validator: the delivered configuration is valid, and every fault is told with its place.
#include "tests/platform/cmd_fixture.h"

#include "host/cmd/paths.h"
#include "platform/cmd.h"
#include "platform/vtrsec.h"

namespace {

using testing::HasSubstr;

constexpr char CANDIDATE[] = "/var/volatile/config/config.new";

class Validator : public CmdTest {
protected:
    // "valid", or the explanation.
    static std::string verdict(const Json::Value &config) {
        write_json(CANDIDATE, config);
        return verdict_of_file();
    }

    static std::string verdict_of_file() {
        std::string result = "Validation not run";
        return config_validator(CANDIDATE, result) == 0 ? "valid" : result;
    }
};

TEST_F(Validator, TakesTheDeliveredConfiguration) {
    EXPECT_EQ(verdict(default_config()), "valid");
}

TEST_F(Validator, RefusesWhatNothingElseCouldRead) {
    const std::string file = "/tmp/candidate";
    for (const std::string text : {R"({"a":01500})", R"({"a":+1})", R"({"a":1.})", "{\"a\":\"\t\"}"}) {
        write_text(file, text);
        std::string result;
        EXPECT_NE(config_validator(file.c_str(), result), 0) << text;
        EXPECT_THAT(result, testing::HasSubstr("not JSON")) << text;
    }
}

TEST_F(Validator, TakesAConfigurationOfTheRequiredAreasAlone) {
    Json::Value config;
    for (const char *area : {"hardware", "network", "iot"})
        config[area] = default_config()[area];
    for (const char *area : {"firewall", "monitoring", "routes", "tunnels", "wireless"})
        config["network"].removeMember(area);
    EXPECT_EQ(verdict(config), "valid");
}

struct row {
    std::string path;  // dotted, in the default configuration
    std::string value; // JSON
    std::string told;  // the place and what was expected
};

std::ostream &operator<<(std::ostream &out, const row &one) {
    return out << one.path << " = " << one.value;
}

const std::vector<row> SCHEMA_FAULTS = {
    // one address or mask after the other
    {"network.interfaces.wan.address", "\"192.0.2.256\"",
     "network.interfaces.wan.address: expected the IPv4 address"},
    {"network.interfaces.wan.address", "\"192.0.2\"",
     "network.interfaces.wan.address: expected the IPv4 address"},
    {"network.interfaces.wan.address", "\"192.0.2.2 \"", "network.interfaces.wan.address: expected"},
    {"network.interfaces.wan.address", "\"192.0.2.2\\n\"", "network.interfaces.wan.address: expected"},
    {"network.interfaces.wan.address", "\"192.0.02.2\"", "network.interfaces.wan.address: expected"},
    {"network.interfaces.wan.address", "\"127.0.0.1\"", "network.interfaces.wan.address: expected"},
    {"network.interfaces.wan.address", "\"224.0.0.1\"", "network.interfaces.wan.address: expected"},
    {"network.interfaces.wan.address", "\"0.0.0.0\"", "network.interfaces.wan.address: expected"},
    {"network.interfaces.wan.address", "3221225986", "network.interfaces.wan.address: expected"},
    {"network.interfaces.wan.netmask", "\"255.0.255.0\"",
     "network.interfaces.wan.netmask: expected an IPv4 netmask"},
    {"network.interfaces.wan.netmask", "\"0.0.0.0\"", "network.interfaces.wan.netmask: expected"},
    {"network.interfaces.wan.netmask", "24", "network.interfaces.wan.netmask: expected an IPv4 netmask"},
    {"network.interfaces.wan.gateway", "\"router\"", "network.interfaces.wan.gateway: expected"},
    {"network.interfaces.wan.dns", "[\"192.0.2.1\", \"dns\"]",
     "network.interfaces.wan.dns.1: expected the IPv4"},
    {"network.interfaces.wan.dns", "[\"9.9.9.9\",\"9.9.9.8\",\"9.9.9.7\",\"9.9.9.6\"]",
     "network.interfaces.wan.dns: expected a list of at most 3"},
    {"network.interfaces.wan.mtu", "500",
     "network.interfaces.wan.mtu: expected an MTU from 576 to 9000 bytes, found 500"},
    {"network.interfaces.wan.mtu", "1500.5", "network.interfaces.wan.mtu: expected an MTU"},
    {"network.interfaces.wan.metric", "-1", "network.interfaces.wan.metric: expected a route metric"},
    {"network.interfaces.wan.role", "\"dmz\"",
     "network.interfaces.wan.role: expected \"wan\" or \"lan\", found \"dmz\""},
    {"network.interfaces.wan.mode", "\"pppoe\"",
     "network.interfaces.wan.mode: expected \"static\", \"dhcp\""},
    {"network.interfaces.wan.device", "\"wan/0\"", "network.interfaces.wan.device: expected the name"},
    {"network.interfaces.wan.device", "\"averylongdevicename\"",
     "network.interfaces.wan.device: expected the name"},
    {"network.interfaces.wan.enable", "\"yes\"",
     "network.interfaces.wan.enable: expected true or false, found \"yes\""},
    {"network.interfaces.lan.dhcp_server.lease_time", "60", "lease_time: expected a lease time from 120"},
    {"network.interfaces.WAN", "{}", "network.interfaces.WAN: unknown member"},
    {"network.interfaces.wan.gatewy", "\"192.0.2.1\"", "network.interfaces.wan.gatewy: unknown member"},
    {"network.interfaces", "{}", "network.interfaces: expected an object with at least one interface"},
    {"network.interfaces", "[]", "network.interfaces: expected an object"},
    {"network.routes.static", "[{\"destination\": \"10.0.0.0/33\", \"interface\": \"wan\"}]",
     "network.routes.static.0.destination: expected an IPv4 subnet"},
    {"network.routes.static", "[{\"interface\": \"wan\"}]",
     "network.routes.static.0.destination: is missing"},
    {"network.firewall.policy.input", "\"deny\"",
     "network.firewall.policy.input: expected \"accept\", \"drop\""},
    {"network.firewall.rules.0.port", "65536", "network.firewall.rules.0.port: expected a port number"},
    {"network.firewall.rules.0.action", "\"log\"", "network.firewall.rules.0.action: expected"},
    {"network.firewall.rules.0.chain", "\"output\"", "network.firewall.rules.0.chain: expected"},
    {"network.firewall.rules.0.protocol", "\"sctp\"", "network.firewall.rules.0.protocol: expected"},
    {"network.firewall.rules.0.name", "\"From LAN\"", "network.firewall.rules.0.name: expected a name"},
    {"network.firewall.port_forwards", "[{\"name\": \"web\"}]",
     "network.firewall.port_forwards.0.to_port: is missing"},
    {"network.wireless.wifi.country", "\"Germany\"",
     "network.wireless.wifi.country: expected a country code"},
    {"network.wireless.wifi.channel", "200", "network.wireless.wifi.channel: expected a channel"},
    {"network.wireless.wifi.ssid", "\"\"", "network.wireless.wifi.ssid: expected a network name"},
    {"network.wireless.wifi.security", "{\"mode\": \"wep\"}",
     "network.wireless.wifi.security.mode: expected"},
    {"network.wireless.wifi.security", "{\"mode\": \"wpa2-psk\"}",
     "network.wireless.wifi.security.passphrase: is missing, expected a passphrase of 8 to 63"},
    {"network.wireless.wifi.security", "{\"mode\": \"wpa2-psk\", \"passphrase\": \"short\"}",
     "network.wireless.wifi.security.passphrase: expected a passphrase of 8 to 63"},
    {"network.wireless.wifi.enable", "true",
     "network.wireless.wifi.ssid: is missing, expected a network name"},
    {"network.wireless.cell.sim1.apn", "\"an apn\"",
     "network.wireless.cell.sim1.apn: expected an access point name"},
    {"network.wireless.cell.sim1.pin", "\"12a4\"",
     "network.wireless.cell.sim1.pin: expected a PIN of 4 to 8 digits"},
    {"network.wireless.cell.sim1.pin", "1234",
     "network.wireless.cell.sim1.pin: expected a PIN of 4 to 8 digits"},
    {"network.wireless.cell.sim2", "{}", "network.wireless.cell.sim2.apn: is missing"},
    {"network.wireless.cell.sim", "\"sim3\"", "network.wireless.cell.sim: expected"},
    {"network.wireless.cell.enable", "1", "network.wireless.cell.enable: expected true or false, found 1"},
    {"gps.gps.interval", "0", "gps.gps.interval: expected a time from 1 to 86400 seconds, found 0"},
    {"gps.gps.systems", "[\"gps\", \"gps\"]",
     "gps.gps.systems: expected a list of different satellite systems"},
    {"gps.gps.report", "{\"enable\": true, \"host\": \"a.example\", \"port\": 0}",
     "gps.gps.report.port: expected"},
    {"network.tunnels.ipsec.tunnels", "[{\"name\": \"hq\", \"enable\": true}]",
     "network.tunnels.ipsec.tunnels.0.psk: is missing"},
    {"network.tunnels.ipsec.enable", "null",
     "network.tunnels.ipsec.enable: expected true or false, found null"},
    {"network.monitoring.multiwan.interval", "-10", "network.monitoring.multiwan.interval: expected a time"},
    {"network.monitoring.multiwan.fail_after", "0",
     "network.monitoring.multiwan.fail_after: expected a number of probes"},
    {"network.monitoring.multiwan.links",
     "[{\"interface\": \"wan\", \"priority\": 0, \"probe\": \"9.9.9.9\"}]",
     "network.monitoring.multiwan.links.0.priority: expected a priority"},
    {"apps.installed.monitor", "{\"enable\": true, \"memory_limit\": 4096}",
     "apps.installed.monitor.memory_limit: expected"},
    {"apps.installed.Monitor", "{\"enable\": true}", "apps.installed.Monitor: unknown member"},
    {"hardware.ports", "{}", "hardware.ports: expected an object with at least one port"},
    {"hardware.ports.wan0.speed", "\"10000\"", "hardware.ports.wan0.speed: expected one of"},
    {"hardware.leds.brightness", "101", "hardware.leds.brightness: expected a brightness"},
    {"iot.vantrel_iot.host", "\"\"", "iot.vantrel_iot.host: expected a host name or an IPv4 address"},
    {"iot.vantrel_iot.host", "\"192.0.2.300\"", "iot.vantrel_iot.host: expected a host name"},
    {"iot.vantrel_iot.host", "\"http://cloud.example\"", "iot.vantrel_iot.host: expected a host name"},
    {"iot.vantrel_iot.port", "70000",
     "iot.vantrel_iot.port: expected a port number from 1 to 65535, found 70000"},
    {"iot.vantrel_iot.port", "\"80\"", "iot.vantrel_iot.port: expected a port number"},
    {"iot.vantrel_iot.protocol", "\"FTP\"", "iot.vantrel_iot.protocol: expected \"HTTP\" or \"HTTPS\""},
    {"system.failsafe.timer", "0", "system.failsafe.timer: expected a time from 1 to 1440 minutes, found 0"},
    {"system.failsafe.timer", "-5",
     "system.failsafe.timer: expected a time from 1 to 1440 minutes, found -5"},
    {"system.failsafe.destination_ip", "\"1.2.3\"", "system.failsafe.destination_ip: expected"},
    {"system.failsafe.auto_mode", "\"on\"", "system.failsafe.auto_mode: expected true or false"},
    {"system.general.hostname", "\"-router\"", "system.general.hostname: expected a host name"},
    {"system.general.time_servers", "[\"ntp.example\", 7]", "system.general.time_servers.1: expected"},
    // beside and above the areas
    {"extra", "{}", "extra: unknown member"},
    {"network.extra", "{}", "network.extra: unknown member"},
    {"network.wireless", "7", "network.wireless: expected an object, found 7"},
    {"system", "null", "system: expected an object, found null"},
};

class SchemaFault : public Validator, public testing::WithParamInterface<row> {};

TEST_P(SchemaFault, IsToldWithItsPlace) {
    const Json::Value config = default_with(GetParam().path, json(GetParam().value));
    EXPECT_THAT(verdict(config), HasSubstr(GetParam().told));
}

INSTANTIATE_TEST_SUITE_P(Rows, SchemaFault, testing::ValuesIn(SCHEMA_FAULTS));

class MissingMember : public Validator, public testing::WithParamInterface<std::string> {};

TEST_P(MissingMember, IsToldWithItsPlace) {
    EXPECT_THAT(verdict(default_without(GetParam())), HasSubstr(GetParam() + ": is missing"));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, MissingMember,
    testing::Values("hardware", "hardware.ports", "hardware.ports.wan0.enable", "network",
                    "network.interfaces", "network.interfaces.wan.enable", "network.interfaces.wan.role",
                    "network.interfaces.wan.device", "network.interfaces.wan.mode",
                    "network.interfaces.wan.address", "network.interfaces.wan.netmask",
                    "network.interfaces.lan.dhcp_server.first", "network.firewall.enable",
                    "network.routes.static", "network.wireless.cell.enable", "network.wireless.wifi.enable",
                    "network.tunnels.ipsec.enable", "network.monitoring.multiwan.enable", "gps.gps.enable",
                    "apps.installed", "iot", "iot.vantrel_iot", "iot.vantrel_iot.host",
                    "iot.vantrel_iot.port", "iot.vantrel_iot.protocol", "system.failsafe.enable"));

} // namespace
