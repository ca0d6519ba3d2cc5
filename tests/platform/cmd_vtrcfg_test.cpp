// vtrcfg: asking and editing.
#include "tests/platform/cmd_vtrcfg_fixture.h"

#include "host/cmd/dotted.h"
#include "host/cmd/paths.h"
#include "platform/cmd.h"
#include "tests/fakes/private_root.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr char PASSPHRASE[] = "network.wireless.wifi.security.passphrase";

class Vtrcfg : public VtrcfgTest {
protected:
    static std::string edited(const char *path) {
        const Json::Value config = read_json(conf::EDITED_CONFIG);
        const Json::Value *found = conf::find_member(config, path);
        return found ? found->toStyledString() : "(none)";
    }
};

TEST_F(Vtrcfg, HelpIsHelpAndMisuseIsTrouble) {
    EXPECT_EQ(vtrcfg("--help").code, 0);
    EXPECT_THAT(vtrcfg("--help").out, AllOf(HasSubstr("request"), HasSubstr("Exit codes")));
    for (const char *arguments :
         {"", "nonsense", "get a b", "set", "set a", "request --timeout -1", "status now"})
        EXPECT_EQ(vtrcfg(arguments).code, 2) << arguments;
}

TEST_F(Vtrcfg, GetPrintsTextsBareAndTheRestAsJson) {
    EXPECT_EQ(vtrcfg("get network.interfaces.wan.device").out, "wan0\n");
    EXPECT_EQ(vtrcfg("get iot.vantrel_iot.port").out, "80\n");
    EXPECT_EQ(json(vtrcfg("get network.interfaces.wan").out),
              default_config()["network"]["interfaces"]["wan"]);
    EXPECT_EQ(json(vtrcfg("get").out), default_config());
}

TEST_F(Vtrcfg, GetOfWhatIsNotThereSaysNo) {
    const answer answered = vtrcfg("get iot.other");
    EXPECT_EQ(answered.code, 1);
    EXPECT_EQ(answered.error, "vtrcfg: there is no iot.other\n");
    EXPECT_THAT(answered.out, IsEmpty());
    unlink(conf::RUNNING_CONFIG);
    EXPECT_EQ(vtrcfg("get iot").code, 2);
    EXPECT_EQ(vtrcfg("get iot --edited").code, 2);
}

TEST_F(Vtrcfg, SetEditsACopyOfTheRunningConfiguration) {
    EXPECT_EQ(vtrcfg("set system.failsafe.timer 7").code, 0);
    EXPECT_EQ(vtrcfg("set system.general.hostname gate").code, 0);
    EXPECT_EQ(read_json(conf::RUNNING_CONFIG), default_config());
    EXPECT_EQ(vtrcfg("get system.failsafe.timer --edited").out, "7\n");
    EXPECT_EQ(vtrcfg("get system.general.hostname --edited").out, "gate\n");
    EXPECT_EQ(vtrcfg("get system.failsafe.timer").out, "5\n");
}

TEST_F(Vtrcfg, SetMarksThatSomethingIsNotCommitted) {
    EXPECT_FALSE(exists(conf::CONFIG_MODIFIED));
    EXPECT_EQ(vtrcfg("set system.failsafe.timer 7").code, 0);
    EXPECT_TRUE(exists(conf::CONFIG_MODIFIED));
    EXPECT_EQ(vtrcfg("discard").code, 0);
    EXPECT_FALSE(exists(conf::CONFIG_MODIFIED));
    EXPECT_FALSE(exists(conf::EDITED_CONFIG));
}

TEST_F(Vtrcfg, DiscardTakesALostCandidateAway) {
    write_json(conf::NEW_CONFIG, default_config());
    write_text(std::string(conf::ACTIVE_JOBS) + "/FAILSAFE_CONFIG", "{}");
    vtrcfg("discard");
    EXPECT_TRUE(exists(conf::NEW_CONFIG)); // its job is queued
    unlink((std::string(conf::ACTIVE_JOBS) + "/FAILSAFE_CONFIG").c_str());
    vtrcfg("discard");
    EXPECT_FALSE(exists(conf::NEW_CONFIG));
}

TEST_F(Vtrcfg, SetTakesJsonAndTexts) {
    vtrcfg("set system.general.location \"7\"");
    EXPECT_EQ(edited("system.general.location"), "7\n");
    vtrcfg("set system.general.location 7 --text");
    EXPECT_EQ(edited("system.general.location"), "\"7\"\n");
    vtrcfg("set system.general.location 'Hall 3'");
    EXPECT_EQ(edited("system.general.location"), "\"Hall 3\"\n");
    vtrcfg("set system.failsafe '{\"enable\": false}'");
    EXPECT_EQ(json(edited("system.failsafe")), json("{\"enable\": false}"));
    vtrcfg("set system.general.time_servers.0 ntp.example");
    EXPECT_EQ(json(edited("system.general.time_servers")), json("[\"ntp.example\"]"));
    vtrcfg("set system.failsafe.timer -- -5");
    EXPECT_EQ(edited("system.failsafe.timer"), "-5\n");
}

TEST_F(Vtrcfg, SetTellsWhatIsNotValidYet) {
    const answer first = vtrcfg("set network.interfaces.wan.address 198.51.100.2");
    EXPECT_EQ(first.code, 0);
    EXPECT_THAT(first.error,
                HasSubstr("not valid yet: network.interfaces.wan.gateway: 192.0.2.1 is outside"));
    const answer second = vtrcfg("set network.interfaces.wan.gateway 198.51.100.1");
    EXPECT_THAT(second.error, IsEmpty());
}

TEST_F(Vtrcfg, SetWhereThereIsNoPlaceIsTrouble) {
    EXPECT_EQ(vtrcfg("set system.failsafe.timer.deeper 7").code, 2);
    EXPECT_EQ(vtrcfg("set network.firewall.rules.9 7").code, 2);
    EXPECT_EQ(vtrcfg("set '' 7").code, 2);
    EXPECT_FALSE(exists(conf::EDITED_CONFIG));
}

TEST_F(Vtrcfg, SetOfWhatIsNoUtf8IsTrouble) {
    EXPECT_EQ(vtrcfg("set system.general.location \xff").code, 2);
    EXPECT_EQ(vtrcfg("set --text system.general.location \xed\xa0\x80").code, 2);
    EXPECT_EQ(vtrcfg("set system.\xe3 5").code, 2);
    EXPECT_FALSE(exists(conf::EDITED_CONFIG));
    EXPECT_EQ(vtrcfg("set system.general.location \xc3\xa4").code, 0);
}

TEST_F(Vtrcfg, SecretsAreKeptEncodedAndShownOnDemand) {
    EXPECT_EQ(vtrcfg(std::string("set ") + PASSPHRASE + " 'a long secret'").code, 0);
    EXPECT_THAT(read_text(conf::EDITED_CONFIG), Not(HasSubstr("a long secret")));
    EXPECT_THAT(vtrcfg(std::string("get --edited ") + PASSPHRASE).out, StartsWith("$siv1$"));
    EXPECT_EQ(vtrcfg(std::string("get --edited --plain ") + PASSPHRASE).out, "a long secret\n");
    EXPECT_THAT(vtrcfg("diff").out, AllOf(HasSubstr("passphrase"), Not(HasSubstr("a long secret"))));
}

TEST_F(Vtrcfg, UnsetRemovesAMember) {
    EXPECT_EQ(vtrcfg("unset network.interfaces.wan.dns").code, 0);
    EXPECT_EQ(edited("network.interfaces.wan.dns"), "(none)");
    EXPECT_EQ(vtrcfg("unset network.interfaces.wan.none").code, 1);
    EXPECT_EQ(vtrcfg("unset ''").code, 1);
}

TEST_F(Vtrcfg, EditingOnAnOldBaseIsRefused) {
    vtrcfg("set system.failsafe.timer 7");
    given_running(default_with("system.general.hostname", "cloud"));
    const answer refused = vtrcfg("set system.failsafe.timer 8");
    EXPECT_EQ(refused.code, 2);
    EXPECT_THAT(refused.error, HasSubstr("has changed since the editing began"));
    EXPECT_EQ(vtrcfg("request").code, 2);
    vtrcfg("discard");
    EXPECT_EQ(vtrcfg("set system.failsafe.timer 8").code, 0);
    EXPECT_EQ(vtrcfg("get system.general.hostname --edited").out, "cloud\n");
}

TEST_F(Vtrcfg, EditingBeginsAnewOnceTheEditedConfigurationRuns) {
    vtrcfg("set system.failsafe.timer 7");
    given_running(default_with("system.failsafe.timer", 7));
    EXPECT_EQ(vtrcfg("set system.general.hostname gate").code, 0);
    EXPECT_EQ(vtrcfg("get system.failsafe.timer --edited").out, "7\n");
}

TEST_F(Vtrcfg, DiffTellsAreasTheirApplyAndEachMember) {
    vtrcfg("set network.interfaces.wan.mtu 1400");
    vtrcfg("set network.firewall.rules.2 '{\"name\": \"new\"}'");
    const answer told = vtrcfg("diff");
    EXPECT_EQ(told.code, 1);
    EXPECT_EQ(told.out, "network.interfaces [/usr/bin/cmd_netgen apply --pulse-ethernet]\n"
                        "network.firewall [/usr/bin/cmd_firewall apply]\n"
                        "  network.firewall.rules.2: (none) -> {\"name\":\"new\"}\n"
                        "  network.interfaces.wan.mtu: 1500 -> 1400\n");
}

TEST_F(Vtrcfg, DiffOfTheSameIsSilent) {
    const answer none = vtrcfg("diff");
    EXPECT_EQ(none.code, 0);
    EXPECT_THAT(none.out, IsEmpty());
    EXPECT_EQ(vtrcfg(std::string("diff ") + conf::STORED_CONFIG).code, 0);
    EXPECT_EQ(vtrcfg("diff /var/none").code, 2);
}

TEST_F(Vtrcfg, ValidateTellsEveryFaultOnALineOfItsOwn) {
    EXPECT_EQ(vtrcfg("validate").out, "valid\n");
    vtrcfg("set network.interfaces.wan.mtu 1");
    vtrcfg("set system.failsafe.timer 0");
    const answer told = vtrcfg("validate");
    EXPECT_EQ(told.code, 1);
    EXPECT_EQ(told.error, "network.interfaces.wan.mtu: expected an MTU from 576 to 9000 bytes, found 1\n"
                          "system.failsafe.timer: expected a time from 1 to 1440 minutes, found 0\n");
    EXPECT_EQ(vtrcfg(std::string("validate ") + conf::RUNNING_CONFIG).code, 0);
    EXPECT_EQ(vtrcfg("validate /var/none").code, 1);
}

TEST_F(Vtrcfg, HashIsThatOfTheLibrary) {
    EXPECT_EQ(vtrcfg("hash").out, config_hash(default_config()) + "\n");
    const Json::Value other = default_with("system.failsafe.timer", 7);
    write_json("/tmp/other.json", other);
    EXPECT_EQ(vtrcfg("hash /tmp/other.json").out, config_hash(other) + "\n");
    write_text("/tmp/other.json", "{ torn");
    EXPECT_EQ(vtrcfg("hash /tmp/other.json").code, 2);
}

TEST_F(Vtrcfg, StatusTellsWhatIsWhere) {
    const std::string hash = config_hash(default_config()).substr(0, 12);
    EXPECT_EQ(vtrcfg("status").out, "running       " + hash + "\npersistent    " + hash +
                                        "\nfailsafe      none\ncandidate     none\nedited        none\n"
                                        "uncommitted   no\ncloud job     none\napply         none\n"
                                        "last text     none\nverification  none\n");
    write_text(conf::RUNNING_HASH, "other\n");
    write_text(conf::FAILSAFE_CONFIG, "{ torn");
    write_text(conf::FW_JOBID, "77");
    write_json(conf::FAILSAFE_TIMER, json("{\"end_time\": 1000}"));
    vtrcfg("set system.failsafe.timer 7");
    set_config_apply_in_progress("executing config change");
    update_config_apply_status("verifying new config");
    EXPECT_THAT(vtrcfg("status").out,
                AllOf(HasSubstr(hash + ", its hash file differs\n"), HasSubstr("failsafe      broken\n"),
                      HasSubstr("uncommitted   yes\n"), HasSubstr("cloud job     running\n"),
                      HasSubstr("apply         in progress: executing config change\n"),
                      HasSubstr("last text     verifying new config\n"),
                      HasSubstr("verification  running, 0 s left\n")));
}

TEST_F(Vtrcfg, InitRebuildsTheRunningConfiguration) {
    empty_directory("/var/volatile");
    make_boot_directories();
    const answer done = vtrcfg("init");
    EXPECT_EQ(done.code, 0) << done.error;
    EXPECT_EQ(read_json(conf::RUNNING_CONFIG), default_config());
    EXPECT_EQ(hash_in(conf::RUNNING_HASH), config_hash(default_config()));
    write_text(conf::STORED_CONFIG, "{ torn");
    EXPECT_THAT(vtrcfg("init").error, HasSubstr("replaced by /usr/share/vantrel/default-config.json"));
    unlink(conf::STORED_CONFIG);
    unlink(conf::DEFAULT_CONFIG);
    EXPECT_EQ(vtrcfg("init").code, 2);
}

} // namespace
