// Job messages: stored, run at once, or dropped.
#include "tests/unit/reporting_test.h"

#include "agent/job_intake.h"

#include <stdexcept>

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Values;

class JobApply : public ReportingTest {
protected:
    void cloud_sends(const std::string &payload, const std::string &topic = "v1/device/job/77/apply") {
        EXPECT_EQ(job_apply(client, test_message(topic, payload).get()), 0);
    }

    void expect_nothing_done() {
        EXPECT_THAT(calls(), IsEmpty());
        EXPECT_THAT(active_jobs(), IsEmpty());
    }

    static constexpr const char *CRITICAL_JOB =
        R"({"jobId":"77", "action":"CMD", "value":"SCRIPT",
            "params":{"script":"# JOB PRIORITY CRITICAL\necho ran > /tmp/ran\n"}})";
    const int now = static_cast<int>(time(nullptr));
};

TEST_F(JobApply, StoresTheJobAsReceived) {
    cloud_sends(R"({"jobId":"77", "action":"FW", "params":{"fileUrl":"x"}, "other":[1]})");

    Json::Value expected = json(R"({"jobId":"77", "action":"FW", "params":{"fileUrl":"x"}, "other":[1],
                                    "status":"received", "ack":false, "ack_attempts":0})");
    expected["ackId"] = expected["timestamp"] = now;
    EXPECT_THAT(active_job("77"), IsJson(expected.toStyledString()));
    EXPECT_THAT(log_lines(), ListIs(Debug("incoming job v1/device/job/77/apply"), Debug("job id: 77"),
                                    Debug("check_cmd_job_priority_is_critical"), Debug("write job file: 77"),
                                    Alert("write new job file: 77")));
}

TEST_F(JobApply, PublishesNothingAndDoesNotPause) {
    cloud_sends(R"({"jobId":"77"})");

    EXPECT_THAT(calls(), ListIs("write_json_file /var/data/orv/vantrel_iot/jobs/active/77", "sync_to_fs 2"));
}

TEST_F(JobApply, OverwritesItsOwnMembers) {
    cloud_sends(R"({"jobId":"77", "status":"success", "ack":true, "ack_attempts":99, "ackId":1,
                    "timestamp":"long ago", "ackTs":5})");

    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"received", "ack":false, "ack_attempts":0})"));
    EXPECT_EQ(active_job("77")["ackId"], now);
    EXPECT_EQ(active_job("77")["timestamp"], now);
    EXPECT_EQ(active_job("77")["ackTs"], 5); // not one of them
}

TEST_F(JobApply, NamesTheFileByThePayloadAndLogsTheTopic) {
    cloud_sends(R"({"jobId":"78"})", "v1/device/job/77/apply");

    EXPECT_THAT(active_jobs(), ListIs("78"));
    EXPECT_THAT(log_lines(), Contains(Debug("job id: 77")));
    EXPECT_THAT(log_lines(), Contains(Alert("write new job file: 78")));
}

TEST_F(JobApply, TakesReservedIdsFromTheTopicAlone) {
    given_active_job(R"({"jobId":"1234", "status":"received"})");

    cloud_sends(R"({"jobId":"CLEAR_ACTIVE_JOBS"})");
    cloud_sends(R"({"jobId":"CLEAR_RUNNING_JOB"})");
    cloud_sends(R"({"jobId":"80"})", "v1/device/job/CLEAR_ACTIVE_JOBSX/apply");
    cloud_sends(R"({"jobId":"81"})", "v1/device/job/clear_active_jobs/apply");

    EXPECT_THAT(active_jobs(), ListIs("1234", "80", "81", "CLEAR_ACTIVE_JOBS", "CLEAR_RUNNING_JOB"));
}

class InvalidTopic : public JobApply, public testing::WithParamInterface<const char *> {};

TEST_P(InvalidTopic, IsLoggedAndStoresNothing) {
    cloud_sends(R"({"jobId":"77"})", GetParam());

    expect_nothing_done();
    EXPECT_THAT(log_lines(), ListIs(Debug(std::string("incoming job ") + GetParam()),
                                    Notice(std::string("invalid topic: ") + GetParam())));
}

INSTANTIATE_TEST_SUITE_P(Each, InvalidTopic,
                         Values("x/v1/device/job/77/apply", "v1/device/job//apply", "v1/device/job/",
                                "/apply/v1/device/job/77", "v2/device/job/77/apply"));

TEST_F(JobApply, NeedsNoMoreOfTheTopicThanTheId) {
    cloud_sends(R"({"jobId":"1"})", "v1/device/job/first/x/apply");
    cloud_sends(R"({"jobId":"2"})", "v1/device/job/second");

    EXPECT_THAT(active_jobs(), ListIs("1", "2"));
    EXPECT_THAT(log_lines(), Contains(Debug("job id: first")));
    EXPECT_THAT(log_lines(), Contains(Debug("job id: second")));
}

TEST_F(JobApply, CutsTheTopicsIdAt63Characters) {
    const std::string longest(63, 'x');
    cloud_sends(R"({"jobId":"1"})", "v1/device/job/" + longest + "/apply");
    cloud_sends(R"({"jobId":"2"})", "v1/device/job/" + longest + "y/apply");
    cloud_sends(R"({"jobId":"3"})", "v1/device/job/" + longest + std::string(10'000, 'y') + "/apply");

    EXPECT_THAT(active_jobs(), ListIs("1", "2", "3"));
    EXPECT_THAT(log_lines(), Contains(Debug("job id: " + longest)).Times(3));
}

TEST_F(JobApply, DoesNotCutTheIdOfThePayload) {
    const std::string long_id(200, 'x');
    cloud_sends("{\"jobId\":\"" + long_id + "\"}");

    EXPECT_THAT(active_jobs(), ListIs(long_id));
}

TEST_F(JobApply, DropsWhatIsNoJsonWithoutALog) {
    for (const char *payload : {"", "{", "nonsense", "{\"jobId\":\"77\"} x"}) {
        fakes::reset_log();
        cloud_sends(payload);

        EXPECT_THAT(log_lines(), ListIs(Debug("incoming job v1/device/job/77/apply"), Debug("job id: 77")))
            << payload;
    }
    expect_nothing_done();
}

class UnusableId : public JobApply, public testing::WithParamInterface<const char *> {};

TEST_P(UnusableId, DropsTheJobWithoutALog) {
    const std::string member = GetParam();
    cloud_sends("{" + member + "\"action\":\"FW\"}");

    expect_nothing_done();
    EXPECT_THAT(log_lines(), ListIs(Debug("incoming job v1/device/job/77/apply"), Debug("job id: 77"),
                                    Debug("check_cmd_job_priority_is_critical")));
}

TEST_P(UnusableId, KeepsACriticalJobFromRunning) {
    const std::string member = GetParam();
    cloud_sends("{" + member + R"("action":"CMD", "value":"SCRIPT",
                    "params":{"script":"# JOB PRIORITY CRITICAL\n"}})");

    expect_nothing_done();
    EXPECT_THAT(log_lines(), Not(Contains(Debug("executed critical command job"))));
}

TEST_P(UnusableId, IsRefusedByTheStoreToo) {
    const std::string member = GetParam();
    Json::Value job = json("{" + member + "\"action\":\"FW\"}");
    const Json::Value before = job;

    EXPECT_EQ(new_job_file(job), -1);

    EXPECT_EQ(job, before);
    expect_nothing_done();
    EXPECT_THAT(log_lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Each, UnusableId,
                         Values("", "\"jobId\":\"\",", "\"jobId\":null,", "\"jobId\":\".\",",
                                "\"jobId\":\"..\",", "\"jobId\":\"../77\",", "\"jobId\":\"a/b\",",
                                "\"jobId\":\"/77\",", "\"jobId\":\"77/\",", "\"jobId\":\"7..7\",",
                                "\"jobId\":\"..77\",", "\"jobId\":\"77..\",", "\"jobId\":\"7\\u00007\",",
                                "\"jobId\":\"7\xff\",", "\"jobId\":\"7\\udc00\","));

TEST_F(JobApply, TakesEveryOtherIdUnchanged) {
    for (const char *id : {"\".77\"", "\"7.7\"", "\"77.\"", "\"a b\"", "\"$(reboot)\"", "\"7\\\\7\"", "78",
                           "\"\xc3\xa4\"", "\"\xef\xbf\xbd\""})
        cloud_sends(std::string("{\"jobId\":") + id + "}");

    EXPECT_THAT(active_jobs(), testing::UnorderedElementsAre(".77", "7.7", "77.", "a b", "$(reboot)", "7\\7",
                                                             "78", "\xc3\xa4", "\xef\xbf\xbd"));
    EXPECT_EQ(active_job("78")["jobId"], 78);
}

TEST_F(JobApply, LeavesAJobThatIsActiveAlready) {
    given_active_job(R"({"jobId":"77", "status":"executed", "ack":true})");

    cloud_sends(R"({"jobId":"77", "action":"FW"})", "v1/device/job/another/apply");

    EXPECT_THAT(active_job("77"), IsJson(R"({"jobId":"77", "status":"executed", "ack":true})"));
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_EQ(log_lines().back(),
              (log_line{LOG_ALERT, "job another received from IOT already exists and is active"}));
}

TEST_F(JobApply, StoresAJobThatIsDeliveredTwiceOnce) {
    cloud_sends(R"({"jobId":"77", "action":"FW"})");
    advance(5);
    cloud_sends(R"({"jobId":"77", "action":"FW"})");

    EXPECT_EQ(active_job("77")["ackId"], now);
    EXPECT_EQ(calls_of({"write_json_file"}).size(), 1U);
    EXPECT_EQ(log_lines().back(),
              (log_line{LOG_ALERT, "job 77 received from IOT already exists and is active"}));
}

TEST_F(JobApply, TakesAnArchivedIdAsNew) {
    write_text(std::string(ARCHIVE_FOLDER) + "77", R"({"jobId":"77", "status":"success"})");

    cloud_sends(R"({"jobId":"77"})");

    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"received"})"));
}

TEST_F(JobApply, GoesOnWhenTheDiskIsFull) {
    fakes::always_returns("write_json_file", -1);

    cloud_sends(R"({"jobId":"77"})");

    EXPECT_THAT(active_jobs(), IsEmpty());
    EXPECT_THAT(log_lines(), Contains(Alert("write new job file: 77")));
}

TEST_F(JobApply, ThrowsOnWhatIsJsonButNoObjectOrHasNoTextForAnId) {
    for (const char *payload : {"[]", "[{\"jobId\":\"77\"}]", "5", "\"text\"", R"({"jobId":{}})"})
        EXPECT_THROW(job_apply(client, test_message("v1/device/job/77/apply", payload).get()),
                     Json::Exception)
            << payload;
    expect_nothing_done();

    cloud_sends("null");
    expect_nothing_done();
}

// --- Critical jobs.

TEST_F(JobApply, RunsACriticalJobAtOnceAndStoresNone) {
    cloud_sends(CRITICAL_JOB);

    EXPECT_EQ(file_text("/tmp/ran"), "ran\n");
    EXPECT_THAT(active_jobs(), IsEmpty());
    std::vector<std::string> statuses;
    for (const auto &report : published_on("v1/device/job/77/ack"))
        statuses.push_back(report.json["params"]["status"].asString());
    EXPECT_THAT(statuses, ListIs("received", "executed", "success"));
    EXPECT_EQ(log_lines().back(), (log_line{LOG_DEBUG, "executed critical command job"}));
    EXPECT_THAT(log_lines(), Contains(Debug("confirmed command job has priority CRITICAL")));
    EXPECT_THAT(log_lines(), Not(Contains(Alert("write new job file: 77"))));
}

TEST_F(JobApply, HandsACriticalJobOverWithoutItsOwnMembers) {
    cloud_sends(CRITICAL_JOB);

    const auto job = archived_job("77");
    ASSERT_TRUE(job.isObject());
    for (const char *member : {"ack", "ack_attempts", "ackId", "timestamp"})
        EXPECT_FALSE(job.isMember(member)) << member;
}

TEST_F(JobApply, RunsACriticalJobThatIsActiveAlready) {
    given_active_job(R"({"jobId":"77", "status":"executed"})");

    cloud_sends(CRITICAL_JOB);

    EXPECT_TRUE(exists("/tmp/ran"));
    EXPECT_THAT(log_lines(), Not(Contains(Alert(HasSubstr("already exists")))));
}

class NotCritical : public JobApply, public testing::WithParamInterface<const char *> {};

TEST_P(NotCritical, IsQueuedLikeAnyJob) {
    cloud_sends(GetParam());

    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"received"})"));
    EXPECT_THAT(published(), IsEmpty());
    EXPECT_THAT(log_lines(), Contains(Debug("check_cmd_job_priority_is_critical")));
    EXPECT_THAT(log_lines(), Not(Contains(Debug("confirmed command job has priority CRITICAL"))));
}

INSTANTIATE_TEST_SUITE_P(
    Each, NotCritical,
    Values(
        R"({"jobId":"77", "action":"CMD", "value":"SCRIPT", "params":{"script":"\n# JOB PRIORITY CRITICAL"}})",
        R"({"jobId":"77", "action":"CMD", "value":"SCRIPT", "params":{"script":" # JOB PRIORITY CRITICAL"}})",
        R"({"jobId":"77", "action":"CMD", "value":"SCRIPT", "params":{"script":"# JOB PRIORITY CRITICA"}})",
        R"({"jobId":"77", "action":"CMD", "value":"SCRIPT", "params":{"script":"# JOB PRIORITY critical"}})",
        R"({"jobId":"77", "action":"CMD", "value":"SCRIPT", "params":{"script":""}})",
        R"({"jobId":"77", "action":"CMD", "value":"SCRIPT", "params":{"script":["# JOB PRIORITY CRITICAL"]}})",
        R"({"jobId":"77", "action":"CMD", "value":"SCRIPT", "params":{"script":{}}})",
        R"({"jobId":"77", "action":"cmd", "value":"SCRIPT", "params":{"script":"# JOB PRIORITY CRITICAL"}})",
        R"({"jobId":"77", "action":"CMD", "value":"script", "params":{"script":"# JOB PRIORITY CRITICAL"}})",
        R"({"jobId":"77", "action":"CMD", "value":"SCRIPT", "params":"# JOB PRIORITY CRITICAL"})",
        R"({"jobId":"77", "action":{}, "value":[], "params":5})"));

TEST_F(JobApply, ComparesTheMarkersCharactersAlone) {
    Json::Value job = json(CRITICAL_JOB);
    for (const char *script :
         {"# JOB PRIORITY CRITICAL", "# JOB PRIORITY CRITICALLY", "# JOB PRIORITY CRITICAL\n"}) {
        job["params"]["script"] = script;
        EXPECT_TRUE(check_cmd_job_priority_is_critical(job)) << script;
    }
    EXPECT_THAT(log_lines(), Contains(Debug("confirmed command job has priority CRITICAL")).Times(3));
    EXPECT_THAT(log_lines(), Contains(Debug("check_cmd_job_priority_is_critical")).Times(3));
}

// --- The pieces.

TEST(IsScriptCmdJob, NeedsActionValueAndScript) {
    EXPECT_TRUE(is_script_cmd_job(
        json(R"({"action":"CMD", "value":"SCRIPT", "params":{"script":"echo", "reboot":true}})")));
    EXPECT_TRUE(is_script_cmd_job(json(R"({"action":"CMD", "value":"SCRIPT", "params":{"script":null}})")));

    for (const char *text :
         {R"({"value":"SCRIPT", "params":{"script":"echo"}})",
          R"({"action":"cmd", "value":"SCRIPT", "params":{"script":"echo"}})",
          R"({"action":"CMDS", "value":"SCRIPT", "params":{"script":"echo"}})",
          R"({"action":"CMD", "params":{"script":"echo"}})",
          R"({"action":"CMD", "value":"script", "params":{"script":"echo"}})",
          R"({"action":"CMD", "value":"FILEPUSH", "params":{"script":"echo"}})",
          R"({"action":"CMD", "value":"SCRIPT"})", R"({"action":"CMD", "value":"SCRIPT", "params":{}})",
          R"({"action":"CMD", "value":"SCRIPT", "params":null})",
          R"({"action":"CMD", "value":"SCRIPT", "params":["script"]})",
          R"({"action":["CMD"], "value":"SCRIPT", "params":{"script":"echo"}})",
          R"({"action":"CMD", "value":{}, "params":{"script":"echo"}})", "{}", "null", "[]", "5"})
        EXPECT_FALSE(is_script_cmd_job(json(text))) << text;
}

class NewJobFile : public AgentTest {};

TEST_F(NewJobFile, StampsTheRecordInHandAndStoresIt) {
    Json::Value job = json(R"({"jobId":"77", "jobName":"kept"})");

    EXPECT_EQ(new_job_file(job), -1); // in every case

    EXPECT_THAT(job, IsJson(R"({"jobId":"77", "jobName":"kept", "status":"received", "ack":false,
                                "ack_attempts":0, "ackId":1700000000, "timestamp":1700000000})"));
    EXPECT_EQ(active_job("77"), job);
    EXPECT_THAT(calls_of({"syslog", "write_json_file", "sync_to_fs"}),
                ListIs("syslog write job file: 77",
                       "write_json_file /var/data/orv/vantrel_iot/jobs/active/77", "sync_to_fs 2",
                       "syslog write new job file: 77"));
}

TEST_F(NewJobFile, ReplacesAJobOfThatId) {
    given_active_job(R"({"jobId":"FAILSAFE_CONFIG", "status":"executed", "msg":"old"})");
    Json::Value job = json(R"({"jobId":"FAILSAFE_CONFIG"})");

    new_job_file(job);

    EXPECT_THAT(active_job("FAILSAFE_CONFIG"), HasMembers(R"({"status":"received"})"));
    EXPECT_FALSE(active_job("FAILSAFE_CONFIG").isMember("msg"));
}

TEST_F(NewJobFile, PrintsTheTextOfAnException) {
    Json::Value no_object(Json::arrayValue);
    testing::internal::CaptureStderr();
    EXPECT_EQ(new_job_file(no_object), -1);
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");

    fakes::before_change = [](const fakes::call &) { throw std::runtime_error("no room"); };
    Json::Value job = json(R"({"jobId":"77"})");
    testing::internal::CaptureStderr();
    EXPECT_EQ(new_job_file(job), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "no room\n");

    EXPECT_THAT(log_lines(), ListIs(Debug("write job file: 77")));
}

TEST_F(NewJobFile, LogsAnyOtherException) {
    fakes::before_change = [](const fakes::call &) { throw 7; };
    Json::Value job = json(R"({"jobId":"77"})");

    EXPECT_EQ(new_job_file(job), -1);

    EXPECT_EQ(log_lines().back(), (log_line{LOG_DEBUG, "new_job_file: exception handler"}));
}
