// Critical script jobs, which run at once, on the thread of the intake.
#include "tests/unit/command_job_fixture.h"

#include "actions/command_job.h"
#include "jobs/markers.h"

#include <filesystem>

using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

class CriticalJob : public CommandJobTest {
protected:
    static constexpr const char *CRITICAL_MARKER = "/var/volatile/orv/CRITICAL_JOB_EXECUTING";

    int run(const std::string &script, const std::string &params = "{}") {
        job = json(R"({"jobId":"77", "action":"CMD", "value":"SCRIPT"})");
        job["params"] = json(params);
        job["params"]["script"] = script;
        return execute_critical_cmd_job(job);
    }
};

TEST_F(CriticalJob, ThatSucceedsIsReportedThreeTimesWithoutAPause) {
    EXPECT_EQ(run("true"), 0);

    EXPECT_EQ(job["status"], "success");
    EXPECT_THAT(reported(), ListIs("received", "executed", "success"));
    EXPECT_THAT(sleeps(), IsEmpty());
    EXPECT_FALSE(job.isMember("msg"));
    EXPECT_THAT(log_lines(), Not(Contains(Notice(StartsWith("update_job_status")))));
}

TEST_F(CriticalJob, ThatFailsReturnsTheStatusOfTheShell) {
    EXPECT_EQ(run("exit 5"), 5);

    EXPECT_THAT(reported(), ListIs("received", "executed", "failed"));
    EXPECT_THAT(log_lines(), Contains(Notice("execute command job script rc:5")));
    EXPECT_THAT(log_lines(), Contains(Debug("send critical cmd job failed")));
    EXPECT_FALSE(job.isMember("msg"));
}

TEST_F(CriticalJob, DoesOneThingAfterAnother) {
    answer_command("/bin/sh", 0);
    run("# MAX JOB TIME 5");

    const auto all = calls_of({"orvsys", "send_message", "write_json_file", "delete_file"});
    ASSERT_EQ(all.size(), 11U);
    EXPECT_EQ(all[0], "orvsys echo 1 > /var/volatile/orv/CRITICAL_JOB_EXECUTING");
    EXPECT_THAT(all[1], HasSubstr(R"("status":"received")"));
    EXPECT_EQ(all[2], "write_json_file /var/data/orv/vantrel_iot/jobs/active/77");
    EXPECT_EQ(all[3], std::string("delete_file ") + SCRIPT);
    EXPECT_EQ(all[4], std::string("orvsys /bin/sh ") + SCRIPT); // no time limit
    EXPECT_THAT(all[5], HasSubstr(R"("status":"executed")"));
    EXPECT_THAT(all[6], HasSubstr(R"("status":"success")"));
    EXPECT_EQ(all[7], "delete_file /var/volatile/orv/77"); // without the time
    EXPECT_EQ(all[8], "delete_file /var/data/orv/vantrel_iot/jobs/archive/77");
    EXPECT_EQ(all[9], "delete_file /var/volatile/orv/FW_JOBID");
    EXPECT_EQ(all[10], "delete_file /var/volatile/orv/CRITICAL_JOB_EXECUTING");
}

TEST_F(CriticalJob, LogsItsLife) {
    run("true");

    EXPECT_THAT(own_log_lines(), ListIs(Notice(std::string("cli script file: ") + SCRIPT),
                                        Notice("execute command job script rc:0"),
                                        Notice("archiving job: 77"), Debug("send critical cmd job success")));
}

TEST_F(CriticalJob, IsMarkedByFlagAndFileWhileItRuns) {
    std::vector<bool> set;
    fakes::before_change = [&](const fakes::call &) { set.push_back(is_critical_job_executing()); };
    run("cat /var/volatile/orv/CRITICAL_JOB_EXECUTING");
    fakes::before_change = nullptr;

    EXPECT_FALSE(set.back()); // the file goes last, after the flag
    set.pop_back();
    EXPECT_THAT(set, Each(true));
    EXPECT_EQ(file_text("/tmp/cli_output_77.txt"), "1\n");
    EXPECT_FALSE(is_critical_job_executing());
    EXPECT_FALSE(exists(CRITICAL_MARKER));
}

TEST_F(CriticalJob, HasAJobFileWhileItRunsAndIsArchivedAsItStoodThen) {
    run("cp /var/data/orv/vantrel_iot/jobs/active/77 /tmp/active");

    EXPECT_THAT(file_json("/tmp/active"), HasMembers(R"({"jobId":"77", "status":"received"})"));
    EXPECT_THAT(active_jobs(), IsEmpty());
    EXPECT_THAT(archived_job("77"), HasMembers(R"({"status":"received",
                               "script_file":"/var/volatile/orv/77_22:13:20_11-14-2023"})"));
}

TEST_F(CriticalJob, LeavesItsScriptAndItsPidFile) {
    write_text("/var/volatile/orv/77", "");
    run("true");

    EXPECT_THAT(names_in("/var/volatile/orv"), ListIs("77.pid", "77_22:13:20_11-14-2023"));
    EXPECT_THAT(commands(), Not(Contains(HasSubstr("kill"))));
}

TEST_F(CriticalJob, OfTheFailsafeConfigurationsNameIsReportedLikeAnyOther) {
    job = json(R"({"jobId":"FAILSAFE_CONFIG", "params":{"script":"true"}})");

    execute_critical_cmd_job(job);

    EXPECT_THAT(published_on("v1/device/job/FAILSAFE_CONFIG/ack"), SizeIs(3));
}

TEST_F(CriticalJob, ReplacesTheRecordOfAnActiveJobOfItsId) {
    given_active_job(R"({"jobId":"77", "status":"executed", "ack":true, "ackId":5})");

    run("cp /var/data/orv/vantrel_iot/jobs/active/77 /tmp/active");

    EXPECT_EQ(file_json("/tmp/active")["status"], "received");
    EXPECT_FALSE(file_json("/tmp/active").isMember("ackId"));
    EXPECT_THAT(active_jobs(), IsEmpty());
    EXPECT_EQ(archived_job("77")["status"], "received");
}

TEST_F(CriticalJob, SendsNoSession) {
    run("true");

    for (const auto &report : published())
        EXPECT_TRUE(report.json["session"].isNull()) << report.payload;
}

TEST_F(CriticalJob, IsNotFailedByAReboot) {
    run("true");
    EXPECT_FALSE(job.isMember("fail_on_reboot"));
}

TEST_F(CriticalJob, NeitherUploadsNorReboots) {
    answer_command("/sbin/reboot", 0);
    EXPECT_EQ(run("true", R"({"reboot":true, "postResults":true})"), 0);

    EXPECT_THAT(commands(), Not(Contains(HasSubstr("reboot"))));
    EXPECT_THAT(calls_of({"get_device_token"}), IsEmpty());
    EXPECT_EQ(job["status"], "success");
}

TEST_F(CriticalJob, WhoseScriptCannotBeWrittenEndsReceived) {
    std::filesystem::create_directory(SCRIPT);

    EXPECT_EQ(run("true"), -1);

    EXPECT_EQ(job["status"], "received");
    EXPECT_FALSE(job.isMember("msg"));
    EXPECT_THAT(reported(), ListIs("received"));
    EXPECT_THAT(active_jobs(), ListIs("77"));
    EXPECT_FALSE(is_critical_job_executing());
    EXPECT_FALSE(exists(CRITICAL_MARKER));
    EXPECT_THAT(own_log_lines(), ListIs(Notice(std::string("cli script file: ") + SCRIPT)));
}

TEST_F(CriticalJob, ThatThrowsIsNoLongerMarked) {
    job = json(R"({"jobId":"77", "params":{"script":{}}})");

    EXPECT_THROW(execute_critical_cmd_job(job), Json::Exception);

    EXPECT_FALSE(is_critical_job_executing());
    EXPECT_FALSE(exists(CRITICAL_MARKER));
}

TEST_F(CriticalJob, RunsUnreportedWhileTheCloudIsOutOfReach) {
    fakes::device().ping_result = -1;

    EXPECT_EQ(run("echo ran"), 0);

    EXPECT_THAT(published(), IsEmpty());
    EXPECT_EQ(file_text("/tmp/cli_output_77.txt"), "ran\n");
    EXPECT_TRUE(exists(std::string(ARCHIVE_FOLDER) + "77"));
}

TEST_F(CriticalJob, RunsUnreportedWithoutAClient) {
    iot_client = nullptr;

    EXPECT_EQ(run("echo ran"), 0);

    EXPECT_EQ(file_text("/tmp/cli_output_77.txt"), "ran\n");
    EXPECT_TRUE(exists(std::string(ARCHIVE_FOLDER) + "77"));
}
