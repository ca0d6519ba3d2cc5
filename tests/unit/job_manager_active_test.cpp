// The oldest unfinished job: started, or resumed after a restart.
#include "tests/unit/job_manager_fixture.h"

#include "jobs/job_store.h"

using testing::Contains;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

class ActiveJob : public JobManagerTest {
protected:
    void process(const std::string &job_text) {
        given_active_job(job_text);
        process_active_job(client, "77");
    }
};

TEST_F(ActiveJob, ThatWasReceivedIsReportedThenStarted) {
    Json::Value given;
    neighbours::inside = [&](Json::Value &job) { given = job; };

    process(R"({"jobId":"77", "status":"received", "action":"CMD", "params":{"script":"x"}})");

    EXPECT_THAT(neighbours::called, ListIs("execute_job_action 77"));
    EXPECT_EQ(neighbours::client, &client);
    EXPECT_THAT(given, IsJson(R"({"jobId":"77", "status":"received", "action":"CMD",
                                  "params":{"script":"x"}})"));
    EXPECT_THAT(calls_of({"syslog", "execute_job_action"}),
                ListIs("syslog process_active_job 77", "syslog process_active_job job: 77 status: received",
                       "syslog update_job_status: 77 received post_status: 1",
                       "syslog prev job status: received current job status: received",
                       "execute_job_action 77"));
    EXPECT_THAT(log_lines()[0], Notice("process_active_job 77"));
    EXPECT_THAT(log_lines()[1], Notice("process_active_job job: 77 status: received"));
}

TEST_F(ActiveJob, WhoseReceiptIsNotAcknowledgedIsReportedWhenItIsDue) {
    given_repeat_is_due();
    process(R"({"jobId":"77", "status":"received", "ack":false, "ackId":1699999000})");

    EXPECT_THAT(reported("77"), ListIs("received"));
    EXPECT_THAT(neighbours::called, ListIs("execute_job_action 77"));
}

TEST_F(ActiveJob, ThatCannotBeReadIsLeft) {
    process_active_job(client, "77");

    EXPECT_THAT(log_lines(), ListIs(Notice("process_active_job 77")));
    EXPECT_THAT(neighbours::called, IsEmpty());
}

TEST_F(ActiveJob, OfAnyOtherStatusIsLeft) {
    for (const char *status : {"running", "", "Received", "EXECUTED", "success", "failed"}) {
        fakes::reset();
        process(std::string(R"({"jobId":"77", "action":"FW", "fail_on_reboot":true, "status":")") + status +
                "\"}");

        EXPECT_THAT(neighbours::called, IsEmpty()) << status;
        EXPECT_THAT(calls(), IsEmpty());
        EXPECT_THAT(log_lines(), SizeIs(2));
    }
}

TEST_F(ActiveJob, RunsItsActionUnderTheManagersMutex) {
    bool free = true;
    neighbours::inside = [&](Json::Value &) { free = manager_mutex_is_free(); };
    process(R"({"jobId":"77", "status":"received"})");

    EXPECT_FALSE(free);
    EXPECT_TRUE(manager_mutex_is_free());
}

TEST_F(ActiveJob, WhoseActionThrowsLeavesTheMutexFree) {
    neighbours::inside = [](Json::Value &) { throw std::runtime_error("x"); };
    given_active_job(R"({"jobId":"77", "status":"received"})");

    EXPECT_THROW(process_active_job(client, "77"), std::runtime_error);
    EXPECT_TRUE(manager_mutex_is_free());
}

// --- found executed after a restart

TEST_F(ActiveJob, ThatAnInterruptionFailsIsFailedAndReported) {
    process(R"({"jobId":"77", "status":"executed", "action":"CMD", "fail_on_reboot":true, "ack":true})");

    EXPECT_THAT(log_lines()[2], Alert("job: 77 was interrupted by reboot, setting status to FAILED"));
    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"failed", "ack":false, "ackId":1700000000})"));
    EXPECT_THAT(reported("77"), ListIs("failed"));
    EXPECT_THAT(neighbours::called, IsEmpty());
}

TEST_F(ActiveJob, ThatAnInterruptionFailsNeedsNoAction) {
    process(R"({"jobId":"77", "status":"executed", "fail_on_reboot":true})");
    EXPECT_THAT(reported("77"), ListIs("failed"));
}

TEST_F(ActiveJob, ThatAnInterruptionDoesNotFailIsLeft) {
    for (const char *more : {"", R"(, "fail_on_reboot":false)", R"(, "action":"CMD")",
                             R"(, "action":"POST_CONFIG", "fail_on_reboot":false)",
                             R"(, "action":"FAILSAFE_CONFIG", "cfg_verified":false)"}) {
        fakes::reset();
        process(std::string(R"({"jobId":"77", "status":"executed", "ack":true)") + more + "}");

        EXPECT_THAT(neighbours::called, IsEmpty()) << more;
        EXPECT_THAT(calls(), IsEmpty());
        EXPECT_THAT(log_lines(), ListIs(Notice("process_active_job 77"),
                                        Notice("process_active_job job: 77 status: executed")));
    }
}

class FirmwareJob : public ActiveJob, public testing::WithParamInterface<const char *> {
protected:
    static std::string job_of(const std::string &more) {
        return std::string(R"({"jobId":"77", "action":")") + GetParam() + "\", " + more + "}";
    }
};

INSTANTIATE_TEST_SUITE_P(Each, FirmwareJob, testing::Values("FW", "fw", "FW_PUT", "fw_put"),
                         [](const auto &row) { return std::string(row.param); });

TEST_P(FirmwareJob, ThatWasExecutedIsVerified) {
    process(job_of(R"("status":"executed", "ack":true)"));

    EXPECT_THAT(neighbours::called, ListIs("check_fw_upgrade_result 77"));
    EXPECT_EQ(neighbours::client, &client);
    EXPECT_THAT(log_lines(),
                ListIs(Notice("process_active_job 77"), Notice("process_active_job job: 77 status: executed"),
                       Alert("start FW post install verification")));
}

TEST_P(FirmwareJob, IsMarkedWhileItIsVerified) {
    bool flag = false;
    bool marker = false;
    bool mutex_free = true;
    neighbours::inside = [&](Json::Value &) {
        flag = is_fw_job_executing();
        marker = exists(FW_JOB_MARKER);
        mutex_free = manager_mutex_is_free();
    };
    process(job_of(R"("status":"executed")"));

    EXPECT_TRUE(flag);
    EXPECT_TRUE(marker);
    EXPECT_FALSE(mutex_free);
    EXPECT_FALSE(is_fw_job_executing());
    EXPECT_FALSE(exists(FW_JOB_MARKER));
    EXPECT_THAT(calls_of({"syslog", "orvsys", "check_fw_upgrade_result", "delete_file"}),
                ListIs("syslog process_active_job 77", "syslog process_active_job job: 77 status: executed",
                       "syslog start FW post install verification",
                       "orvsys echo 1 > /var/volatile/orv/FW_JOB_EXECUTING", "check_fw_upgrade_result 77",
                       "delete_file /var/volatile/orv/FW_JOB_EXECUTING"));
}

TEST_P(FirmwareJob, WhoseVerificationThrowsIsNoLongerMarked) {
    neighbours::inside = [](Json::Value &) { throw 1; };
    given_active_job(job_of(R"("status":"executed")"));

    EXPECT_ANY_THROW(process_active_job(client, "77"));

    EXPECT_FALSE(is_fw_job_executing());
    EXPECT_FALSE(exists(FW_JOB_MARKER));
}

TEST_P(FirmwareJob, ThatAnInterruptionFailsIsNotVerified) {
    process(job_of(R"("status":"executed", "fail_on_reboot":true)"));

    EXPECT_THAT(reported("77"), ListIs("failed"));
    EXPECT_THAT(neighbours::called, IsEmpty());
}

TEST_F(ActiveJob, IsAFirmwareJobByItsWholeActionOnly) {
    for (const char *action : {"Fw", "FW_put", "FW ", "FWD", "FW_PUT2"}) {
        process(std::string(R"({"jobId":"77", "status":"executed", "action":")") + action + "\"}");
        EXPECT_THAT(neighbours::called, IsEmpty()) << action;
    }
}

TEST_F(ActiveJob, WithAnUnverifiedConfigurationIsAppliedAgain) {
    bool free = true;
    neighbours::inside = [&](Json::Value &) { free = manager_mutex_is_free(); };
    process(R"({"jobId":"77", "status":"executed", "action":"CFG", "cfg_verified":false})");

    EXPECT_THAT(neighbours::called, ListIs("cmd_apply 77"));
    EXPECT_EQ(neighbours::client, &client);
    EXPECT_FALSE(free);
    EXPECT_THAT(log_lines(), SizeIs(2));
}

TEST_F(ActiveJob, WithAConfigurationVerifiedOrOfAnotherActionIsNotApplied) {
    for (const char *more : {R"("action":"CFG", "cfg_verified":true)", R"("action":"CFG")",
                             R"("action":"cfg", "cfg_verified":false)", R"("cfg_verified":false)"}) {
        process(std::string(R"({"jobId":"77", "status":"executed", )") + more + "}");
        EXPECT_THAT(neighbours::called, IsEmpty()) << more;
    }
}

TEST_F(ActiveJob, WithAnUnverifiedConfigurationIsAppliedEvenWhenTheInterruptionFailsIt) {
    process(R"({"jobId":"77", "status":"executed", "action":"CFG", "cfg_verified":false,
                "fail_on_reboot":true})");

    EXPECT_THAT(reported("77"), ListIs("failed"));
    EXPECT_THAT(neighbours::called, ListIs("cmd_apply 77"));
}

// --- while an installed firmware is not verified

TEST_P(FirmwareJob, OfAnUnverifiedFirmwareIsTakenForExecuted) {
    for (const char *status : {"received", "downloading", "", "Executed", "success"}) {
        fakes::reset();
        neighbours::reset();
        given_unverified_firmware();
        Json::Value verified;
        neighbours::inside = [&](Json::Value &job) { verified = job; };
        process(job_of(std::string(R"("ack":true, "status":")") + status + "\""));

        EXPECT_THAT(log_lines()[2],
                    Alert("override FW job status '" + std::string(status) + "' with 'executed'"));
        EXPECT_THAT(log_lines()[3], Notice("update_job_status: 77 executed post_status: 1"));
        EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"executed", "override_status":true,
                                                     "ack":false})"));
        EXPECT_THAT(reported("77"), ListIs("executed"));
        EXPECT_THAT(neighbours::called, ListIs("check_fw_upgrade_result 77"));
        EXPECT_THAT(verified, HasMembers(R"({"status":"executed", "override_status":true})"));
        EXPECT_TRUE(exists(FIRMWARE_UPDATED_FILE));
    }
}

TEST_P(FirmwareJob, OfAnUnverifiedFirmwareThatWasExecutedIsVerifiedAsItIs) {
    given_unverified_firmware();
    process(job_of(R"("status":"executed", "ack":true)"));

    EXPECT_THAT(neighbours::called, ListIs("check_fw_upgrade_result 77"));
    EXPECT_FALSE(active_job("77").isMember("override_status"));
    EXPECT_THAT(published(), IsEmpty());
}

TEST_P(FirmwareJob, OfALocalUpgradeIsNotTakenForExecuted) {
    given_unverified_firmware();
    write_text(LOCAL_FW_UPGRADE_FILE, "");
    process(job_of(R"("status":"received")"));

    EXPECT_THAT(neighbours::called, ListIs("execute_job_action 77"));
    EXPECT_FALSE(active_job("77").isMember("override_status"));
}

class OtherJobOfAnUnverifiedFirmware : public ActiveJob {
protected:
    OtherJobOfAnUnverifiedFirmware() {
        given_unverified_firmware();
        write_text("/var/data/orv/config.staged", "{}");
        write_text("/var/data/orv/config.staged.hash", "h");
    }

    static void expect_reverted() {
        EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
        EXPECT_FALSE(exists(FIRMWARE_UPDATED_FILE));
        EXPECT_FALSE(exists("/var/data/orv/config.staged"));
        EXPECT_FALSE(exists("/var/data/orv/config.staged.hash"));
        EXPECT_THAT(log_lines().back(), Alert("finalise FW install, job status: failed"));
        EXPECT_THAT(neighbours::called, IsEmpty());
    }
};

TEST_F(OtherJobOfAnUnverifiedFirmware, FailsAndRevertsTheFirmware) {
    for (const char *status : {"received", "executed", "running"}) {
        fakes::reset();
        given_unverified_firmware();
        process(std::string(R"({"jobId":"77", "action":"CMD", "fail_on_reboot":true, "cfg_verified":false,
                                "status":")") +
                status + "\"}");

        EXPECT_THAT(log_lines()[2], Alert("firmware update in progress, but active job 77 action is CMD"));
        EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"failed", "action":"CMD"})"));
        EXPECT_THAT(published(), IsEmpty()); // that comes after the reboot
        EXPECT_THAT(log_lines(), Not(Contains(Notice(StartsWith("update_job_status")))));
        expect_reverted();
    }
}

TEST_F(OtherJobOfAnUnverifiedFirmware, FailsInASessionThatNobodyHasAnswered) {
    process(R"({"jobId":"77", "action":"CMD", "status":"executed", "ack":true, "ackId":1000, "ackTs":1000})");

    EXPECT_THAT(active_job("77"),
                HasMembers(R"({"status":"failed", "ack":false, "ackId":1700000000, "ackTs":1700000000})"));
}

TEST_F(OtherJobOfAnUnverifiedFirmware, OfTheConfigurationFailsTooAndIsNotApplied) {
    process(R"({"jobId":"77", "action":"CFG", "status":"executed", "cfg_verified":false})");

    EXPECT_THAT(log_lines()[2], Alert("firmware update in progress, but active job 77 action is CFG"));
    expect_reverted();
}

TEST_F(OtherJobOfAnUnverifiedFirmware, WithoutActionFailsAndRevertsTheFirmware) {
    process(R"({"jobId":"77", "status":"received"})");

    EXPECT_THAT(
        log_lines()[2],
        Alert("firmware update in progress, but active job is not a FW job, reverting to previous FW"));
    EXPECT_EQ(active_job("77")["status"], "failed");
    expect_reverted();
}

TEST_F(OtherJobOfAnUnverifiedFirmware, WithoutAnIdRevertsTheFirmware) {
    write_text(std::string(ACTIVE_FOLDER) + "77", R"({"action":"CMD", "status":"received"})");
    process_active_job(client, "77");

    EXPECT_THAT(
        log_lines()[2],
        Alert("firmware update in progress, but active job is not a FW job, reverting to previous FW"));
    EXPECT_EQ(active_job("77")["status"], "received");
    expect_reverted();
}

TEST_F(OtherJobOfAnUnverifiedFirmware, WhoseActionIsNoTextRevertsTheFirmware) {
    for (const char *action : {"{}", R"(["FW"])"}) {
        fakes::reset();
        given_unverified_firmware();
        process(std::string(R"({"jobId":"77", "status":"received", "action":)") + action + "}");
        expect_reverted();
    }
}

TEST_F(ActiveJob, OfAnyActionIsStartedWhileALocalUpgradeIsNotVerified) {
    given_unverified_firmware();
    write_text(LOCAL_FW_UPGRADE_FILE, "");
    process(R"({"jobId":"77", "action":"CMD", "status":"received"})");

    EXPECT_THAT(neighbours::called, ListIs("execute_job_action 77"));
    EXPECT_THAT(reboots(), IsEmpty());
}
