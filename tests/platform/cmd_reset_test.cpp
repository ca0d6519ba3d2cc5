// Areas back to the delivered configuration while the router runs.
#include "tests/platform/cmd_fixture.h"

#include "host/cmd/dotted.h"
#include "host/cmd/paths.h"
#include "platform/cmd.h"
#include "tests/fakes/private_root.h"

namespace {

using testing::IsEmpty;

class ResetToDefault : public CmdTest {
protected:
    ResetToDefault() {
        conf::set_member(current, "network.wireless.wifi.channel", 6);
        conf::set_member(current, "gps.gps.interval", 5);
        conf::set_member(current, "system.general.hostname", "current");
        conf::set_member(current, "network.wireless.cell.sim1.pin", "1234");
        install(current);
        for (const char *command : {"cmd_wifi", "cmd_netgen", "cmd_firewall", "cmd_ipsec", "systemctl"})
            write_stub(command, "echo \"$(basename $0) $*\" >>/var/volatile/ran");
    }

    static void install(const Json::Value &config) {
        given_running(config);
        write_json(conf::STORED_CONFIG, config);
    }

    static std::string ran() { return read_text("/var/volatile/ran"); }

    // Running and persistent are always the same document, each with its hash.
    static Json::Value now() {
        EXPECT_EQ(read_json(conf::RUNNING_CONFIG), read_json(conf::STORED_CONFIG));
        EXPECT_EQ(hash_in(conf::RUNNING_HASH), config_hash(read_json(conf::RUNNING_CONFIG)));
        EXPECT_EQ(hash_in(conf::STORED_HASH), config_hash(read_json(conf::STORED_CONFIG)));
        return read_json(conf::RUNNING_CONFIG);
    }

    static std::string at(const Json::Value &config, const char *path) {
        const Json::Value *found = conf::find_member(config, path);
        return found ? found->asString() : "(none)";
    }

    void expect_nothing_changed() {
        EXPECT_EQ(read_json(conf::RUNNING_CONFIG), read_json(conf::STORED_CONFIG));
        EXPECT_EQ(read_json(conf::STORED_CONFIG), current);
        EXPECT_THAT(ran(), IsEmpty());
    }

    Json::Value current = default_config();
};

TEST_F(ResetToDefault, OfAllIsTheDeliveredConfiguration) {
    ASSERT_EQ(cmd_reset_to_default(R"({"reset": "all"})"), 0);
    EXPECT_EQ(now(), default_config());
}

TEST_F(ResetToDefault, OfOneAreaLeavesTheOthers) {
    ASSERT_EQ(cmd_reset_to_default(R"({"reset": "network.wireless.wifi"})"), 0);
    const Json::Value config = now();
    EXPECT_EQ(at(config, "network.wireless.wifi.channel"), "0");
    EXPECT_EQ(at(config, "system.general.hostname"), "current");
    EXPECT_THAT(at(config, "network.wireless.cell.sim1.pin"), testing::StartsWith("$siv1$"));
}

TEST_F(ResetToDefault, TakesSeveralAreasAndLoneWords) {
    ASSERT_EQ(cmd_reset_to_default(R"({"reset": ["network.wireless.wifi", "system.general"]})"), 0);
    EXPECT_EQ(at(now(), "network.wireless.wifi.channel"), "0");
    EXPECT_EQ(at(now(), "system.general.hostname"), "router");
    install(current);
    ASSERT_EQ(cmd_reset_to_default("system.general"), 0);
    EXPECT_EQ(at(now(), "system.general.hostname"), "router");
    install(current);
    ASSERT_EQ(cmd_reset_to_default("\"all\""), 0);
    EXPECT_EQ(now(), default_config());
}

TEST_F(ResetToDefault, RestartsTheServicesOfWhatChangedOnceEach) {
    ASSERT_EQ(cmd_reset_to_default("all"), 0);
    EXPECT_EQ(ran(),
              "cmd_wifi apply\ncmd_wifi reload\nsystemctl reload qtel-mgr\nsystemctl reload vtr-system\n");
}

TEST_F(ResetToDefault, OfTheHardwareAppliesAndStoresIt) {
    Json::Value delivered = default_config();
    delivered["hardware"]["ports"] = json(R"({"lo": {"enable": true}})"); // it exists here
    for (const char *interface : {"lan", "wan"})
        delivered["network"]["interfaces"][interface]["device"] = std::string(interface) + "9";
    write_json(conf::DEFAULT_CONFIG, delivered);
    Json::Value config = delivered;
    config["hardware"]["leds"]["brightness"] = 7;
    install(config);
    ASSERT_EQ(cmd_metainit(), 0);
    ASSERT_EQ(cmd_reset_to_default("hardware"), 0);
    EXPECT_EQ(read_json(conf::HARDWARE_SETTINGS), delivered["hardware"]);
    EXPECT_EQ(read_json(conf::STORED_HARDWARE), delivered["hardware"]);
}

TEST_F(ResetToDefault, OfAnUnchangedAreaRestartsNothing) {
    ASSERT_EQ(cmd_reset_to_default("network.firewall"), 0);
    EXPECT_THAT(ran(), IsEmpty());
}

TEST_F(ResetToDefault, AServiceThatFailsDoesNotUndoIt) {
    write_stub("cmd_wifi", "exit 1");
    ASSERT_EQ(cmd_reset_to_default("network.wireless.wifi"), 0);
    EXPECT_EQ(at(now(), "network.wireless.wifi.channel"), "0");
}

TEST_F(ResetToDefault, FailsWhenTheHardwareCannotBeApplied) {
    conf::set_member(current, "hardware.indicators.brightness", 1);
    install(current);
    EXPECT_EQ(cmd_reset_to_default("hardware"), -1); // this machine has none of its ports
}

TEST_F(ResetToDefault, RemovesAnAreaThatWasNotDelivered) {
    write_json(conf::DEFAULT_CONFIG, default_without("system.general"));
    ASSERT_EQ(cmd_reset_to_default("system.general"), 0);
    EXPECT_EQ(at(now(), "system.general.hostname"), "(none)");
}

TEST_F(ResetToDefault, OfAnythingElseIsRefused) {
    for (const char *request :
         {"", "{}", "null", "7", "true", "[]", "{\"reset\": \"\"}", "{\"reset\": []}", "{\"reset\": [7]}",
          "{\"reset\": {\"all\": 1}}", "network", "network.wireless.wifi.channel", "other",
          "{\"reset\": [\"gps.gps\", \"other\"]}", "{\"reset\": \"ALL\"}", "{ torn"})
        EXPECT_EQ(cmd_reset_to_default(request), -1) << request;
    EXPECT_EQ(cmd_reset_to_default(nullptr), -1);
    expect_nothing_changed();
}

class ResetDuringApply : public ResetToDefault, public testing::WithParamInterface<const char *> {};

TEST_P(ResetDuringApply, IsRefused) {
    write_text(GetParam(), "{}");
    EXPECT_EQ(cmd_reset_to_default("all"), -1);
    expect_nothing_changed();
}

INSTANTIATE_TEST_SUITE_P(Rows, ResetDuringApply,
                         testing::Values("/var/volatile/orv/CONFIG_JOB_EXECUTING",
                                         "/var/data/orv/FAILSAFE_TIMER", "/var/volatile/config/config.new",
                                         "/var/data/orv/config.new"));

TEST_F(ResetToDefault, ThatWouldNotBeValidIsRefused) {
    conf::set_member(current, "network.interfaces.guest",
                     json(R"({"enable": true, "role": "lan", "device": "lan1", "mode": "none"})"));
    conf::set_member(current, "network.routes.static.0",
                     json(R"({"destination": "10.0.0.0/8", "interface": "guest"})"));
    install(current);
    EXPECT_EQ(cmd_reset_to_default("network.interfaces"), -1); // the route would lead nowhere
    expect_nothing_changed();
    EXPECT_EQ(cmd_reset_to_default(R"({"reset": ["network.interfaces", "network.routes"]})"), 0);
}

TEST_F(ResetToDefault, WithoutTheDeliveredOrThePersistentConfigurationFails) {
    unlink(conf::DEFAULT_CONFIG);
    EXPECT_EQ(cmd_reset_to_default("all"), -1);
    expect_nothing_changed();
}

TEST_F(ResetToDefault, LeavesNoScratchFile) {
    ASSERT_EQ(cmd_reset_to_default("all"), 0);
    EXPECT_FALSE(exists("/var/volatile/config/config.reset"));
}

} // namespace
