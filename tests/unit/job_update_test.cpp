// The cloud's job updates: the end of a firmware or getConfig job, and "connected" for all.
#include "tests/unit/reporting_test.h"

#include "agent/acknowledgements.h"
#include "jobs/job_store.h"
#include "jobs/markers.h"

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Values;

class JobUpdate : public ReportingTest {
protected:
    ~JobUpdate() override {
        fakes::before_change = nullptr;
        set_fw_job_executing(0);
        set_radiofw_job_executing(0);
        set_config_job_executing(0);
    }

    void cloud_updates(const std::string &payload, const std::string &topic = "v1/device/job/77/update") {
        job_update(client, test_message(topic, payload).get());
    }

    void cloud_tells_all(const std::string &payload) { cloud_updates(payload, "v1/device/job/all/update"); }

    static void given_job(const std::string &members) {
        given_active_job(R"({"jobId":"77", "status":"executed", "ack":false, "ackId":1000, )" + members +
                         "}");
    }

    static void given_both_firmware_flags() {
        set_fw_job_executing(1);
        set_radiofw_job_executing(1);
        fakes::reset_calls();
    }

    static std::string reported_status() {
        const auto reports = published_on("v1/device/job/77/ack");
        return reports.size() == 1 ? reports[0].json["params"]["status"].asString() : "not reported once";
    }
};

TEST_F(JobUpdate, EndsAFirmwareJobAndItsFlag) {
    given_job(R"("action":"fw_put")");
    given_both_firmware_flags();

    cloud_updates(R"({"jobId":"77", "rc":0})");

    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"success", "ack":false})"));
    EXPECT_EQ(reported_status(), "success");
    EXPECT_FALSE(is_fw_job_executing());
    EXPECT_FALSE(exists("/var/volatile/orv/FW_JOB_EXECUTING"));
    EXPECT_TRUE(is_radiofw_job_executing());
    EXPECT_TRUE(exists("/var/volatile/orv/RADIOFW_JOB_EXECUTING"));
}

TEST_F(JobUpdate, LogsThenClearsTheFlagThenReports) {
    given_job(R"("action":"fw_put")");

    cloud_updates(R"({"jobId":"77", "rc":0})");

    EXPECT_EQ(log_lines().front(), (log_line{LOG_DEBUG, "set fw_put status 0"}));
    EXPECT_EQ(log_lines()[1], (log_line{LOG_NOTICE, "update_job_status: 77 success post_status: 1"}));
    EXPECT_THAT(calls(), ListIs("delete_file /var/volatile/orv/FW_JOB_EXECUTING",
                                "write_json_file /var/data/orv/vantrel_iot/jobs/active/77", "sync_to_fs 2",
                                HasSubstr("send_message "), "sleep 2"));
}

TEST_F(JobUpdate, OfAFailedFirmwareJobClearsTheFlagAndReportsTheUnchangedStatus) {
    given_job(R"("action":"fw_put")");
    given_both_firmware_flags();

    cloud_updates(R"({"jobId":"77", "rc":3})");

    EXPECT_FALSE(is_fw_job_executing());
    EXPECT_FALSE(exists("/var/volatile/orv/FW_JOB_EXECUTING"));
    EXPECT_EQ(reported_status(), "executed");
    EXPECT_EQ(published()[0].json["session"], 1000);
    EXPECT_THAT(calls_of({"write_json_file"}), IsEmpty());
    EXPECT_THAT(log_lines(), Contains(Debug("set fw_put status 3")));
}

TEST_F(JobUpdate, EndsAModemFirmwareJobAndItsOwnFlag) {
    given_job(R"("action":"fw_put", "radio":true)");
    given_both_firmware_flags();

    cloud_updates(R"({"jobId":"77", "rc":0})");

    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"success"})"));
    EXPECT_EQ(reported_status(), "success");
    EXPECT_FALSE(is_radiofw_job_executing());
    EXPECT_FALSE(exists("/var/volatile/orv/RADIOFW_JOB_EXECUTING"));
    EXPECT_TRUE(is_fw_job_executing());
    EXPECT_TRUE(exists("/var/volatile/orv/FW_JOB_EXECUTING"));
    EXPECT_THAT(log_lines(), Not(Contains(Debug(HasSubstr("set fw_put status")))));
}

TEST_F(JobUpdate, OfAFailedModemFirmwareJobClearsItsFlagAndReportsTheUnchangedStatus) {
    given_job(R"("action":"fw_put", "radio":true)");
    given_both_firmware_flags();

    cloud_updates(R"({"jobId":"77", "rc":-1})");

    EXPECT_FALSE(is_radiofw_job_executing());
    EXPECT_EQ(reported_status(), "executed");
    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"executed", "ackId":1000})"));
}

TEST_F(JobUpdate, TakesAFirmwareJobWhoseRadioIsNotTrueForSystemFirmware) {
    for (const char *radio : {"false", "null", "\"true\"", "[true]", "{}"}) {
        given_job(std::string(R"("action":"fw_put", "radio":)") + radio);
        given_both_firmware_flags();

        cloud_updates(R"({"jobId":"77", "rc":0})");

        EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"success"})")) << radio;
        EXPECT_FALSE(is_fw_job_executing()) << radio;
        EXPECT_TRUE(is_radiofw_job_executing()) << radio;
    }
}

TEST_F(JobUpdate, EndsAGetConfigJob) {
    given_job(R"("method":"getConfig", "action":"CFG")");
    given_both_firmware_flags();

    cloud_updates(R"({"jobId":"77", "rc":0})");

    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"success"})"));
    EXPECT_EQ(reported_status(), "success");
    EXPECT_TRUE(is_fw_job_executing());
    EXPECT_TRUE(is_radiofw_job_executing());
}

TEST_F(JobUpdate, OfAFailedGetConfigJobReportsTheUnchangedStatus) {
    given_job(R"("method":"getConfig")");

    cloud_updates(R"({"jobId":"77", "rc":1})");

    EXPECT_EQ(reported_status(), "executed");
    EXPECT_THAT(calls_of({"write_json_file"}), IsEmpty());
}

TEST_F(JobUpdate, LooksAtTheActionBeforeTheMethod) {
    given_job(R"("method":"getConfig", "action":"fw_put")");
    given_both_firmware_flags();

    cloud_updates(R"({"jobId":"77", "rc":0})");

    EXPECT_FALSE(is_fw_job_executing());
    EXPECT_EQ(reported_status(), "success");
}

class OtherJob : public JobUpdate, public testing::WithParamInterface<const char *> {};

TEST_P(OtherJob, IsLeftAlone) {
    given_job(GetParam());
    given_both_firmware_flags();

    cloud_updates(R"({"jobId":"77", "rc":0})");

    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_TRUE(is_fw_job_executing());
    EXPECT_TRUE(is_radiofw_job_executing());
}

INSTANTIATE_TEST_SUITE_P(Each, OtherJob,
                         Values(R"("action":"FW_PUT")", R"("action":"fw")", R"("action":"fw_puts")",
                                R"("action":"FW", "radio":true)", R"("method":"getconfig")",
                                R"("method":"getConfigs")", R"("action":"getConfig")", R"("method":"fw_put")",
                                R"("radio":true)"));

TEST_F(JobUpdate, ThatIsIncompleteOrForAMissingJobIsDroppedSilently) {
    given_job(R"("action":"fw_put")");
    given_both_firmware_flags();
    for (const char *payload : {"", "{", "null", R"({"rc":0})", R"({"jobId":"77"})",
                                R"({"jobId":"78", "rc":0})", R"({"jobId":"77", "connected":true})"})
        cloud_updates(payload);

    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_TRUE(is_fw_job_executing());
}

TEST_F(JobUpdate, ForAJobThatCannotBeReadIsDroppedSilently) {
    write_text(std::string(ACTIVE_FOLDER) + "77", "{");

    cloud_updates(R"({"jobId":"77", "rc":0})");

    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(JobUpdate, GoesByThePayloadsIdAndNotByTheTopics) {
    given_active_job(R"({"jobId":"78", "status":"executed", "method":"getConfig"})");

    cloud_updates(R"({"jobId":"78", "rc":0})", "v1/device/job/77/update");

    EXPECT_THAT(active_job("78"), HasMembers(R"({"status":"success"})"));
}

TEST_F(JobUpdate, DoesNotAskForASession) {
    given_active_job(R"({"jobId":"77", "status":"executed", "method":"getConfig"})");

    cloud_updates(R"({"jobId":"77", "rc":0, "session":5})");

    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"success"})"));
}

class WrongTypeInUpdate : public JobUpdate, public testing::WithParamInterface<const char *> {};

TEST_P(WrongTypeInUpdate, IsCaughtAndChangesNothing) {
    given_job(R"("action":"fw_put")");
    given_both_firmware_flags();

    cloud_updates(GetParam());

    EXPECT_THAT(log_lines(), ListIs(Debug("job_update: exception handler")));
    EXPECT_THAT(calls(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Each, WrongTypeInUpdate,
                         Values(R"({"jobId":"77", "rc":"0"})", R"({"jobId":"77", "rc":{}})",
                                R"({"jobId":{}, "rc":0})", "[]", "5", "\"text\""));

TEST_F(JobUpdate, CatchesWhateverIsThrown) {
    given_job(R"("action":"fw_put")");
    fakes::before_change = [](const fakes::call &) { throw 7; };

    cloud_updates(R"({"jobId":"77", "rc":0})");

    EXPECT_EQ(log_lines().back(), (log_line{LOG_DEBUG, "job_update: exception handler"}));
}

// --- For all.

TEST_F(JobUpdate, OfAConnectedCloudSendsPendingReportsAtOnce) {
    given_active_job(R"({"jobId":"1", "status":"success", "ack":false, "ackId":1000})", START_TIME);
    given_active_job(R"({"jobId":"2", "status":"received", "ack":false, "ackId":2000,
                         "action":"unknown"})",
                     START_TIME + 1);

    cloud_tells_all(R"({"connected":true})");

    EXPECT_TRUE(client.cloud_connected);
    EXPECT_THAT(log_lines(), Contains(Notice("processing job: 1")));
    EXPECT_THAT(published_on("v1/device/job/1/ack").size(), 1U);
    EXPECT_THAT(active_job("2"), HasMembers(R"({"status":"failed"})")); // its action was tried
}

TEST_F(JobUpdate, OfAConnectedCloudHandsThePassItsClient) {
    given_active_job(R"({"jobId":"1", "status":"success", "ack":true, "ackId":1000})");
    iot_client = nullptr;

    cloud_tells_all(R"({"connected":true})");

    EXPECT_THAT(archived_jobs(), ListIs("1"));
    EXPECT_THAT(published_topics(), ListIs("v1/device/cmd/checkin/apply"));
}

TEST_F(JobUpdate, OfAConnectedCloudRunsNoPassWhileAConfigurationIsApplied) {
    given_active_job(R"({"jobId":"1", "status":"success", "ack":false, "ackId":1000})");
    set_config_job_executing(1);

    cloud_tells_all(R"({"connected":true})");

    EXPECT_TRUE(client.cloud_connected);
    EXPECT_THAT(published(), IsEmpty());
    EXPECT_EQ(log_lines().back(), (log_line{LOG_ALERT, "Config apply job in progress"}));
}

TEST_F(JobUpdate, ForAllLeavesNoLockBehind) {
    given_active_job(R"({"jobId":"1", "status":"success", "ack":true, "ackId":1000})");

    cloud_tells_all(R"({"connected":true})");

    for (std::mutex *mutex : {&job_manager_mutex, &job_record_mutex, &job_file_mutex}) {
        EXPECT_TRUE(mutex->try_lock());
        mutex->unlock();
    }
}

class NotConnected : public JobUpdate, public testing::WithParamInterface<const char *> {};

TEST_P(NotConnected, ChangesNothingForAnyJob) {
    given_job(R"("action":"fw_put")");

    cloud_tells_all(GetParam());

    EXPECT_FALSE(client.cloud_connected);
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(log_lines(), Not(Contains(Notice(HasSubstr("processing job")))));
}

INSTANTIATE_TEST_SUITE_P(Each, NotConnected,
                         Values(R"({"connected":false})", R"({"connected":null})", "{}", "null", "", "{",
                                R"({"jobId":"77", "rc":0})", R"({"jobId":"77", "rc":0, "connected":false})",
                                R"({"connected":"true"})", R"({"Connected":true})"));

TEST_F(JobUpdate, ForAllDoesNotTakeBackAnEarlierConnection) {
    cloud_tells_all(R"({"connected":true})");
    cloud_tells_all(R"({"connected":false})");

    EXPECT_TRUE(client.cloud_connected);
}

TEST_F(JobUpdate, IsForAllWhereverTheTopicSaysSo) {
    cloud_updates(R"({"connected":true})", "v1/device/job/7/all/update");
    EXPECT_TRUE(client.cloud_connected);
}

TEST_F(JobUpdate, IsForOneJobWhoseIdOnlyResemblesAll) {
    for (const char *topic :
         {"v1/device/job/allx/update", "v1/device/job/xall/update", "v1/device/job/ALL/update"})
        cloud_updates(R"({"connected":true})", topic);

    EXPECT_FALSE(client.cloud_connected);
}
