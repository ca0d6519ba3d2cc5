// The two reserved job ids that clear jobs, and the forced failure of one.
#include "tests/unit/reporting_test.h"

#include "agent/job_intake.h"
#include "jobs/job_store.h"

#include <filesystem>

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

namespace {

constexpr const char *FW_JOBID = "/var/volatile/orv/FW_JOBID";
constexpr const char *SELECTED = "/tmp/.jobfile_select";

} // namespace

class ClearJobs : public ReportingTest {
protected:
    void cloud_sends(const std::string &reserved_id, const std::string &payload = "") {
        EXPECT_EQ(job_apply(client, test_message("v1/device/job/" + reserved_id + "/apply", payload).get()),
                  0);
    }

    static void given_no_job_file(const std::string &name, const std::string &text) {
        write_text(ACTIVE_FOLDER + name, text);
    }

    const int now = static_cast<int>(time(nullptr));
};

class ClearActiveJobs : public ClearJobs {
protected:
    void cloud_clears(const std::string &payload = "") { cloud_sends("CLEAR_ACTIVE_JOBS", payload); }
};

TEST_F(ClearActiveJobs, FailsAndDeletesEveryJob) {
    given_active_job(R"({"jobId":"1", "status":"received", "ack":false, "ackId":10})");
    given_active_job(R"({"jobId":"2", "status":"executed", "ack":true, "ackId":20, "msg":"why"})");
    given_active_job(R"({"jobId":"3", "status":"success", "ack":true, "ackId":30})");

    cloud_clears();

    EXPECT_THAT(active_jobs(), IsEmpty());
    EXPECT_THAT(archived_jobs(), IsEmpty());
    EXPECT_THAT(published_topics(),
                UnorderedElementsAre("v1/device/job/1/ack", "v1/device/job/2/ack", "v1/device/job/3/ack"));
    for (const auto &report : published()) {
        EXPECT_EQ(report.json["params"]["status"], "failed");
        EXPECT_EQ(report.json["session"], now);
    }
    EXPECT_EQ(published_on("v1/device/job/2/ack")[0].json["params"]["msg"], "why");
    EXPECT_THAT(sleeps(), IsEmpty());
}

TEST_F(ClearActiveJobs, LogsEveryEntryAndEveryDeletedJob) {
    given_active_job(R"({"jobId":"1", "status":"received"})");

    cloud_clears();

    const auto lines = log_lines();
    ASSERT_EQ(lines.size(), 12U);
    EXPECT_EQ(lines[0], (log_line{LOG_DEBUG, "incoming job v1/device/job/CLEAR_ACTIVE_JOBS/apply"}));
    EXPECT_EQ(lines[1], (log_line{LOG_DEBUG, "job id: CLEAR_ACTIVE_JOBS"}));
    EXPECT_EQ(lines[2], (log_line{LOG_ALERT, "received command to clear active jobs"}));
    EXPECT_THAT(
        lines,
        AllOf(Contains(Debug("clear_active_jobs name: .")), Contains(Debug("clear_active_jobs name: ..")),
              Contains(Debug("clear_active_jobs name: 1")),
              Contains(Alert("deleted active job /var/data/orv/vantrel_iot/jobs/active/1, forced fail"))));
    EXPECT_EQ(lines.back(), (log_line{LOG_DEBUG, "clear_active_jobs exit"}));
}

TEST_F(ClearActiveJobs, DoesNotReadThePayload) {
    for (const char *payload : {"", "no JSON {", R"({"jobId":"9", "action":"FW"})", "[]"}) {
        given_active_job(R"({"jobId":"1", "status":"received"})");

        cloud_clears(payload);

        EXPECT_THAT(active_jobs(), IsEmpty()) << payload;
    }
}

TEST_F(ClearActiveJobs, FlushesOnceAtTheEnd) {
    given_active_job(R"({"jobId":"1", "status":"received"})");
    given_active_job(R"({"jobId":"2", "status":"received"})");

    cloud_clears();

    EXPECT_THAT(calls_of({"sync_to_fs"}), ListIs("sync_to_fs 2"));
    EXPECT_EQ(calls().back(), "sync_to_fs 2");
    const auto order = calls_of({"sync_to_fs", "syslog"});
    EXPECT_EQ(order[order.size() - 2], "sync_to_fs 2");
}

TEST_F(ClearActiveJobs, OfAnEmptyDirectoryStillFlushes) {
    cloud_clears();

    EXPECT_THAT(calls(), ListIs("sync_to_fs 2"));
    EXPECT_EQ(log_lines().back(), (log_line{LOG_DEBUG, "clear_active_jobs exit"}));
}

TEST_F(ClearActiveJobs, OfADirectoryThatCannotBeOpenedOnlyLogs) {
    std::filesystem::remove(ACTIVE_FOLDER);

    clear_active_jobs();

    EXPECT_THAT(log_lines(),
                ListIs(Alert("received command to clear active jobs"), Debug("clear_active_jobs exit")));
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(ClearActiveJobs, LeavesItsDirectoryStreamOpen) {
    const size_t before = names_in("/proc/self/fd").size();

    clear_active_jobs();

    EXPECT_EQ(names_in("/proc/self/fd").size(), before + 1);
}

TEST_F(ClearActiveJobs, LeavesWhatIsNoJob) {
    given_no_job_file("empty", "");
    given_no_job_file("torn", "{\"jobId\":\"torn\", \"sta");
    given_no_job_file("list", "[]");
    given_no_job_file("number", "5");
    given_no_job_file("null", "null");
    std::filesystem::create_directory(std::string(ACTIVE_FOLDER) + "folder");
    given_active_job(R"({"jobId":"1", "status":"received"})");
    given_active_job(R"({"jobId":"zz", "status":"received"})");

    cloud_clears();

    EXPECT_THAT(active_jobs(), ListIs("empty", "folder", "list", "null", "number", "torn"));
    EXPECT_THAT(published_topics(), UnorderedElementsAre("v1/device/job/1/ack", "v1/device/job/zz/ack"));
    EXPECT_EQ(calls().back(), "sync_to_fs 2");
}

TEST_F(ClearActiveJobs, OfFilesThatAreNoJobsKeepsTheFirmwareMarker) {
    given_no_job_file("torn", "{");
    write_text(FW_JOBID, "torn\n");

    cloud_clears();

    EXPECT_TRUE(exists(FW_JOBID));
    EXPECT_THAT(log_lines(), Not(Contains(Alert(HasSubstr("deleted active job")))));
}

TEST_F(ClearActiveJobs, ClearsAScriptJobWithParametersOfTheWrongType) {
    given_active_job(R"({"jobId":"1", "action":"CMD", "value":"SCRIPT", "params":"text"})");
    given_active_job(R"({"jobId":"2", "action":{}, "value":[]})");

    cloud_clears();

    EXPECT_THAT(active_jobs(), IsEmpty());
}

TEST_F(ClearActiveJobs, DeletesWithoutTheNetworkToo) {
    given_active_job(R"({"jobId":"1", "status":"received"})");
    fakes::device().ping_result = -1;

    cloud_clears();

    EXPECT_THAT(published(), IsEmpty());
    EXPECT_THAT(active_jobs(), IsEmpty());
}

TEST_F(ClearActiveJobs, DeletesWithoutAClientToo) {
    given_active_job(R"({"jobId":"1", "status":"received"})");
    iot_client = nullptr;

    cloud_clears();

    EXPECT_THAT(published(), IsEmpty());
    EXPECT_THAT(active_jobs(), IsEmpty());
}

TEST_F(ClearActiveJobs, TakesNoLockOfTheJobs) {
    given_active_job(R"({"jobId":"1", "status":"received"})");
    const std::scoped_lock held(job_manager_mutex, job_file_mutex);

    cloud_clears();

    EXPECT_THAT(active_jobs(), IsEmpty());
}

class ForceFailJob : public ClearJobs {
protected:
    static constexpr const char *RUNNING_SCRIPT =
        R"({"jobId":"1", "status":"executed", "action":"CMD", "value":"SCRIPT",
            "params":{"script":"sleep 100"}, "script_file":"/var/volatile/orv/1_x"})";
    const std::string path = std::string(ACTIVE_FOLDER) + "1";
};

TEST_F(ForceFailJob, StopsTheScriptThenReportsThenDeletes) {
    given_active_job(RUNNING_SCRIPT);
    write_text("/var/volatile/orv/1.pid", "4711\n");
    write_text("/var/volatile/orv/1_x", "sleep 100");
    write_text(FW_JOBID, "1\n");
    answer_command("/bin/kill", 0);

    force_fail_job(path);

    EXPECT_THAT(calls(),
                ListIs("orvsys /bin/kill -9 4711", "delete_file /var/volatile/orv/1.pid",
                       "delete_file /var/volatile/orv/1_x", HasSubstr("send_message v1/device/job/1/ack "),
                       "delete_file /var/data/orv/vantrel_iot/jobs/active/1",
                       "delete_file /var/volatile/orv/FW_JOBID"));
    EXPECT_FALSE(exists("/var/volatile/orv/1_x"));
    EXPECT_EQ(
        log_lines().back(),
        (log_line{LOG_ALERT, "deleted active job /var/data/orv/vantrel_iot/jobs/active/1, forced fail"}));
}

TEST_F(ForceFailJob, StopsNoScriptOfAnotherKindOfJob) {
    given_active_job(
        R"({"jobId":"1", "status":"executed", "action":"FW", "script_file":"/var/volatile/orv/1_x"})");
    write_text("/var/volatile/orv/1.pid", "4711\n");
    write_text("/var/volatile/orv/1_x", "");

    force_fail_job(path);

    EXPECT_THAT(commands(), IsEmpty());
    EXPECT_TRUE(exists("/var/volatile/orv/1.pid"));
    EXPECT_TRUE(exists("/var/volatile/orv/1_x"));
    EXPECT_THAT(active_jobs(), IsEmpty());
}

TEST_F(ForceFailJob, DeletesTheFirmwareMarkerOfAnotherJobToo) {
    given_active_job(R"({"jobId":"1", "status":"received"})");
    write_text(FW_JOBID, "another\n");

    force_fail_job(path);

    EXPECT_FALSE(exists(FW_JOBID));
}

TEST_F(ForceFailJob, ReportsOnceWithoutStoringOrArchiving) {
    given_active_job(R"({"jobId":"1", "status":"received", "ackId":5})");

    force_fail_job(path);

    ASSERT_EQ(published().size(), 1U);
    EXPECT_EQ(published()[0].json["session"], now);
    EXPECT_THAT(calls_of({"write_json_file", "sleep"}), IsEmpty());
    EXPECT_THAT(archived_jobs(), IsEmpty());
    EXPECT_THAT(log_lines(), Not(Contains(Notice(HasSubstr("update_job_status")))));
}

TEST_F(ForceFailJob, ReportsTheFailsafeConfigurationToo) {
    given_active_job(R"({"jobId":"FAILSAFE_CONFIG", "status":"executed", "action":"FAILSAFE_CONFIG"})");

    force_fail_job(active_job_path("FAILSAFE_CONFIG"));

    ASSERT_THAT(published_topics(), ListIs("v1/device/job/FAILSAFE_CONFIG/ack"));
    EXPECT_EQ(published()[0].json["params"]["status"], "failed");
}

TEST_F(ForceFailJob, WithoutAFileDoesNothing) {
    force_fail_job(path);

    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(log_lines(), IsEmpty());
}

class ClearRunningJob : public ClearJobs {
protected:
    void cloud_clears(const std::string &payload = "") { cloud_sends("CLEAR_RUNNING_JOB", payload); }
};

TEST_F(ClearRunningJob, FailsAndDeletesTheOldestAlone) {
    given_active_job(R"({"jobId":"newest", "status":"received"})", START_TIME + 30);
    given_active_job(R"({"jobId":"oldest", "status":"executed", "ackId":5})", START_TIME + 10);
    given_active_job(R"({"jobId":"middle", "status":"received"})", START_TIME + 20);

    cloud_clears();

    EXPECT_THAT(active_jobs(), ListIs("middle", "newest"));
    EXPECT_THAT(archived_jobs(), IsEmpty());
    ASSERT_THAT(published_topics(), ListIs("v1/device/job/oldest/ack"));
    EXPECT_EQ(published()[0].json["params"]["status"], "failed");
    EXPECT_EQ(published()[0].json["session"], now);
}

TEST_F(ClearRunningJob, LogsWhichItWas) {
    given_active_job(R"({"jobId":"job-1", "status":"received"})");
    fakes::device().cloud_host = "";

    cloud_clears();

    EXPECT_THAT(log_lines(),
                ListIs(Debug("incoming job v1/device/job/CLEAR_RUNNING_JOB/apply"),
                       Debug("job id: CLEAR_RUNNING_JOB"), Alert("received command to clear running job"),
                       Debug("active job is: /var/data/orv/vantrel_iot/jobs/active/job-1"),
                       Notice("No IOT URL!"),
                       Alert("deleted active job /var/data/orv/vantrel_iot/jobs/active/job-1, forced fail"),
                       Debug("clear_running_job exit")));
}

TEST_F(ClearRunningJob, DeletesTheScratchFileAsksTheShellAndFlushesAtTheEnd) {
    given_active_job(R"({"jobId":"job-1", "status":"received"})");
    fakes::device().cloud_host = "";

    cloud_clears();

    EXPECT_THAT(calls(),
                ListIs("delete_file /tmp/.jobfile_select",
                       "orvsys /bin/ls -ltd $(find /var/data/orv/vantrel_iot/jobs/active/ -type f) | tail "
                       "-1|awk -Factive/ '{print $2}' > /tmp/.jobfile_select",
                       "delete_file /var/data/orv/vantrel_iot/jobs/active/job-1",
                       "delete_file /var/volatile/orv/FW_JOBID", "sync_to_fs 2"));
    EXPECT_EQ(file_text(SELECTED), "job-1\n");
}

TEST_F(ClearRunningJob, OfAnEmptyDirectoryOnlyLogs) {
    clear_running_job();

    EXPECT_THAT(log_lines(),
                ListIs(Alert("received command to clear running job"), Debug("clear_running_job exit")));
    EXPECT_THAT(calls_of({"sync_to_fs"}), IsEmpty());
}

TEST_F(ClearRunningJob, LeavesAJobWhoseIdHasNoMoreThanTwoCharacters) {
    given_active_job(R"({"jobId":"77", "status":"received"})");

    clear_running_job();

    EXPECT_THAT(active_jobs(), ListIs("77"));
    EXPECT_THAT(log_lines(),
                ListIs(Alert("received command to clear running job"), Debug("clear_running_job exit")));
}

TEST_F(ClearRunningJob, TakesAJobWhoseIdHasThreeCharacters) {
    given_active_job(R"({"jobId":"777", "status":"received"})");

    clear_running_job();

    EXPECT_THAT(active_jobs(), IsEmpty());
}

TEST_F(ClearRunningJob, DoesNotTakeAnAnswerThatWasThereBefore) {
    given_active_job(R"({"jobId":"job-1", "status":"received"})");
    write_text(SELECTED, "job-1\n");
    answer_command("/bin/ls", 1);

    clear_running_job();

    EXPECT_THAT(active_jobs(), ListIs("job-1"));
    EXPECT_EQ(log_lines().back(), (log_line{LOG_DEBUG, "clear_running_job exit"}));
}

TEST_F(ClearRunningJob, LeavesAnOldestFileThatIsNoJobAndFlushes) {
    write_text(std::string(ACTIVE_FOLDER) + "torn", "{", START_TIME);
    given_active_job(R"({"jobId":"job-1", "status":"received"})", START_TIME + 1);

    clear_running_job();

    EXPECT_THAT(active_jobs(), ListIs("job-1", "torn"));
    EXPECT_THAT(published(), IsEmpty());
    EXPECT_EQ(calls().back(), "sync_to_fs 2");
    EXPECT_THAT(log_lines(), Contains(Debug("active job is: /var/data/orv/vantrel_iot/jobs/active/torn")));
}

TEST_F(ClearRunningJob, DoesNotReadThePayload) {
    for (const char *payload : {"", "no JSON {", R"({"jobId":"other", "action":"FW"})"}) {
        given_active_job(R"({"jobId":"job-1", "status":"received"})");

        cloud_clears(payload);

        EXPECT_THAT(active_jobs(), IsEmpty()) << payload;
    }
}

TEST_F(ClearRunningJob, TakesNoLockOfTheJobs) {
    given_active_job(R"({"jobId":"job-1", "status":"received"})");
    const std::scoped_lock held(job_manager_mutex, job_file_mutex);

    cloud_clears();

    EXPECT_THAT(active_jobs(), IsEmpty());
}
