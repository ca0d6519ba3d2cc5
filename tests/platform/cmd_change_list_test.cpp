// The list of changed areas.
#include "tests/platform/cmd_fixture.h"

#include "host/cmd/dotted.h"
#include "platform/cmd.h"
#include "platform/vtrsec.h"

namespace {

constexpr char OLD[] = "/var/volatile/config/config.running";
constexpr char NEW[] = "/var/volatile/config/config.new";

class ChangeList : public CmdTest {
protected:
    static Json::Value changes(const Json::Value &former, const Json::Value &next) {
        write_json(OLD, former);
        write_json(NEW, next);
        return changes_of_files();
    }

    static Json::Value changes_of_files() {
        Json::Value changes;
        EXPECT_EQ(get_config_change_list(OLD, NEW, changes), 0);
        return changes;
    }

    static std::vector<std::string> paths(const Json::Value &changes) {
        std::vector<std::string> found;
        for (const Json::Value &change : changes)
            found.push_back(change["path"].asString());
        return found;
    }

    const Json::Value base = default_with("network.wireless.wifi.security",
                                          json(R"({"mode": "wpa2-psk", "passphrase": "secret passphrase"})"));
};

TEST_F(ChangeList, OfEqualConfigurationsIsAnEmptyArray) {
    EXPECT_EQ(changes(base, base), Json::Value(Json::arrayValue));
}

TEST_F(ChangeList, NamesAnAreaWithItsApplyLines) {
    Json::Value next = base;
    conf::set_member(next, "network.interfaces.wan.mtu", 1400);
    EXPECT_EQ(changes(base, next), json(R"([{"path": "network.interfaces",
                        "cmd_apply": ["/usr/bin/cmd_netgen apply --pulse-ethernet"]}])"));
}

TEST_F(ChangeList, HasEveryAreaInItsFixedOrder) {
    const std::vector<std::string> all = {"hardware",
                                          "network.interfaces",
                                          "network.routes",
                                          "network.firewall",
                                          "network.wireless.wifi",
                                          "network.wireless.cell",
                                          "gps.gps",
                                          "network.tunnels.ipsec",
                                          "network.monitoring.multiwan",
                                          "apps",
                                          "iot.vantrel_iot",
                                          "system.general",
                                          "system.failsafe"};
    EXPECT_EQ(paths(changes(json("{}"), base)), all);
    EXPECT_EQ(paths(changes(base, json("{}"))), all);
}

struct row {
    std::string path;
    std::string value;
    std::string area;
    std::string lines;
};

class AreaChange : public ChangeList, public testing::WithParamInterface<row> {};

TEST_P(AreaChange, CarriesTheLinesThatItsServicesNeed) {
    const Json::Value found =
        changes(default_config(), default_with(GetParam().path, json(GetParam().value)));
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0]["path"], GetParam().area);
    EXPECT_EQ(found[0]["cmd_apply"], json(GetParam().lines));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, AreaChange,
    testing::Values(
        row{"hardware.leds.enable", "false", "hardware", "[]"},
        row{"network.interfaces.wan.address", "\"192.0.2.3\"", "network.interfaces",
            R"(["/usr/bin/cmd_netgen apply --pulse-ethernet"])"},
        row{"network.routes.static.0", "{}", "network.routes", R"(["/usr/bin/cmd_netgen apply"])"},
        row{"network.firewall.enable", "false", "network.firewall", R"(["/usr/bin/cmd_firewall apply"])"},
        row{"network.wireless.wifi.channel", "6", "network.wireless.wifi", R"(["/usr/bin/cmd_wifi apply"])"},
        row{"network.wireless.cell.enable", "true", "network.wireless.cell",
            R"(["/bin/systemctl reload qtel-mgr"])"},
        row{"gps.gps.interval", "5", "gps.gps", R"(["/bin/systemctl reload qtel-mgr"])"},
        row{"network.tunnels.ipsec.enable", "true", "network.tunnels.ipsec", "[]"},
        row{"network.monitoring.multiwan.interval", "5", "network.monitoring.multiwan",
            R"(["/bin/systemctl reload vtr-netwd"])"},
        row{"apps.installed.monitor", "{}", "apps", "[]"},
        row{"iot.vantrel_iot.port", "8080", "iot.vantrel_iot", R"(["/bin/systemctl reload vtr-iot"])"},
        row{"system.general.hostname", "\"other\"", "system.general",
            R"(["/bin/systemctl reload vtr-system"])"},
        row{"system.failsafe.timer", "6", "system.failsafe", "[]"}));

TEST_F(ChangeList, TakesEncodedAndPlainFieldsAsEqual) {
    write_json(OLD, base);
    ASSERT_EQ(encode_encrypt_fields_config_file(OLD, nullptr), 0);
    write_json(NEW, base);
    EXPECT_TRUE(changes_of_files().empty());
    EXPECT_NE(read_text(OLD), read_text(NEW));
}

TEST_F(ChangeList, SeesAChangedSecretBehindTheEncoding) {
    Json::Value next = base;
    conf::set_member(next, "network.wireless.wifi.security.passphrase", "another passphrase");
    write_json(OLD, base);
    write_json(NEW, next);
    ASSERT_EQ(encode_encrypt_fields_config_file(OLD, nullptr), 0);
    ASSERT_EQ(encode_encrypt_fields_config_file(NEW, nullptr), 0);
    EXPECT_THAT(paths(changes_of_files()), testing::ElementsAre("network.wireless.wifi"));
}

TEST_F(ChangeList, TakesAFormerConfigurationThatIsMissingOrBrokenAsEmpty) {
    write_json(NEW, base);
    EXPECT_EQ(changes_of_files().size(), 13U);
    write_text(OLD, "{ torn");
    EXPECT_EQ(changes_of_files().size(), 13U);
    write_text(OLD, "[]");
    EXPECT_EQ(changes_of_files().size(), 13U);
}

TEST_F(ChangeList, WithoutANewConfigurationFailsAndIsEmpty) {
    write_json(OLD, base);
    for (const char *content : {"", "{ torn", "[]", "7"}) {
        write_text(NEW, content);
        Json::Value found = "before";
        EXPECT_EQ(get_config_change_list(OLD, NEW, found), -1) << content;
        EXPECT_EQ(found, Json::Value(Json::arrayValue));
    }
    unlink(NEW);
    Json::Value found;
    EXPECT_EQ(get_config_change_list(OLD, NEW, found), -1);
}

TEST_F(ChangeList, WithoutMetaDataFails) {
    write_json(OLD, base);
    write_json(NEW, base);
    std::filesystem::remove_all("/usr/share/vantrel/meta");
    Json::Value found;
    EXPECT_EQ(get_config_change_list(OLD, NEW, found), -1);
    EXPECT_EQ(found, Json::Value(Json::arrayValue));
}

} // namespace
