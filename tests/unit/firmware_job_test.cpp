// Firmware jobs: the router's own firmware, up to the tool that installs it.
#include "tests/unit/config_bed.h"

#include "actions/dispatch.h"
#include "actions/firmware_job.h"
#include "jobs/markers.h"

#include <stdexcept>

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

constexpr const char *FW_MARKER = "/var/volatile/orv/FW_JOB_EXECUTING";
constexpr const char *ERR_CODE = "/var/run/FW_ERR_CODE";

class FirmwareJob : public ConfigTest {
protected:
    FirmwareJob() {
        given_job(
            R"({"jobId":"77", "action":"FW", "value":"http://host/path/image.bin", "status":"received"})");
        fakes::config().database_texts = {{"SYS_FW_LABEL", "stable"}, {"SYS_FW_VER", "1.2.3"}};
        tool_ends_with(0);
    }

    void given_job(const std::string &job_text) {
        job = json(job_text);
        given_active_job(job_text);
    }

    static void tool_ends_with(int status) { answer_command("/usr/bin/orv-upgradefw", status); }

    static void tool_fails_with(const std::string &code_text) {
        answer_command("/usr/bin/orv-upgradefw", [code_text](const std::string &) {
            write_text(ERR_CODE, code_text);
            return 1;
        });
    }

    // The one command line of the tool; empty when it did not run.
    static std::string tool_command() {
        std::string found;
        for (const std::string &command : commands())
            if (command.rfind("/usr/bin/orv-upgradefw", 0) == 0)
                found = command;
        return found;
    }

    void expect_failed_and_cleared() {
        EXPECT_EQ(job["status"], "failed");
        EXPECT_FALSE(is_fw_job_executing());
        EXPECT_FALSE(exists(FW_MARKER));
        EXPECT_FALSE(exists("/var/data/orv/FIRMWARE_UPDATED"));
        EXPECT_EQ(reported().back(), "failed");
    }
};

// --- the job

TEST_F(FirmwareJob, InstallsTheImageOfItsUrl) {
    execute_action_fw_install(job);

    EXPECT_EQ(tool_command(), "/usr/bin/orv-upgradefw image.bin http://host/path token-of-a-test");
    EXPECT_EQ(job["status"], "executed");
    EXPECT_THAT(reported(), ListIs("executed"));
}

TEST_F(FirmwareJob, IsTheJobInProgressWhileTheToolRuns) {
    std::string id;
    answer_command("/usr/bin/orv-upgradefw", [&](const std::string &) {
        id = file_text(FW_JOBID);
        return 0;
    });

    execute_action_fw_install(job);

    EXPECT_EQ(id, "77\n");
    EXPECT_FALSE(exists(FW_JOBID));
    EXPECT_EQ(log_lines().front(), (log_line{LOG_DEBUG, "execute_action_fw_install: 77"}));
}

TEST_F(FirmwareJob, WithoutAUrlItFailsAndTheUpgradeIsStillTried) {
    job.removeMember("value");

    execute_action_fw_install(job);

    EXPECT_THAT(reported(), ListIs("failed", "executed"));
    EXPECT_EQ(published_on("v1/device/job/77/ack").front().json["params"]["msg"],
              "missing required value=<url>'");
    EXPECT_EQ(tool_command(), "/usr/bin/orv-upgradefw   token-of-a-test");
}

TEST_F(FirmwareJob, AUrlThatIsNoTextIsAnEmptyOne) {
    job["value"] = json(R"({"a":1})");
    tool_fails_with("107");

    execute_action_fw_install(job);

    EXPECT_EQ(tool_command(), "/usr/bin/orv-upgradefw   token-of-a-test");
    expect_failed_and_cleared();
}

TEST_F(FirmwareJob, OnlyRadioInItsParamsChoosesTheModem) {
    answer_command("/usr/bin/qtel-dfota", 0);
    for (const char *members : {R"("params":{"radio":false})", R"("params":{})", R"("params":null)",
                                R"("radio":true)", R"("params":"radio")", R"("params":[])",
                                R"("params":{"radio":"true"})", R"("params":{"radio":{}})"}) {
        fakes::reset_device();
        tool_ends_with(0);
        set_fw_job_executing(0);
        job = json(std::string(R"({"jobId":"77", "value":"/x", )") + members + "}");

        execute_action_fw_install(job);

        EXPECT_NE(tool_command(), "") << members;
    }
}

TEST_F(FirmwareJob, IsDispatched) {
    execute_job_action(client, job);
    EXPECT_NE(tool_command(), "");
}

// --- before the tool

TEST_F(FirmwareJob, AnotherUpgradeInProgressLeavesItAlone) {
    set_fw_job_executing(1);
    const Json::Value before_it = job;

    fw_upgrade(job);

    EXPECT_EQ(job, before_it);
    EXPECT_EQ(log_lines().back(), (log_line{LOG_DEBUG, "FW upgrade already in progress"}));
    EXPECT_THAT(published(), IsEmpty());
    EXPECT_EQ(tool_command(), "");
    EXPECT_TRUE(is_fw_job_executing());
}

TEST_F(FirmwareJob, RemembersTheFirmwareThatRuns) {
    fw_upgrade(job);

    EXPECT_THAT(job, HasMembers(R"({"fw_label":"stable", "fw_ver":"1.2.3", "partition2":false})"));
    EXPECT_THAT(active_job("77"),
                HasMembers(R"({"fw_label":"stable", "fw_ver":"1.2.3", "partition2":false})"));
}

TEST_F(FirmwareJob, RemembersUpTo31Characters) {
    fakes::config().database_texts = {{"SYS_FW_LABEL", std::string(40, 'l')},
                                      {"SYS_FW_VER", std::string(40, 'v')}};

    fw_upgrade(job);

    EXPECT_EQ(job["fw_label"], std::string(31, 'l'));
    EXPECT_EQ(job["fw_ver"], std::string(31, 'v'));
}

TEST_F(FirmwareJob, WhatCannotBeReadIsNotRemembered) {
    fakes::config().database_texts.clear();

    fw_upgrade(job);

    EXPECT_FALSE(job.isMember("fw_label"));
    EXPECT_FALSE(job.isMember("fw_ver"));
    EXPECT_NE(tool_command(), "");
}

TEST_F(FirmwareJob, RemembersTheRootFileSystemItRunsFrom) {
    write_text("/var/data/orv/ROOTFS2", "");
    fw_upgrade(job);
    EXPECT_EQ(job["partition2"], true);
}

TEST_F(FirmwareJob, ThreeDeviceTypesTakeUpgrades) {
    for (const int type : {1, 2, 5}) {
        fakes::reset_device();
        tool_ends_with(0);
        set_fw_job_executing(0);
        fakes::device().device_type = type;

        fw_upgrade(job);

        EXPECT_NE(tool_command(), "") << type;
    }
}

TEST_F(FirmwareJob, AnyOtherDeviceTypeFailsIt) {
    for (const int type : {0, 3, 4, 6, 100, -1}) {
        fakes::reset();
        fakes::device().device_type = type;
        given_job(R"({"jobId":"77", "action":"FW", "value":"http://host/image.bin", "status":"received"})");
        write_text("/var/data/orv/FIRMWARE_UPDATED", "");

        fw_upgrade(job);

        EXPECT_THAT(log_lines(), AllOf(Contains(Notice("Unsupported device type")),
                                       Contains(Alert("firmware update failed"))))
            << type;
        EXPECT_EQ(tool_command(), "");
        EXPECT_FALSE(job.isMember("msg"));
        EXPECT_FALSE(job.isMember("partition2"));
        EXPECT_THAT(reported(), ListIs("failed"));
        expect_failed_and_cleared();
    }
}

TEST_F(FirmwareJob, WithoutATokenItFailsAfterItWasReportedExecuted) {
    fakes::will_return("get_device_token", {-1});

    fw_upgrade(job);

    EXPECT_THAT(log_lines(), AllOf(Contains(Alert("FW upgrade requires vantrel-iot access token")),
                                   Contains(Alert("firmware update failed"))));
    EXPECT_THAT(reported(), ListIs("executed", "failed"));
    EXPECT_EQ(tool_command(), "");
    EXPECT_THAT(commands(), Not(Contains(HasSubstr(FW_MARKER))));
    expect_failed_and_cleared();
}

TEST_F(FirmwareJob, ATokenMayHave127Characters) {
    fakes::config().device_token = std::string(127, 't');
    fw_upgrade(job);
    EXPECT_THAT(tool_command(), testing::EndsWith(" " + std::string(127, 't')));
}

TEST_F(FirmwareJob, IsReportedBeforeItsMarkAndTheTool) {
    fw_upgrade(job);

    EXPECT_THAT(calls_of({"send_message", "get_device_token", "orvsys", "system"}),
                ListIs(StartsWith("send_message v1/device/job/77/ack"), "get_device_token",
                       "orvsys echo 1 > /var/volatile/orv/FW_JOB_EXECUTING",
                       StartsWith("system /usr/bin/orv-upgradefw ")));
    EXPECT_THAT(log_lines(), Contains(Alert("start FW upgrade jobId: 77")));
}

// --- the tool's command line

TEST_F(FirmwareJob, TheUrlIsCutAtItsLastSlash) {
    struct row {
        const char *url, *arguments;
    };
    for (const row &r : {row{"http://h/a/b/image.bin", "image.bin http://h/a/b"}, row{"a/b", "b a"},
                         row{"http://h/", " http://h"}, row{"image.bin", "image.bin image.bin"},
                         row{"/image.bin", "/image.bin /image.bin"}, row{"/", "/ /"}, row{"//", " /"},
                         row{"//x", "x /"}, row{"", " "}}) {
        fakes::reset_device();
        tool_ends_with(0);
        set_fw_job_executing(0);
        job["value"] = r.url;

        fw_upgrade(job);

        EXPECT_EQ(tool_command(), "/usr/bin/orv-upgradefw " + std::string(r.arguments) + " token-of-a-test")
            << r.url;
    }
}

TEST_F(FirmwareJob, AUrlIsReadUpTo256Bytes) {
    job["value"] = "http://host/" + std::string(244, 'i') + "/beyond";

    fw_upgrade(job);

    EXPECT_EQ(tool_command(),
              "/usr/bin/orv-upgradefw " + std::string(244, 'i') + " http://host token-of-a-test");
}

// --- after the tool

TEST_F(FirmwareJob, AStartedUpgradeStaysExecutedAndMarkedUntilTheReboot) {
    write_text("/var/data/orv/FIRMWARE_UPDATED", ""); // by the tool
    execute_action_fw_install(job);

    EXPECT_EQ(active_job("77")["status"], "executed");
    EXPECT_TRUE(is_fw_job_executing());
    EXPECT_TRUE(exists(FW_MARKER));
    EXPECT_TRUE(exists("/var/data/orv/FIRMWARE_UPDATED"));
    EXPECT_THAT(reported(), ListIs("executed"));
    EXPECT_THAT(log_lines(), Not(Contains(Alert(StartsWith("firmware update failed")))));
}

TEST_F(FirmwareJob, EachErrorCodeHasItsText) {
    const char *texts[] = {"invalid firmware version (major)",
                           "invalid firmware version (minor)",
                           "invalid firmare version (rev)",
                           "python3 not installed on device",
                           "config migration failed",
                           "cannot upgrade to firmware version",
                           "detected invalid uBoot environment",
                           "no firmware specified in download URL",
                           "firmware download failed",
                           "firmware image checksum mismatch",
                           "incompatible firmware for device",
                           "firmware signature mismatch",
                           "kernel signature mismatch",
                           "install script signature mismatch",
                           "app platform signature mismatch",
                           "python3 package signature mismatch",
                           "cannot determine rootfs partition",
                           "firmware install failed"};
    int code = 100;
    for (const std::string text : texts) {
        given_job(R"({"jobId":"77", "action":"FW", "value":"http://host/image.bin", "status":"received"})");
        tool_fails_with(std::to_string(code) + "\n");

        fw_upgrade(job);

        EXPECT_EQ(job["msg"], text) << code;
        EXPECT_THAT(log_lines(), AllOf(Contains(Notice("FW upgrade error code: " + std::to_string(code))),
                                       Contains(Alert("firmware update failed: " + text))))
            << code;
        EXPECT_FALSE(exists(ERR_CODE)) << code;
        expect_failed_and_cleared();
        code++;
    }
    EXPECT_EQ(code, 118);
}

TEST_F(FirmwareJob, AnyOtherErrorCodeHasNone) {
    struct row {
        const char *text, *shown;
    };
    for (const row &r : {row{"118", "118"}, row{"99", "99"}, row{"119", "119"}, row{"0", "0"},
                         row{"-1", "-1"}, row{"what", "0"}, row{"", "0"}}) {
        given_job(R"({"jobId":"77", "action":"FW", "value":"http://host/image.bin", "status":"received"})");
        fakes::reset_log();
        tool_fails_with(r.text);

        fw_upgrade(job);

        EXPECT_FALSE(job.isMember("msg")) << r.text;
        EXPECT_THAT(log_lines(), AllOf(Contains(Notice(std::string("FW upgrade error code: ") + r.shown)),
                                       Contains(Alert("firmware update failed"))))
            << r.text;
        EXPECT_FALSE(exists(ERR_CODE)) << r.text;
        expect_failed_and_cleared();
    }
}

TEST_F(FirmwareJob, AToolThatFailsWithoutACodeLeavesTheMessage) {
    tool_ends_with(1);
    job["msg"] = "from the cloud";

    fw_upgrade(job);

    EXPECT_THAT(log_lines(), AllOf(Contains(Alert("firmware update failed: from the cloud")),
                                   Not(Contains(Notice(StartsWith("FW upgrade error code"))))));
    EXPECT_THAT(calls_of({"delete_file"}), Not(Contains("delete_file /var/run/FW_ERR_CODE")));
    expect_failed_and_cleared();
}

TEST_F(FirmwareJob, AnUnreadableCodeIsDeletedAllTheSame) {
    tool_fails_with("100");
    fakes::always_returns("read_var_file", -1, ERR_CODE);

    fw_upgrade(job);

    EXPECT_FALSE(job.isMember("msg"));
    EXPECT_THAT(log_lines(), Not(Contains(Notice(StartsWith("FW upgrade error code")))));
    EXPECT_FALSE(exists(ERR_CODE));
    expect_failed_and_cleared();
}

TEST_F(FirmwareJob, AFailureIsClearedBeforeItIsReported) {
    tool_fails_with("117");

    fw_upgrade(job);

    const std::vector<std::string> all = calls();
    const auto tool = std::find_if(all.begin(), all.end(), [](const std::string &line) {
        return line.rfind("system /usr/bin/orv", 0) == 0;
    });
    EXPECT_THAT(std::vector(tool + 1, all.end()),
                ListIs("delete_file /var/run/FW_ERR_CODE", "delete_file /var/data/orv/FIRMWARE_UPDATED",
                       "delete_file /var/volatile/orv/FW_JOB_EXECUTING",
                       "write_json_file /var/data/orv/vantrel_iot/jobs/active/77", "sync_to_fs 2",
                       StartsWith("send_message v1/device/job/77/ack"), "sleep 2"));
}

TEST_F(FirmwareJob, AMessageThatIsNoTextDoesNotStopTheReport) {
    tool_ends_with(1);
    job["msg"] = json("{}");

    fw_upgrade(job);

    expect_failed_and_cleared();
}

TEST_F(FirmwareJob, AnExceptionIsLoggedAndTheFlagFalls) {
    answer_command("/usr/bin/orv-upgradefw",
                   [](const std::string &) -> int { throw std::runtime_error("any"); });

    execute_action_fw_install(job);

    EXPECT_THAT(log_lines(), Contains(Notice("fw_upgrade: exception handler")));
    EXPECT_FALSE(is_fw_job_executing());
    EXPECT_FALSE(exists(FW_MARKER));
    EXPECT_FALSE(exists(FW_JOBID));
}
