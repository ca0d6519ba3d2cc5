// What the areas of a configuration must not say against each other.
#include "tests/platform/cmd_fixture.h"

#include "host/cmd/dotted.h"
#include "host/cmd/fault.h"
#include "platform/cmd.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

struct change {
    std::string path;
    std::string value; // JSON
};

struct row {
    std::vector<change> changes; // to the default configuration
    std::string told;
};

std::ostream &operator<<(std::ostream &out, const row &one) {
    for (const change &each : one.changes)
        out << each.path << " = " << each.value << " ";
    return out;
}

constexpr char CANDIDATE[] = "/var/volatile/config/config.new";
const std::string WAN = "network.interfaces.wan";
const std::string LAN = "network.interfaces.lan";
const std::string RULE = "network.firewall.rules.0";
const std::string DMZ = R"({"enable": true, "role": "lan", "device": "lan1", "mode": "static",
                            "address": "192.168.1.129", "netmask": "255.255.255.128"})";

class Consistency : public CmdTest {
protected:
    static std::string verdict(const std::vector<change> &changes) {
        Json::Value config = default_config();
        for (const change &each : changes)
            EXPECT_TRUE(conf::set_member(config, each.path, json(each.value))) << each.path;
        write_json(CANDIDATE, config);
        std::string result;
        return config_validator(CANDIDATE, result) == 0 ? "valid" : result;
    }
};

class Contradiction : public Consistency, public testing::WithParamInterface<row> {};

TEST_P(Contradiction, IsToldWithItsPlace) {
    EXPECT_THAT(verdict(GetParam().changes), HasSubstr(GetParam().told));
}

const std::vector<row> CONTRADICTIONS = {
    {{{WAN + ".gateway", "\"198.51.100.1\""}},
     WAN +
         ".gateway: 198.51.100.1 is outside the interface's subnet, expected an address from 192.0.2.0 to 192.0.2.255"},
    {{{WAN + ".netmask", "\"255.255.255.254\""}, {WAN + ".gateway", "\"192.0.2.4\""}},
     WAN + ".gateway: 192.0.2.4 is outside"},
    {{{WAN + ".gateway", "\"192.0.2.255\""}},
     WAN + ".gateway: 192.0.2.255 is the network or broadcast address"},
    {{{WAN + ".gateway", "\"192.0.2.0\""}}, WAN + ".gateway: 192.0.2.0 is the network or broadcast address"},
    {{{WAN + ".gateway", "\"192.0.2.2\""}}, WAN + ".gateway: 192.0.2.2 is the interface's own address"},
    {{{WAN + ".address", "\"192.0.2.255\""}},
     WAN + ".address: 192.0.2.255 is the network or broadcast address"},
    {{{WAN + ".address", "\"192.168.1.7\""}, {WAN + ".gateway", "\"192.168.1.8\""}},
     WAN + ".address: its subnet, 192.168.1.0 to 192.168.1.255, overlaps that of interface lan"},
    {{{"network.interfaces.dmz", DMZ}}, LAN + ".address: its subnet"},
    {{{WAN + ".device", "\"lan0\""}}, WAN + ".device: lan0 is used by network.interfaces.lan already"},
    {{{"hardware.ports.wan0.enable", "false"}}, WAN + ".device: hardware.ports.wan0 is not enabled"},
    {{{LAN + ".dhcp_server.first", "\"192.168.2.100\""}},
     LAN + ".dhcp_server.first: 192.168.2.100 is outside the interface's subnet"},
    {{{LAN + ".dhcp_server.last", "\"192.168.1.99\""}},
     LAN + ".dhcp_server.last: expected an address not below the first one, 192.168.1.100"},
    {{{LAN + ".mode", "\"dhcp\""}},
     LAN + ".dhcp_server.enable: expected false on an interface that is not static"},
    {{{"network.routes.static.0", R"({"destination": "10.0.0.1/8", "interface": "wan"})"}},
     "network.routes.static.0.destination: expected the first address of the subnet, 10.0.0.0/8, found 10.0.0.1/8"},
    {{{"network.routes.static.0", R"({"destination": "10.0.0.0/8", "interface": "dsl"})"}},
     "network.routes.static.0.interface: there is no interface \"dsl\""},
    {{{"network.routes.static.0",
       R"({"destination": "10.0.0.0/8", "interface": "wan", "gateway": "192.168.1.9"})"}},
     "network.routes.static.0.gateway: 192.168.1.9 is outside the subnet of interface wan"},
    {{{RULE + ".interface", "\"dsl\""}}, RULE + ".interface: there is no interface \"dsl\""},
    {{{RULE + ".source", "\"10.1.0.0/8\""}},
     RULE + ".source: expected the first address of the subnet, 10.0.0.0/8"},
    {{{RULE + ".destination", "\"10.0.0.1/31\""}}, RULE + ".destination: expected the first address"},
    {{{RULE + ".port", "22"}}, RULE + ".protocol: expected \"tcp\" or \"udp\" in a rule with a port"},
    {{{RULE + ".port", "22"}, {RULE + ".protocol", "\"icmp\""}},
     RULE + ".protocol: expected \"tcp\" or \"udp\""},
    {{{RULE + ".last_port", "22"}}, RULE + ".port: is missing, expected the first port of the range"},
    {{{RULE + ".port", "22"}, {RULE + ".last_port", "21"}, {RULE + ".protocol", "\"tcp\""}},
     RULE + ".last_port: expected at least the first port, 22, found 21"},
    {{{"network.firewall.rules.1.name", "\"from-lan\""}},
     "network.firewall.rules.1.name: \"from-lan\" is used twice"},
    {{{"network.firewall.masquerade", "[\"wan\", \"dsl\"]"}},
     "network.firewall.masquerade.1.interface: there is no interface \"dsl\""},
    {{{"network.firewall.port_forwards.0",
       R"({"name": "web", "enable": true, "interface": "wan", "protocol": "tcp", "port": 80,
           "to_address": "10.0.0.7", "to_port": 80})"}},
     "network.firewall.port_forwards.0.to_address: 10.0.0.7 is in the subnet of no lan interface"},
    {{{"network.firewall.port_forwards.0",
       R"({"name": "web", "enable": true, "interface": "wan", "protocol": "tcp", "port": 80,
           "to_address": "192.0.2.7", "to_port": 80})"}},
     "network.firewall.port_forwards.0.to_address: 192.0.2.7 is in the subnet of no lan interface"},
    {{{"network.wireless.wifi.interface", "\"guest\""}},
     "network.wireless.wifi.interface: there is no interface \"guest\""},
    {{{"hardware.modules.wifi", "false"},
      {"network.wireless.wifi", R"({"enable": true, "ssid": "x", "security": {"mode": "open"}})"}},
     "network.wireless.wifi.enable: expected false, hardware.modules.wifi says that there is none"},
    {{{"hardware.modules.cell", "false"}, {"network.wireless.cell.enable", "true"}},
     "network.wireless.cell.enable"},
    {{{"hardware.modules.gps", "false"}, {"gps.gps.enable", "true"}}, "gps.gps.enable: expected false"},
    {{{"network.monitoring.multiwan.links", R"([{"interface": "dsl", "priority": 1, "probe": "9.9.9.9"}])"}},
     "network.monitoring.multiwan.links.0.interface: there is no interface \"dsl\""},
    {{{"network.monitoring.multiwan.links", R"([{"interface": "wan", "priority": 1, "probe": "9.9.9.9"},
                                                {"interface": "wan", "priority": 2, "probe": "9.9.9.9"}])"}},
     "network.monitoring.multiwan.links.1.interface: \"wan\" is used twice"},
    {{{"network.tunnels.ipsec.tunnels.0",
       R"({"name": "hq", "enable": true, "remote": "hq.example", "psk": "long enough",
           "local_subnet": "10.0.0.0/8", "remote_subnet": "10.9.0.0/16"})"}},
     "network.tunnels.ipsec.tunnels.0.remote_subnet: overlaps the local subnet"},
};

INSTANTIATE_TEST_SUITE_P(Rows, Contradiction, testing::ValuesIn(CONTRADICTIONS));

class Agreement : public Consistency, public testing::WithParamInterface<std::vector<change>> {};

TEST_P(Agreement, IsValid) {
    EXPECT_EQ(verdict(GetParam()), "valid");
}

const std::vector<std::vector<change>> AGREEMENTS = {
    {{WAN + ".address", "\"198.51.100.2\""}, {WAN + ".gateway", "\"198.51.100.1\""}},
    {{WAN + ".netmask", "\"255.255.255.254\""}, {WAN + ".gateway", "\"192.0.2.3\""}},
    {{WAN + ".netmask", "\"255.255.255.255\""},
     {WAN + ".gateway", "\"192.0.2.2\""},
     {WAN + ".enable", "false"}},
    {{WAN + ".mode", "\"dhcp\""}},
    {{LAN + ".dhcp_server.last", "\"192.168.1.100\""}},
    {{"network.interfaces.dmz", DMZ}, {LAN + ".enable", "false"}},
    {{"network.routes.static.0",
      R"({"destination": "10.0.0.0/8", "interface": "wan", "gateway": "192.0.2.9"})"}},
    {{"network.routes.static.0", R"({"destination": "0.0.0.0/0", "interface": "cell"})"}},
    {{RULE + ".port", "22"}, {RULE + ".last_port", "22"}, {RULE + ".protocol", "\"tcp\""}},
    {{"network.firewall.port_forwards.0",
      R"({"name": "web", "enable": true, "interface": "wan", "protocol": "tcp", "port": 80,
          "to_address": "192.168.1.7", "to_port": 80})"}},
    {{"network.wireless.wifi",
      R"({"enable": true, "ssid": "router", "interface": "lan", "security": {"mode": "wpa2-psk", "passphrase": "12345678"}})"}},
    {{"network.wireless.wifi", R"({"enable": true, "ssid": "router", "security": {"mode": "open"}})"}},
    {{"network.monitoring.multiwan.links", R"([{"interface": "wan", "priority": 1, "probe": "9.9.9.9"},
                                               {"interface": "cell", "priority": 2, "probe": "dns.example"}])"}},
    {{"network.wireless.cell.enable", "true"}, {"network.wireless.cell.sim1.pin", "\"1234\""}},
    {{"system.failsafe.destination_ip", "\"192.0.2.1\""}},
    {{"iot.vantrel_iot.host", "\"iot.cloud.example\""}, {"iot.vantrel_iot.protocol", "\"HTTPS\""}},
};

INSTANTIATE_TEST_SUITE_P(Rows, Agreement, testing::ValuesIn(AGREEMENTS));

TEST_F(Consistency, EveryFaultIsTold) {
    const std::string told = verdict({{WAN + ".mtu", "1"},
                                      {WAN + ".gateway", "\"198.51.100.1\""},
                                      {WAN + ".first_typo", "1"},
                                      {WAN + ".second_typo", "1"},
                                      {"system.failsafe.timer", "0"}});
    for (const std::string &place : {WAN + ".mtu", WAN + ".gateway", WAN + ".first_typo",
                                     WAN + ".second_typo", std::string("system.failsafe.timer")})
        EXPECT_THAT(told, HasSubstr(place + ": "));
}

TEST_F(Consistency, EachPlaceIsToldOnce) {
    EXPECT_EQ(
        verdict({{WAN + ".netmask", "24"}}),
        WAN +
            ".netmask: expected an IPv4 netmask of contiguous bits from 128.0.0.0 to 255.255.255.255, as in "
            "255.255.255.0, found 24");
    EXPECT_EQ(verdict({{WAN + ".role", "7"}}), WAN + ".role: expected \"wan\" or \"lan\", found 7");
}

TEST_F(Consistency, OfVeryManyFaultsTheFirstAreTold) {
    Json::Value many(Json::objectValue);
    for (int i = 0; i < 200; ++i)
        many["typo" + std::to_string(i)] = i;
    EXPECT_THAT(verdict({{"system.general", many.toStyledString()}}), HasSubstr("; and 150 more"));
}

TEST_F(Consistency, ASecretIsNeverRepeated) {
    const std::string told =
        verdict({{"network.tunnels.ipsec.tunnels.0", R"({"name": "hq", "psk": "s3cr\u00e4t value"})"},
                 {"network.wireless.cell.sim1.pin", "987654321"}});
    EXPECT_THAT(told, HasSubstr("network.tunnels.ipsec.tunnels.0.psk: expected a pre-shared key"));
    EXPECT_THAT(told, testing::Not(HasSubstr("s3cr")));
    EXPECT_THAT(told, testing::Not(HasSubstr("987654321")));
}

TEST_F(Consistency, TakesDocumentsOfAnyShape) {
    for (const char *document :
         {"{}", R"({"network": 7})", R"({"network": {"interfaces": [1, {}]}})",
          R"({"network": {"interfaces": {"wan": 7, "lan": {"enable": true, "address": 1}}}})",
          R"({"network": {"routes": {"static": {"0": 1}}, "firewall": {"rules": [1, "x", null, []]}}})",
          R"({"network": {"firewall": {"masquerade": [1, {}]}, "tunnels": {"ipsec": {"tunnels": [7]}}}})",
          R"({"hardware": {"ports": 1, "modules": []}, "gps": {"gps": []}})"})
        EXPECT_THAT(conf::consistency_faults(json(document)), IsEmpty()) << document;
}

class Documents : public Consistency {
protected:
    static std::string verdict_of_text(const std::string &text) {
        write_text(CANDIDATE, text);
        std::string result = "Validation not run";
        return config_validator(CANDIDATE, result) == 0 ? "valid" : result;
    }
};

TEST_F(Documents, ThatAreNoJsonAreToldWhere) {
    EXPECT_THAT(verdict_of_text("{\n  \"a\": 1,\n  \"b\" 2\n}"), HasSubstr("not JSON"));
    EXPECT_THAT(verdict_of_text("{\n  \"a\": 1,\n  \"b\" 2\n}"), HasSubstr("Line 3"));
    EXPECT_THAT(verdict_of_text(""), HasSubstr("not JSON"));
    EXPECT_THAT(verdict_of_text("[]"), HasSubstr("expected the document to be an object"));
    EXPECT_THAT(verdict_of_text("7"), HasSubstr("expected the document to be an object"));
    unlink(CANDIDATE);
    std::string result;
    EXPECT_EQ(config_validator(CANDIDATE, result), -1);
    EXPECT_THAT(result, HasSubstr("there is no readable file"));
}

TEST_F(Documents, WithOverlongTextsAreRefused) {
    const std::string text(200000, 'a');
    EXPECT_THAT(verdict({{"iot.vantrel_iot.host", "\"" + text + "\""}}),
                "iot.vantrel_iot.host: expected a text of at most 1024 bytes");
}

TEST_F(Documents, NestedDeeplyAreRefused) {
    std::string deep = default_config().toStyledString();
    deep.insert(deep.find('{') + 1, "\"deep\": " + std::string(900, '[') + std::string(900, ']') + ",");
    EXPECT_THAT(verdict_of_text(deep), HasSubstr("deep: unknown member"));
    EXPECT_THAT(verdict_of_text(std::string(100000, '[')), HasSubstr("not JSON"));
}

TEST_F(Documents, CannotBeJudgedWithoutMetaData) {
    std::filesystem::remove_all("/usr/share/vantrel/meta");
    EXPECT_THAT(verdict({}), HasSubstr("there is no meta data"));
}

} // namespace
