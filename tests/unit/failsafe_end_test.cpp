// The two ends of a failsafe verification.
#include "tests/unit/config_bed.h"

#include "config/failsafe.h"
#include "jobs/job_status.h"
#include "jobs/job_store.h"

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsNull;
using testing::Not;
using testing::StartsWith;

class FailsafeEnd : public ConfigTest {
protected:
    FailsafeEnd() {
        given_active_job(R"({"jobId":"77", "action":"CFG", "status":"executed", "cfg_verified":false})");
        job["msg"] = "the reason";
        given_config(RUNNING, RUNNING_HASH, new_config());
        given_config(FAILSAFE, FAILSAFE_HASH, R"({"name":"failsafe"})");
        given_candidate(new_config());
        write_text(NEW_COPY, new_config());
        write_text(TIMER, "{}");
        write_text(MODIFIED, "");
    }

    void given_failsafe_job() {
        job = json(
            R"({"jobId":"FAILSAFE_CONFIG", "action":"FAILSAFE_CONFIG", "status":"executed", "msg":"m"})");
    }
};

// --- success

TEST_F(FailsafeEnd, SuccessReportsThenCommitsThenRecordsThenAsksForAPush) {
    failsafe_success(job);

    EXPECT_THAT(calls(),
                ListIs("write_json_file /var/data/orv/vantrel_iot/jobs/active/77", "sync_to_fs 2",
                       StartsWith("send_message v1/device/job/77/ack"), "sleep 2",
                       "copy_file /var/volatile/config/config.running /var/data/orv/config.json",
                       "copy_file /var/volatile/config/config.running.hash /var/data/orv/config.hash",
                       "store_meta_file", "delete_file /var/data/orv/FAILSAFE_TIMER",
                       "delete_file /var/run/CONFIG_MODIFIED", "sync_to_fs 2", "save_hw_config_section_to_nv",
                       "write_json_file /var/data/orv/vantrel_iot/jobs/active/77", "sync_to_fs 2",
                       StartsWith("send_message v1/device/cmd/cfgpush/apply")));
    EXPECT_EQ(log_lines().front(), (log_line{LOG_NOTICE, "failsafe config: the reason"}));
    EXPECT_EQ(log_lines().back(), (log_line{LOG_ALERT, "job status success after failsafe verification"}));
    EXPECT_EQ(job["status"], "success");
    EXPECT_EQ(file_text(SAVED), new_config());
}

TEST_F(FailsafeEnd, SuccessIsReportedWithItsReason) {
    failsafe_success(job);

    const auto reports = published_on("v1/device/job/77/ack");
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_THAT(reports[0].json["params"],
                IsJson(R"({"jobId":"77", "status":"success", "msg":"the reason"})"));
}

TEST_F(FailsafeEnd, SuccessAsksForTheWholeConfigurationToBePushed) {
    failsafe_success(job);

    const auto pushes = published_on("v1/device/cmd/cfgpush/apply");
    ASSERT_EQ(pushes.size(), 1U);
    EXPECT_EQ(pushes[0].json["value"], "/");
    EXPECT_EQ(pushes[0].json["session"].asInt64(), START_TIME + 2);
    EXPECT_THAT(pushes[0].message_id, IsNull());
}

TEST_F(FailsafeEnd, SuccessOfAFirmwareJobIsNotReported) {
    job["action"] = "FW";
    failsafe_success(job);

    EXPECT_THAT(reported(), IsEmpty());
    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"success"})"));
    EXPECT_THAT(log_lines(), Contains(Alert("job status success after failsafe verification")));
}

TEST_F(FailsafeEnd, SuccessOfTheDevicesOwnJobSaysLess) {
    given_failsafe_job();
    failsafe_success(job);

    EXPECT_THAT(log_lines(), Not(Contains(Alert(HasSubstr("after failsafe verification")))));
    EXPECT_THAT(published_topics(), ListIs("v1/device/cmd/cfgpush/apply"));
    EXPECT_EQ(file_text(SAVED), new_config());
}

// --- failure

TEST_F(FailsafeEnd, FailureReportsThenRecordsThenRestoresThenRestarts) {
    failsafe_failure(job);

    EXPECT_THAT(
        calls(),
        ListIs("write_json_file /var/data/orv/vantrel_iot/jobs/active/77", "sync_to_fs 2",
               StartsWith("send_message v1/device/job/77/ack"), "sleep 2",
               "write_json_file /var/data/orv/vantrel_iot/jobs/active/77", "restore_failsafe_files_to_nv",
               "restore_failsafe_files_to_running", "restore_meta_file_or_regenerate_from_meta_folder_in_ram",
               "delete_file /var/data/orv/FAILSAFE_TIMER", "delete_file /var/run/CONFIG_MODIFIED",
               "delete_file /var/volatile/config/config.new",
               "delete_file /var/volatile/config/config.new.hash", "delete_file /var/data/orv/config.new",
               "sync_to_fs 2", "system /usr/bin/cmd_netgen apply", "system /bin/systemctl reload qtel-mgr",
               "system /usr/bin/cmd_wifi apply"));
    EXPECT_EQ(job["status"], "failed");
    EXPECT_THAT(file_json(SAVED), IsJson(R"({"name":"failsafe"})"));
    EXPECT_THAT(file_json(RUNNING), IsJson(R"({"name":"failsafe"})"));
    EXPECT_EQ(file_text(SAVED_HASH), file_text(FAILSAFE_HASH));
    EXPECT_EQ(file_text(RUNNING_HASH), file_text(FAILSAFE_HASH));
}

TEST_F(FailsafeEnd, FailureAnnouncesEachRestart) {
    failsafe_failure(job);

    std::vector<std::string> order = calls_of({"syslog", "system"});
    EXPECT_EQ(order.front(), "syslog failsafe config: the reason");
    EXPECT_THAT(std::vector(order.end() - 6, order.end()),
                ListIs("syslog failsafe restart network", "system /usr/bin/cmd_netgen apply",
                       "syslog failsafe restart dialer", "system /bin/systemctl reload qtel-mgr",
                       "syslog failsafe restart wifi", "system /usr/bin/cmd_wifi apply"));
    EXPECT_THAT(log_lines(), AllOf(Contains(Notice("failsafe restart network")),
                                   Contains(Notice("failsafe restart dialer")),
                                   Contains(Notice("failsafe restart wifi"))));
}

TEST_F(FailsafeEnd, FailureIsLoggedAndReported) {
    failsafe_failure(job);

    EXPECT_THAT(log_lines(), AllOf(Contains(Notice("failsafe config: the reason")),
                                   Contains(Alert("job status failed after failsafe verification"))));
    const auto reports = published_on("v1/device/job/77/ack");
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_THAT(reports[0].json["params"],
                IsJson(R"({"jobId":"77", "status":"failed", "msg":"the reason"})"));
    EXPECT_THAT(published_on("v1/device/cmd/cfgpush/apply"), IsEmpty());
}

TEST_F(FailsafeEnd, FailureIsLoggedBeforeTheRestore) {
    bool logged = false;
    before("restore_failsafe_files_to_nv", [&] {
        logged =
            testing::Value(log_lines(), Contains(Alert("job status failed after failsafe verification")));
    });

    failsafe_failure(job);

    EXPECT_TRUE(logged);
}

TEST_F(FailsafeEnd, FailureGoesOnThroughFailedRestores) {
    for (const char *function : {"restore_failsafe_files_to_nv", "restore_failsafe_files_to_running",
                                 "restore_meta_file_or_regenerate_from_meta_folder_in_ram"})
        fakes::will_return(function, {-1});
    fakes::always_returns("system", 1);

    failsafe_failure(job);

    EXPECT_EQ(calls().back(), "system /usr/bin/cmd_wifi apply");
    EXPECT_FALSE(exists(NEW));
}

TEST_F(FailsafeEnd, FailureOfAFirmwareJobIsNotReported) {
    job["action"] = "FW";
    failsafe_failure(job);

    EXPECT_THAT(reported(), IsEmpty());
    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"failed"})"));
}

TEST_F(FailsafeEnd, FailureOfTheDevicesOwnJobSaysLess) {
    given_failsafe_job();
    failsafe_failure(job);

    EXPECT_THAT(log_lines(), Not(Contains(Alert(HasSubstr("after failsafe verification")))));
    EXPECT_THAT(published(), IsEmpty());
    EXPECT_THAT(file_json(SAVED), IsJson(R"({"name":"failsafe"})"));
}

// --- the result in the job file

TEST_F(FailsafeEnd, TheResultStandsInTheJobFile) {
    for (const auto &[status, verified] : {std::pair("failed", false), std::pair("success", true)}) {
        job["status"] = status;
        record_failsafe_result(job, false);
        EXPECT_EQ(active_job("77")["status"], status);
        EXPECT_EQ(active_job("77")["cfg_verified"], verified);
    }
}

TEST_F(FailsafeEnd, TheResultIsWrittenUnderTheJobFileMutex) {
    bool free_at_the_write = true;
    bool free_at_the_flush = false;
    fakes::before_change = [&](const fakes::call &next) {
        if (next.function == "write_json_file")
            free_at_the_write = free_for_another_thread(job_file_mutex);
        if (next.function == "sync_to_fs")
            free_at_the_flush = free_for_another_thread(job_file_mutex);
    };

    record_failsafe_result(job, true);

    EXPECT_FALSE(free_at_the_write);
    EXPECT_TRUE(free_at_the_flush);
}

TEST_F(FailsafeEnd, AJobFileWithoutTheMarkOfVerificationGetsNone) {
    given_active_job(R"({"jobId":"77", "status":"executed", "extra":1})");
    job["status"] = "success";
    record_failsafe_result(job, false);

    EXPECT_THAT(active_job("77"), IsJson(R"({"jobId":"77", "status":"success", "extra":1})"));
}

TEST_F(FailsafeEnd, TheResultIsFlushedWhenAskedFor) {
    record_failsafe_result(job, false);
    EXPECT_THAT(calls(), ListIs("write_json_file /var/data/orv/vantrel_iot/jobs/active/77"));
    record_failsafe_result(job, true);
    EXPECT_EQ(calls().back(), "sync_to_fs 2");
}

TEST_F(FailsafeEnd, WithoutAJobFileThereIsNoResultToRecord) {
    given_active_job(R"({"jobId":"FAILSAFE_CONFIG", "status":"executed"})");
    write_text(std::string(ACTIVE_FOLDER) + "broken", "{");
    for (const char *record :
         {R"({"jobId":"FAILSAFE_CONFIG", "status":"success"})", R"({"jobId":"unknown", "status":"success"})",
          R"({"jobId":"broken", "status":"success"})", R"({"status":"success"})"})
        record_failsafe_result(json(record), true);

    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_EQ(file_text(std::string(ACTIVE_FOLDER) + "broken"), "{");
}

TEST_F(FailsafeEnd, NobodyToPublishThroughStopsNeither) {
    iot_client = nullptr;

    failsafe_success(job);
    failsafe_failure(job);

    EXPECT_THAT(published(), IsEmpty());
    EXPECT_EQ(calls().back(), "system /usr/bin/cmd_wifi apply");
}
