// What the services are told when the running configuration has changed.
#include "tests/unit/config_bed.h"

#include "config/change_actions.h"

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class ChangeActions : public ConfigTest {
protected:
    ChangeActions() { answer_command("", 0); }

    int apply(const std::string &changes, bool after_fw_upgrade = false) {
        return apply_config_changes(job, json(changes), after_fw_upgrade);
    }

    // One area with these apply commands.
    static std::string area(const std::string &path, const std::vector<std::string> &lines = {}) {
        Json::Value element;
        element["path"] = path;
        element["cmd_apply"] = Json::arrayValue;
        for (const std::string &line : lines)
            element["cmd_apply"].append(line);
        return element.toStyledString();
    }

    void change(const std::string &path, const std::vector<std::string> &lines = {}) {
        EXPECT_EQ(apply("[" + area(path, lines) + "]"), 0);
    }

    // Commands and reloads, in order.
    static std::vector<std::string> deeds() { return calls_of({"system", "execute_systemctl_reload"}); }

    void qtel_mgr_runs_as(const std::string &pid_text) { write_text("/var/run/qtel-mgr.pid", pid_text); }
};

// --- the fixed restarts

TEST_F(ChangeActions, NoChangeStoresTheMetaDataAndDoesNothingElse) {
    EXPECT_EQ(apply("[]"), 0);

    EXPECT_THAT(calls(), ListIs("store_meta_file"));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(ChangeActions, AChangeListThatIsNullIsNoChange) {
    EXPECT_EQ(apply("null"), 0);

    EXPECT_THAT(calls(), ListIs("store_meta_file"));
}

TEST_F(ChangeActions, AfterAnUpgradeEveryServiceRestartsInTheFixedOrder) {
    EXPECT_EQ(apply("[]", true), 0);

    EXPECT_THAT(calls(),
                ListIs("store_meta_file",                                                                //
                       "update_config_apply_status network restart", "system /usr/bin/cmd_netgen apply", //
                       "update_config_apply_status firewall restart", "system /usr/bin/cmd_firewall apply",
                       "update_config_apply_status wifi restart", "system /usr/bin/cmd_wifi apply",
                       "system /usr/bin/cmd_wifi reload", //
                       "update_config_apply_status cell restart", "execute_systemctl_reload qtel-mgr",
                       "update_config_apply_status ipsec restart", "system /usr/bin/cmd_ipsec restart",
                       "update_config_apply_status netwd restart", "execute_systemctl_reload vtr-netwd",
                       "update_config_apply_status apps restart", "execute_systemctl_reload vtr-app-mgr",
                       "update_config_apply_status reload iot config", "execute_systemctl_reload vtr-iot"));
}

TEST_F(ChangeActions, AfterAnUpgradeThePulseStillNeedsItsLine) {
    EXPECT_EQ(apply("[" + area("network.lan", {"/usr/bin/cmd_netgen apply --pulse-ethernet"}) + "]", true),
              0);

    EXPECT_THAT(deeds(), AllOf(Contains("system /usr/bin/cmd_netgen apply --pulse-ethernet"),
                               Not(Contains("system /usr/bin/cmd_netgen apply"))));
}

TEST_F(ChangeActions, TheOrderOfRestartsIsNotTheOrderOfTheList) {
    EXPECT_EQ(apply("[" + area("iot.vantrel_iot") + "," + area("apps") + "," +
                    area("a", {"/bin/systemctl reload qtel-mgr"}) + "," + area("network.tunnels.ipsec") +
                    "," + area("b", {"/usr/bin/cmd_wifi apply"}) + "]"),
              0);

    EXPECT_THAT(deeds(), ListIs("system /usr/bin/cmd_netgen apply", "system /usr/bin/cmd_firewall apply",
                                "system /usr/bin/cmd_wifi apply", "system /usr/bin/cmd_wifi reload",
                                "execute_systemctl_reload qtel-mgr", "system /usr/bin/cmd_ipsec restart",
                                "execute_systemctl_reload vtr-netwd", "execute_systemctl_reload vtr-app-mgr",
                                "execute_systemctl_reload vtr-iot"));
}

TEST_F(ChangeActions, TwoAreasShareOneRestart) {
    EXPECT_EQ(apply("[" + area("network.lan", {"/usr/bin/cmd_netgen apply"}) + "," +
                    area("network.monitoring.multiwan") + "]"),
              0);

    EXPECT_THAT(deeds(), ListIs("system /usr/bin/cmd_netgen apply", "system /usr/bin/cmd_firewall apply"));
    EXPECT_THAT(progress(), ListIs("network restart", "firewall restart"));
}

TEST_F(ChangeActions, FailingCommandsAreNotLookedAt) {
    fakes::always_returns("system", 1);
    fakes::always_returns("execute_systemctl_reload", -1);
    fakes::will_return("store_meta_file", {-1});

    EXPECT_EQ(apply("[]", true), 0);

    EXPECT_EQ(deeds().size(), 9U);
}

// --- what a path asks for

TEST_F(ChangeActions, MultiWanMonitoringRestartsTheNetwork) {
    change("network.monitoring.multiwan");
    EXPECT_THAT(deeds(), ListIs("system /usr/bin/cmd_netgen apply"));
}

TEST_F(ChangeActions, TunnelsRestartIpsecAndFirewall) {
    change("network.tunnels.ipsec");
    EXPECT_THAT(deeds(), ListIs("system /usr/bin/cmd_firewall apply", "system /usr/bin/cmd_ipsec restart"));
}

TEST_F(ChangeActions, TheCloudsAreaReloadsIot) {
    change("iot.vantrel_iot");
    EXPECT_THAT(deeds(), ListIs("execute_systemctl_reload vtr-iot"));
}

TEST_F(ChangeActions, PathsAreComparedWhole) {
    qtel_mgr_runs_as("100\n");
    for (const char *path :
         {"network.monitoring.multiwan2", "network.monitoring", "network.tunnels.ipsec.left",
          "network.tunnels", "iot.vantrel_iot.sim1", "iot", "network.wireless.cell2", "network.wireless",
          "gps.gpsd", "gps.gps.x", "gps", "Gps.gps", "hardware2", "apps.one", ""})
        change(path);

    EXPECT_THAT(deeds(), IsEmpty());
    EXPECT_THAT(calls_of({"cmd_hwconfig"}), IsEmpty());
    EXPECT_FALSE(job.isMember("qtel_mgr_pid"));
}

// --- what a command line asks for

TEST_F(ChangeActions, ANetworkCommandRestartsNetworkAndFirewall) {
    for (const char *line : {"/usr/bin/cmd_netgen apply", "cmd_netgen apply",
                             "nice /usr/bin/cmd_netgen apply lan", "cmd_netgen apply --pulse"}) {
        fakes::reset_calls();
        change("network.lan", {line});
        EXPECT_THAT(deeds(), ListIs("system /usr/bin/cmd_netgen apply", "system /usr/bin/cmd_firewall apply"))
            << line;
    }
}

TEST_F(ChangeActions, ANetworkCommandWithAPulsePulsesEthernet) {
    for (const char *line :
         {"/usr/bin/cmd_netgen apply --pulse-ethernet", "cmd_netgen apply lan --pulse-ethernet 2",
          "echo --pulse-ethernet; cmd_netgen apply"}) {
        fakes::reset_calls();
        change("network.lan", {line});
        EXPECT_THAT(deeds(), ListIs("system /usr/bin/cmd_netgen apply --pulse-ethernet",
                                    "system /usr/bin/cmd_firewall apply"))
            << line;
    }
}

TEST_F(ChangeActions, OnePulseIsEnoughAmongPlainNetworkCommands) {
    change("network.lan", {"/usr/bin/cmd_netgen apply", "/usr/bin/cmd_netgen apply --pulse-ethernet",
                           "/usr/bin/cmd_netgen apply"});
    EXPECT_THAT(deeds(), ListIs("system /usr/bin/cmd_netgen apply --pulse-ethernet",
                                "system /usr/bin/cmd_firewall apply"));
}

TEST_F(ChangeActions, AFirewallCommandRestartsTheFirewall) {
    change("network.firewall", {"/usr/bin/cmd_firewall apply"});
    EXPECT_THAT(deeds(), ListIs("system /usr/bin/cmd_firewall apply"));
}

TEST_F(ChangeActions, AWifiCommandRestartsNetworkAndFirewallToo) {
    change("network.wireless.wifi", {"/usr/bin/cmd_wifi apply"});
    EXPECT_THAT(deeds(), ListIs("system /usr/bin/cmd_netgen apply", "system /usr/bin/cmd_firewall apply",
                                "system /usr/bin/cmd_wifi apply", "system /usr/bin/cmd_wifi reload"));
}

TEST_F(ChangeActions, AReloadOfTheModemManagerRestartsCellAndNetwd) {
    change("network.wireless.cell", {"/bin/systemctl reload qtel-mgr"});
    EXPECT_THAT(deeds(), ListIs("execute_systemctl_reload qtel-mgr", "execute_systemctl_reload vtr-netwd"));
    EXPECT_THAT(progress(), ListIs("cell restart", "netwd restart"));
}

TEST_F(ChangeActions, AReloadOfNetwdRestartsNetwd) {
    change("network.x", {"/bin/systemctl reload vtr-netwd"});
    EXPECT_THAT(deeds(), ListIs("execute_systemctl_reload vtr-netwd"));
}

TEST_F(ChangeActions, AReloadOfIotReloadsIot) {
    change("iot.x", {"/bin/systemctl reload vtr-iot"});
    EXPECT_THAT(deeds(), ListIs("execute_systemctl_reload vtr-iot"));
    EXPECT_THAT(progress(), ListIs("reload iot config"));
}

TEST_F(ChangeActions, AnyOtherCommandRunsVerbatimAtOnceAndBeforeTheRestarts) {
    EXPECT_EQ(apply("[" + area("a", {"/usr/bin/cmd_firewall apply", "/opt/first --x 'y z'"}) + "," +
                    area("b", {"/opt/second"}) + "]"),
              0);

    EXPECT_THAT(calls(),
                ListIs("store_meta_file", "system /opt/first --x 'y z'", "system /opt/second",
                       "update_config_apply_status firewall restart", "system /usr/bin/cmd_firewall apply"));
    EXPECT_THAT(log_lines(), Contains(Debug("execute config apply action: /opt/first --x 'y z'")));
    EXPECT_THAT(log_lines(), Not(Contains(Debug(HasSubstr("execute config apply action: /usr/bin/")))));
}

TEST_F(ChangeActions, AlmostAKnownCommandRunsVerbatim) {
    for (const char *line :
         {"/usr/bin/cmd_firewall apply ", "cmd_firewall apply", "/usr/bin/cmd_wifi reload", "cmd_wifi apply",
          "/bin/systemctl reload qtel-mgr.service", "systemctl reload vtr-netwd",
          "/bin/systemctl restart vtr-iot", "/bin/systemctl reload vtr-app-mgr", "/usr/bin/cmd_ipsec restart",
          "/usr/bin/cmd_netgen  apply"}) {
        fakes::reset_calls();
        change("x", {line});
        EXPECT_THAT(deeds(), ListIs(std::string("system ") + line));
    }
}

TEST_F(ChangeActions, LogsEachAreaAndEachOfItsCommands) {
    change("network.lan", {"/usr/bin/cmd_netgen apply", "true"});

    EXPECT_THAT(log_lines(),
                ListIs(Debug("config path: network.lan"),
                       Debug("config path: network.lan  apply action: /usr/bin/cmd_netgen apply"),
                       Debug("config path: network.lan  apply action: true"),
                       Debug("execute config apply action: true")));
}

TEST_F(ChangeActions, AnAreaWithoutCommandsAsksForNothing) {
    EXPECT_EQ(apply(R"([{"path":"a"}, {"path":"b", "cmd_apply":null}])"), 0);

    EXPECT_THAT(deeds(), IsEmpty());
}

// --- hardware

TEST_F(ChangeActions, HardwareIsAppliedFirstAndItsOwnCommandsAreNot) {
    EXPECT_EQ(apply("[" + area("iot.vantrel_iot") + "," + area("hardware", {"/opt/hardware"}) + "]"), 0);

    EXPECT_THAT(calls(), ListIs("store_meta_file",
                                "update_config_apply_status detected hardware config change, updating meta",
                                "cmd_hwconfig", "update_config_apply_status reload iot config",
                                "execute_systemctl_reload vtr-iot"));
    EXPECT_THAT(log_lines(), ListIs(Notice("detected hardware config change"),
                                    Debug("config path: iot.vantrel_iot"), Debug("config path: hardware")));
}

TEST_F(ChangeActions, AHardwareFailureRestoresTheMetaDataAndSkipsEveryOtherArea) {
    fakes::will_return("cmd_hwconfig", {1});

    EXPECT_EQ(apply("[" + area("apps") + "," + area("hardware") + "," + area("x", {"/opt/x"}) + "]", true),
              -1);

    EXPECT_THAT(calls(), ListIs("store_meta_file",
                                "update_config_apply_status detected hardware config change, updating meta",
                                "cmd_hwconfig", "restore_meta_file",
                                "update_config_apply_status error applying hardware config"));
    EXPECT_THAT(log_lines(), ListIs(Notice("detected hardware config change")));
}

TEST_F(ChangeActions, WithoutAHardwareChangeTheHardwareIsLeftAloneEvenAfterAnUpgrade) {
    fakes::will_return("cmd_hwconfig", {-1});

    EXPECT_EQ(apply("[]", true), 0);

    EXPECT_THAT(calls_of({"cmd_hwconfig", "restore_meta_file"}), IsEmpty());
}

// --- apps

TEST_F(ChangeActions, AppsAreReloadedWhenTheyChange) {
    change("apps");

    EXPECT_THAT(calls(),
                ListIs("store_meta_file", "update_config_apply_status detected apps config change",
                       "update_config_apply_status apps restart", "execute_systemctl_reload vtr-app-mgr"));
    EXPECT_THAT(log_lines(), ListIs(Notice("detected apps config change"), Debug("config path: apps")));
}

TEST_F(ChangeActions, AppsChangedByAnUpgradeAreReloadedOnce) {
    EXPECT_EQ(apply("[" + area("apps") + "]", true), 0);

    EXPECT_EQ(progress().front(), "detected apps config change");
    EXPECT_THAT(calls_of({"execute_systemctl_reload"}),
                ListIs("execute_systemctl_reload qtel-mgr", "execute_systemctl_reload vtr-netwd",
                       "execute_systemctl_reload vtr-app-mgr", "execute_systemctl_reload vtr-iot"));
}

TEST_F(ChangeActions, TheCommandsOfAppsRunToo) {
    change("apps", {"/opt/app-hook"});

    EXPECT_THAT(deeds(), ListIs("system /opt/app-hook", "execute_systemctl_reload vtr-app-mgr"));
}

// --- the modem manager

TEST_F(ChangeActions, TheModemManagersProcessIsRememberedWhenCellOrGpsChange) {
    for (const char *path : {"network.wireless.cell", "gps.gps"}) {
        job = json(R"({"jobId":"77", "qtel_mgr_pid":1})");
        qtel_mgr_runs_as("4711\n");

        change(path);

        EXPECT_EQ(job["qtel_mgr_pid"], 4711) << path;
    }
    EXPECT_THAT(deeds(), IsEmpty());
}

TEST_F(ChangeActions, TheProcessIsReadBeforeTheRestart) {
    qtel_mgr_runs_as("1");
    before("execute_systemctl_reload qtel-mgr", [this] { qtel_mgr_runs_as("2"); });

    change("network.wireless.cell", {"/bin/systemctl reload qtel-mgr"});

    EXPECT_EQ(job["qtel_mgr_pid"], 1);
}

TEST_F(ChangeActions, WithoutAProcessFileNothingIsRemembered) {
    change("gps.gps");
    EXPECT_FALSE(job.isMember("qtel_mgr_pid"));

    job["qtel_mgr_pid"] = 12;
    change("network.wireless.cell");
    EXPECT_EQ(job["qtel_mgr_pid"], 12);
}

TEST_F(ChangeActions, AProcessFileWithoutANumberIsNotRemembered) {
    for (const char *text : {"", "qtel\n", "x12"}) {
        qtel_mgr_runs_as(text);
        change("gps.gps");
        EXPECT_FALSE(job.isMember("qtel_mgr_pid")) << text;
    }
}

// --- is an area changed?

TEST_F(ChangeActions, AnAreaIsChangedWhenItsPathStandsInTheList) {
    const Json::Value changes = json(R"([{"path":"apps.one"}, {"path":"apps"}, {"path":"apps"}])");

    EXPECT_TRUE(config_area_changed(changes, "apps"));
    EXPECT_THAT(log_lines(), ListIs(Notice("detected apps config change")));
    EXPECT_FALSE(config_area_changed(changes, "app"));
    EXPECT_FALSE(config_area_changed(changes, "apps.two"));
    EXPECT_FALSE(config_area_changed(json("[]"), "apps"));
    EXPECT_FALSE(config_area_changed(Json::Value(), "apps"));
    EXPECT_EQ(log_lines().size(), 1U);
}
