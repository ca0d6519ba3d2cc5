// Firmware, from the job's message to the slot that stays.
#include "tests/unit/whole_jobs_bed.h"

#include "config/boot_recovery.h"
#include "tests/fakes/private_root.h"

using testing::AllOf;
using testing::Contains;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr const char *UPDATED = "/var/data/orv/FIRMWARE_UPDATED";
constexpr const char *LOCAL_UPGRADE = "/var/data/orv/LOCAL_FW_UPGRADE";
constexpr const char *ROOTFS2 = "/var/data/orv/ROOTFS2";

} // namespace

class WholeFirmwareJobs : public WholeJobs {
protected:
    WholeFirmwareJobs() {
        answer_command("orv-upgradefw", 0);
        answer_command("qtel-dfota", 0);
        fakes::config().database_texts["SYS_FW_VER"] = "1.0";
    }

    // A firmware job with these members more: R"("radio":true)".
    static Json::Value fw_job(const std::string &members = "") {
        Json::Value sent = json(R"({"jobId":"fw-1", "action":"FW", "value":"http://host/a.img")" +
                                (members.empty() ? "" : ", " + members) + "}");
        sent["params"]["cfg"] = json(new_config());
        sent["params"]["hashAtFwVer"] = fakes::hash_of(json(new_config()));
        return sent;
    }

    // What the upgrade tool leaves, and the reboot into the other slot.
    static void boot_new_firmware() {
        write_text(UPDATED, "");
        write_text(ROOTFS2, "");
        restart_agent();
    }

    static void restart_agent() {
        for (const auto clear : {set_fw_job_executing, set_config_job_executing, set_radiofw_job_executing})
            clear(0);
    }

    // How often a tool was started.
    static long started(const std::string &tool) {
        const auto all = commands();
        return std::count_if(all.begin(), all.end(),
                             [&](const std::string &each) { return each.find(tool) != std::string::npos; });
    }

    static Json::Value archived_or_active(const std::string &job_id) {
        const Json::Value archived = archived_job(job_id);
        return archived.isNull() ? active_job(job_id) : archived;
    }
};

// --- the modem's firmware

TEST_F(WholeFirmwareJobs, OfTheModemNamedInParamsAloneIsTakenForASystemUpgradeByTheNextPass) {
    send_job(fw_job(R"("params":{"radio":true})"));
    passes(1);
    EXPECT_EQ(started("qtel-dfota"), 1);
    EXPECT_EQ(active_job("fw-1")["status"], "executed");

    passes(1);
    EXPECT_THAT(log_lines(), Contains(Alert("FW upgrade failed, job missing partition property.")));
    EXPECT_EQ(active_job("fw-1")["status"], "failed");
    EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
    EXPECT_TRUE(is_radiofw_job_executing()); // the tool runs
}

TEST_F(WholeFirmwareJobs, OfTheModemNamedAtTheTopAloneIsASystemUpgradeThatNobodyChecks) {
    send_job(fw_job(R"("radio":true)"));
    passes(1);
    EXPECT_EQ(started("orv-upgradefw"), 1);
    EXPECT_EQ(started("qtel-dfota"), 0);

    boot_new_firmware();
    passes(10);
    EXPECT_EQ(active_job("fw-1")["status"], "executed");
    EXPECT_TRUE(exists(UPDATED));
    EXPECT_THAT(reboots(), IsEmpty());
}

TEST_F(WholeFirmwareJobs, OfTheModemNamedInTextIsASystemUpgradeThatIsChecked) {
    send_job(fw_job(R"("radio":"true", "params":{"radio":"true"})"));
    passes(1);
    EXPECT_EQ(started("orv-upgradefw"), 1);
    EXPECT_EQ(started("qtel-dfota"), 0);

    boot_new_firmware();
    passes(1);
    EXPECT_EQ(active_job("fw-1")["status"], "success");
}

TEST_F(WholeFirmwareJobs, OfTheModemHoldsUpTheQueueWhenItsToolIsDone) {
    send_job(fw_job(R"("radio":true, "params":{"radio":true})"));
    passes(1);
    acknowledge("fw-1");
    advance(1);
    send_job(json(R"({"jobId":"younger", "action":"NONE"})"));
    arrives("v1/device/job/fw-1/update", json(R"({"jobId":"fw-1", "rc":0})"));

    passes(10);

    EXPECT_EQ(active_job("fw-1")["status"], "executed");
    EXPECT_EQ(active_job("younger")["status"], "received");
    EXPECT_TRUE(is_radiofw_job_executing());
}

TEST_F(WholeFirmwareJobs, ASecondOneOfTheModemWaitsUntilTheAgentStartsAnew) {
    const std::string modem = R"("radio":true, "params":{"radio":true})";
    send_job(fw_job(modem));
    passes(1);
    arrives("v1/device/job/CLEAR_RUNNING_JOB/apply");
    EXPECT_THAT(active_jobs(), IsEmpty());
    Json::Value second = fw_job(modem);
    second["jobId"] = "fw-2";
    send_job(second);

    passes(10);
    EXPECT_EQ(active_job("fw-2")["status"], "received");
    EXPECT_EQ(started("qtel-dfota"), 1);

    restart_agent();
    passes(1);
    EXPECT_EQ(active_job("fw-2")["status"], "executed");
    EXPECT_EQ(started("qtel-dfota"), 2);
}

// --- the URL is part of a shell command

class UrlInTheShell : public WholeFirmwareJobs {
protected:
    UrlInTheShell() {
        fakes::reset_device();
        for (const char *tool : {"orv-upgradefw", "qtel-dfota", "second"})
            write_stub(tool, R"(for argument in "$@"; do echo "$argument"; done >/tmp/$(basename "$0").part
mv /tmp/$(basename "$0").part /tmp/$(basename "$0"))");
    }

    // One pass over a job with this URL.
    void run(const std::string &url, const std::string &members = "") {
        Json::Value sent = fw_job(members);
        sent["value"] = url;
        send_job(sent);
        passes(1);
    }

    // What a command was given, an argument a line; waits for one in the background.
    static std::string given_to(const std::string &command) {
        for (int tries = 0; !exists("/tmp/" + command) && tries < 1000; tries++)
            fakes::run_shell("/bin/sleep 0.01");
        return exists("/tmp/" + command) ? file_text("/tmp/" + command) : "not run";
    }
};

TEST_F(UrlInTheShell, EndsTheCommandAtASemicolon) {
    run("http://host/a.img;second b");

    EXPECT_EQ(given_to("orv-upgradefw"), "a.img\n");
    EXPECT_EQ(given_to("second"), "b\nhttp://host\ntoken-of-a-test\n");
}

TEST_F(UrlInTheShell, EndsTheCommandAtAnAmpersand) {
    run("http://host/get?f=a.img&second");

    EXPECT_EQ(given_to("orv-upgradefw"), "get?f=a.img\n");
    EXPECT_EQ(given_to("second"), "http://host\ntoken-of-a-test\n");
}

TEST_F(UrlInTheShell, IsMoreArgumentsThanOneWithABlank) {
    run("http://host/my a.img");
    EXPECT_EQ(given_to("orv-upgradefw"), "my\na.img\nhttp://host\ntoken-of-a-test\n");
}

TEST_F(UrlInTheShell, FailsTheJobWhenWhatFollowsIsNoCommand) {
    run("http://host/get?f=a.img&x=1");

    EXPECT_EQ(given_to("orv-upgradefw"), "get?f=a.img\n");
    EXPECT_EQ(active_job("fw-1")["status"], "failed");
    EXPECT_FALSE(active_job("fw-1").isMember("msg"));
}

TEST_F(UrlInTheShell, FailsTheJobWithTheToolsErrorCodeIfThereIsOne) {
    write_stub("orv-upgradefw", "echo 107 >/var/run/FW_ERR_CODE");
    run("http://host/a.img;no-such-command");

    EXPECT_EQ(active_job("fw-1")["status"], "failed");
    EXPECT_EQ(active_job("fw-1")["msg"], "no firmware specified in download URL");
}

TEST_F(UrlInTheShell, HoldsUpEveryJobWhenWhatFollowsSucceeds) {
    run("http://host/a.img;second");
    advance(1);
    send_job(json(R"({"jobId":"younger", "action":"NONE"})"));

    passes(10);

    EXPECT_EQ(given_to("second"), "http://host\ntoken-of-a-test\n");
    EXPECT_EQ(active_job("fw-1")["status"], "executed");
    EXPECT_EQ(active_job("younger")["status"], "received");
    EXPECT_TRUE(is_fw_job_executing());
    restart_agent();
    passes(1);
    EXPECT_EQ(active_job("fw-1")["status"], "failed");
}

TEST_F(UrlInTheShell, OfAModemJobIsExecutedWhateverComesOfIt) {
    run("http://host/a.bin;no-such-command", R"("radio":true, "params":{"radio":true})");

    EXPECT_EQ(given_to("qtel-dfota"), "-i\nhttp://host/a.bin\n");
    EXPECT_EQ(active_job("fw-1")["status"], "executed");
}

TEST_F(UrlInTheShell, ReachesTheToolWholeWhenItIsPercentEncoded) {
    run("http://host/get%3Bsecond%26my%20a.img");
    EXPECT_EQ(given_to("orv-upgradefw"), "get%3Bsecond%26my%20a.img\nhttp://host\ntoken-of-a-test\n");
    EXPECT_EQ(active_job("fw-1")["status"], "executed");
}

// --- the check in the new firmware

class NewFirmware : public WholeFirmwareJobs {
protected:
    // The firmware job as the reboot finds it, its "executed" reported and acknowledged.
    void given_installed(const Json::Value &sent) {
        send_job(sent);
        passes(1);
        acknowledge("fw-1");
        boot_new_firmware();
        fakes::reset_mqtt();
    }
};

TEST_F(NewFirmware, GoesBackForAnOlderJobThatHasNotEnded) {
    given_active_job(R"({"jobId":"older", "action":"CMD", "status":"executed", "ack":true, "ackId":1})",
                     START_TIME - 1000);
    given_installed(fw_job());
    boot_new_firmware();

    passes(1);

    EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
    EXPECT_EQ(active_job("older")["status"], "failed");
    EXPECT_THAT(reported("older"), IsEmpty());

    answer_command("orv-upgradefw", 1); // after the reboot, the firmware job is the oldest
    let_repeats_be_due();
    passes(2);
    EXPECT_THAT(reported("older"), ListIs("failed"));
}

TEST_F(NewFirmware, IsAcceptedWithAYoungerJobThatWaits) {
    given_installed(fw_job());
    advance(1);
    send_job(json(R"({"jobId":"younger", "action":"NONE"})"));

    passes(1);

    EXPECT_THAT(reboots(), ListIs("request_reboot_blocking"));
    EXPECT_EQ(active_job("fw-1")["status"], "success");
}

TEST_F(NewFirmware, GoesBackWhenItsSuccessIsArchivedAndItsMarkIsThere) {
    given_installed(fw_job());
    PersistentFiles disk;
    before("delete_file /var/data/orv/config.staged", [&] { disk.save(); });
    passes(1);
    EXPECT_FALSE(exists(UPDATED));

    disk.boot();
    EXPECT_EQ(active_job("fw-1")["status"], "success");
    EXPECT_TRUE(exists(UPDATED));
    fakes::reset_device();
    passes(3);
    EXPECT_THAT(reboots(), IsEmpty());

    acknowledge("fw-1");
    passes(2);
    EXPECT_EQ(archived_job("fw-1")["status"], "success");
    EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
}

TEST_F(NewFirmware, StaysWhenItsFailureIsCutBeforeTheFormerSlotIsSelected) {
    Json::Value sent = fw_job();
    sent["params"]["hashAtFwVer"] = "of another one";
    given_installed(sent);
    PersistentFiles disk;
    before("switch_firmware_partition", [&] { disk.save(); });
    passes(1);

    disk.boot();
    fakes::reset_device();
    passes(10);
    EXPECT_TRUE(exists(ROOTFS2));
    EXPECT_THAT(reboots(), IsEmpty());
    EXPECT_EQ(archived_or_active("fw-1")["status"], "failed");
}

class FailsBeforeItsConfiguration : public NewFirmware, public testing::WithParamInterface<const char *> {
protected:
    // Failed and rebooted; "executed" was reported, and acknowledged or not.
    void given_failed(bool acknowledged) {
        Json::Value sent = fw_job();
        if (std::string(GetParam()) == "OtherHash")
            sent["params"]["hashAtFwVer"] = "of another one";
        send_job(sent);
        passes(1);
        if (acknowledged)
            acknowledge("fw-1");
        session_of_executed = active_job("fw-1")["ackId"].asInt();
        boot_new_firmware();
        if (std::string(GetParam()) == "SameSlot")
            std::remove(ROOTFS2);
        passes(1);
        ASSERT_EQ(active_job("fw-1")["status"], "failed");
        fakes::reset_mqtt();
        let_repeats_be_due();
    }

    void expect_reported_then_archived() {
        passes(1);
        const auto reports = published_on("v1/device/job/fw-1/ack");
        ASSERT_EQ(reports.size(), 1U);
        EXPECT_EQ(reports[0].json["params"]["status"], "failed");
        EXPECT_GT(reports[0].json["session"].asInt(), session_of_executed);
        acknowledge("fw-1");
        passes(1);
        EXPECT_THAT(archived_job("fw-1"), HasMembers(R"({"status":"failed", "ack":true})"));
    }

    int session_of_executed = 0;
};

INSTANTIATE_TEST_SUITE_P(Each, FailsBeforeItsConfiguration, testing::Values("OtherHash", "SameSlot"),
                         [](const auto &each) { return std::string(each.param); });

TEST_P(FailsBeforeItsConfiguration, AndIsReportedAfterTheRebootInASessionOfItsOwn) {
    given_failed(true);
    expect_reported_then_archived();
}

TEST_P(FailsBeforeItsConfiguration, AndIsReportedSoWhenExecutedWasNotAcknowledged) {
    given_failed(false);
    expect_reported_then_archived();
}

TEST_P(FailsBeforeItsConfiguration, AndIsNotAcknowledgedByALateAnswerToExecuted) {
    given_failed(false);
    Json::Value answer = json(R"({"jobId":"fw-1", "rc":200})");
    answer["session"] = session_of_executed;

    arrives("v1/device/job/fw-1/pub_ack", answer);
    passes(2);

    EXPECT_THAT(active_job("fw-1"), HasMembers(R"({"status":"failed", "ack":false})"));
}

TEST_F(WholeFirmwareJobs, WhosePowerFailsDuringTheDownloadIsReportedFailed) {
    PersistentFiles disk;
    answer_command("orv-upgradefw", [&](const std::string &) {
        acknowledge("fw-1"); // "executed", minutes before
        disk.save();
        return 1;
    });
    send_job(fw_job());
    passes(1);

    disk.boot(); // into the former firmware
    passes(1);
    EXPECT_THAT(reboots(), ListIs("request_reboot_blocking"));
    disk.save();
    disk.boot();
    fakes::reset_mqtt();
    let_repeats_be_due();
    passes(1);

    EXPECT_THAT(reported("fw-1"), ListIs("failed"));
    acknowledge("fw-1");
    passes(1);
    EXPECT_EQ(archived_job("fw-1")["status"], "failed");
}

TEST_F(WholeFirmwareJobs, OfTheModemNamedInParamsAloneIsArchivedUnreportedWhenExecutedWasAcknowledged) {
    send_job(fw_job(R"("params":{"radio":true})"));
    passes(1);
    acknowledge("fw-1");
    const Json::Value session = active_job("fw-1")["ackId"];
    fakes::reset_mqtt();
    let_repeats_be_due();

    passes(2);

    EXPECT_THAT(archived_job("fw-1"), HasMembers(R"({"status":"failed", "ack":true})"));
    EXPECT_EQ(archived_job("fw-1")["ackId"], session);
    EXPECT_THAT(published_topics(), ListIs("v1/device/cmd/checkin/apply"));
}

TEST_F(WholeFirmwareJobs, OfTheModemNamedInParamsAloneIsReportedInTheSessionOfExecutedWhenThatWaits) {
    send_job(fw_job(R"("params":{"radio":true})"));
    passes(1);
    const Json::Value session = active_job("fw-1")["ackId"];
    fakes::reset_mqtt();
    let_repeats_be_due();

    passes(2);

    ASSERT_THAT(reported("fw-1"), ListIs("failed"));
    EXPECT_EQ(published_on("v1/device/job/fw-1/ack")[0].json["session"], session);
}

TEST_F(NewFirmware, WhoseConfigurationFailsIsReportedAfterTheReboot) {
    given_installed(fw_job());
    fakes::config().validator_status = -1;
    passes(1);
    EXPECT_THAT(reported("fw-1"), IsEmpty());
    EXPECT_THAT(active_job("fw-1"), HasMembers(R"({"status":"failed", "ack":false})"));

    let_repeats_be_due();
    passes(1);
    EXPECT_THAT(reported("fw-1"), ListIs("failed"));
}

// --- upgrades that were started on the device

class AfterALocalUpgrade : public WholeFirmwareJobs {
protected:
    AfterALocalUpgrade() {
        write_text(UPDATED, "");
        write_text(LOCAL_UPGRADE, "");
        given_config(STAGED, STAGED_HASH, new_config());
    }
};

TEST_F(AfterALocalUpgrade, TheRecoverysRebootComesBeforeItsMarkIsDeleted) {
    write_text(ROOTFS2, "");
    bool local = false;
    bool updated = true;
    fakes::device().on_reboot = [&](const std::string &) {
        local = exists(LOCAL_UPGRADE);
        updated = exists(UPDATED);
    };

    run_for(30, [this] { job_mgr_main(client); });

    EXPECT_THAT(reboots(), ListIs("request_reboot_blocking"));
    EXPECT_TRUE(local);
    EXPECT_FALSE(updated);
}

TEST_F(AfterALocalUpgrade, AMarkThatIsLeftMakesTheNextUpgradeOfTheCloudALocalOne) {
    std::remove(STAGED);
    std::remove(STAGED_HASH); // this boot belongs to the cloud's upgrade
    run_for(0, [this] { job_mgr_main(client); });

    EXPECT_THAT(log_lines(), AllOf(Contains(Alert("job_mgr detects local firmware update")),
                                   Not(Contains(Alert("job_mgr detects IOT firmware update")))));
    EXPECT_FALSE(exists(UPDATED));
}

TEST_F(AfterALocalUpgrade, TheFormerFirmwareIsVerifiedAndStaysWhenTheSlotWasNotSelected) {
    ASSERT_FALSE(exists(ROOTFS2)); // the former one runs

    run_for(30, [this] { job_mgr_main(client); });

    EXPECT_THAT(log_lines(), Contains(Alert("Config verification after FW upgrade successful")));
    EXPECT_THAT(reboots(), ListIs("request_reboot_blocking"));
    EXPECT_FALSE(exists(UPDATED));
}
