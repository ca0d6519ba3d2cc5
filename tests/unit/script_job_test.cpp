// Script jobs, run by a real shell: what is reported and stored when, and what is left behind.
#include "tests/unit/command_job_fixture.h"

#include "actions/command_job.h"

#include <cerrno>
#include <filesystem>
#include <system_error>

#include <sys/mount.h>
#include <unistd.h>

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class ScriptJob : public CommandJobTest {
protected:
    static Json::Value script_job(const std::string &script, const std::string &params = "{}") {
        Json::Value job = json(R"({"jobId":"77", "action":"CMD", "value":"SCRIPT"})");
        job["params"] = json(params);
        job["params"]["script"] = script;
        return job;
    }

    void run(const std::string &script, const std::string &params = "{}") {
        job = script_job(script, params);
        execute_action_cli_script(job);
    }

    // The shell that runs the script ends with this status at once.
    static void given_script_ends_with(int status) { answer_command("/bin/sh", status); }

    static std::string output() { return file_text("/tmp/cli_output_77.txt"); }
};

TEST_F(ScriptJob, ThatSucceedsIsReportedExecutedThenSuccess) {
    run("echo hello");

    EXPECT_EQ(job["status"], "success");
    EXPECT_FALSE(job.isMember("msg"));
    EXPECT_THAT(reported(), ListIs("executed", "success"));
    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"success", "ack":false, "fail_on_reboot":true,
                                    "script_file":"/var/volatile/orv/77_22:13:22_11-14-2023"})"));
    EXPECT_EQ(output(), "hello\n");
}

TEST_F(ScriptJob, LogsItsLife) {
    given_script_ends_with(0);
    run("true");

    EXPECT_THAT(own_log_lines(),
                ListIs(Notice("cli script file: /var/volatile/orv/77_22:13:22_11-14-2023"),
                       Debug("max cmd job execution time is 600 secs"),
                       Alert("CMD:execute cmd job script jobId: 77"),
                       Notice("execute command job script rc:0"), Debug("clear job cli script"),
                       Debug("execute_action_cli_script update_job_status success")));
}

TEST_F(ScriptJob, ThatFailsIsReportedExecutedThenFailed) {
    run("echo before; exit 3");

    EXPECT_EQ(job["status"], "failed");
    EXPECT_FALSE(job.isMember("msg"));
    EXPECT_THAT(reported(), ListIs("executed", "failed"));
    EXPECT_THAT(log_lines(), Contains(Notice("execute command job script rc:3")));
    EXPECT_THAT(log_lines().back(), Debug("execute_action_cli_script update_job_status failed"));
    EXPECT_EQ(output(), "before\n");
}

TEST_F(ScriptJob, IsStoppedAtItsFirstFailingCommand) {
    run("echo one\nfalse\necho two");

    EXPECT_EQ(job["status"], "failed");
    EXPECT_EQ(output(), "one\n");
}

TEST_F(ScriptJob, WhoseLastCommandFailsUnguardedFails) {
    run("echo one\nfalse");
    EXPECT_EQ(job["status"], "failed");
}

TEST_F(ScriptJob, MayGuardAFailingCommand) {
    run("false || echo guarded\nif false; then :; fi");
    EXPECT_EQ(job["status"], "success");
    EXPECT_EQ(output(), "guarded\n");
}

TEST_F(ScriptJob, HasItsErrorsInItsOutputAsWell) {
    run("echo out\necho error >&2");
    EXPECT_EQ(output(), "out\nerror\n");
}

TEST_F(ScriptJob, KnowsItsIdAndItsPathAndRecordsItsShell) {
    run("echo $ACK_ID\necho $PATH\nread pid < /var/volatile/orv/77.pid\ntest $pid = $$");

    EXPECT_EQ(job["status"], "success");
    EXPECT_EQ(output(), "77\n/usr/local/bin:/usr/bin:/bin:/var/data/python/usr/bin:/usr/local/sbin:/usr/sbin:"
                        "/sbin\n");
}

TEST_F(ScriptJob, LeavesItsOutputAndNothingElseBehind) {
    run("echo hello");

    EXPECT_THAT(names_in("/var/volatile/orv"), IsEmpty());
    EXPECT_THAT(commands().back(), StartsWith("/bin/kill -9 "));
    EXPECT_TRUE(exists("/tmp/cli_output_77.txt"));
}

TEST_F(ScriptJob, ThatFailsIsCleanedUpToo) {
    run("false");
    EXPECT_THAT(names_in("/var/volatile/orv"), IsEmpty());
}

TEST_F(ScriptJob, IsStoredExecutedAndFailedByARebootBeforeItStarts) {
    Json::Value stored;
    std::vector<std::string> reported_before;
    answer_command("/bin/sh", [&](const std::string &) {
        stored = active_job("77");
        reported_before = reported();
        return 0;
    });
    run("true");

    EXPECT_THAT(stored, HasMembers(R"({"status":"executed", "fail_on_reboot":true,
                                       "script_file":"/var/volatile/orv/77_22:13:22_11-14-2023"})"));
    EXPECT_THAT(reported_before, ListIs("executed"));
}

TEST_F(ScriptJob, IsFailedByARebootFromItsFirstReportOn) {
    std::vector<Json::Value> stored_at_reports;
    fakes::before_change = [&](const fakes::call &next) {
        if (next.function == "send_message")
            stored_at_reports.push_back(active_job("77"));
    };
    run("true");

    ASSERT_FALSE(stored_at_reports.empty());
    EXPECT_THAT(stored_at_reports.front(), HasMembers(R"({"status":"executed", "fail_on_reboot":true})"));
}

TEST_F(ScriptJob, RunsUnderTheTimeLimit) {
    given_script_ends_with(0);
    run("true");
    EXPECT_THAT(commands(), ListIs("timeout 600 /bin/sh /var/volatile/orv/77_22:13:22_11-14-2023"));
}

TEST_F(ScriptJob, FailsWhenItTimesOut) {
    given_script_ends_with(124);
    run("true");

    EXPECT_EQ(job["status"], "failed");
    EXPECT_FALSE(job.isMember("msg"));
    EXPECT_THAT(log_lines(), Contains(Notice("execute command job script rc:124")));
}

TEST_F(ScriptJob, FailsOnAnyStatusButZero) {
    for (const int status : {-1, 1, 127, 137, 255}) {
        given_script_ends_with(status);
        run("true");
        EXPECT_EQ(job["status"], "failed") << status;
    }
}

TEST_F(ScriptJob, IsReportedBeforeItIsCleanedUp) {
    answer_command("/bin/sh", [](const std::string &) {
        write_text("/var/volatile/orv/77.pid", "4711\n");
        return 0;
    });
    run("true");

    const auto order = calls_of({"send_message", "orvsys", "delete_file"});
    ASSERT_EQ(order.size(), 7U);
    EXPECT_THAT(order[0], HasSubstr(R"("status":"executed")"));
    EXPECT_EQ(order[1], "delete_file /var/volatile/orv/77_22:13:22_11-14-2023");
    EXPECT_EQ(order[2], "orvsys timeout 600 /bin/sh /var/volatile/orv/77_22:13:22_11-14-2023");
    EXPECT_THAT(order[3], HasSubstr(R"("status":"success")"));
    EXPECT_EQ(order[4], "orvsys /bin/kill -9 4711");
    EXPECT_EQ(order[5], "delete_file /var/volatile/orv/77.pid");
    EXPECT_EQ(order[6], "delete_file /var/volatile/orv/77_22:13:22_11-14-2023");
}

// --- ids

TEST_F(ScriptJob, WithABlankInItsIdFailsWithoutRunning) {
    job = script_job("echo ran > /tmp/ran");
    job["jobId"] = "7 7";

    execute_action_cmd(job);

    const auto reports = published_on("v1/device/job/7 7/ack");
    ASSERT_EQ(reports.size(), 2U);
    EXPECT_EQ(reports[0].json["params"]["status"], "executed");
    EXPECT_EQ(reports[1].json["params"]["status"], "failed");
    EXPECT_FALSE(reports[1].json["params"].isMember("msg"));
    EXPECT_FALSE(exists("/tmp/ran"));
    EXPECT_FALSE(exists("/tmp/cli_output_7"));
    EXPECT_FALSE(exists("/tmp/cli_output_7 7.txt"));
}

TEST_F(ScriptJob, RunsUnderAnIdOf200Characters) {
    const std::string id(200, 'x');
    job = script_job("echo $ACK_ID");
    job["jobId"] = id;

    execute_action_cmd(job);

    EXPECT_EQ(job["status"], "success");
    EXPECT_EQ(file_text("/tmp/cli_output_" + id + ".txt"), id + "\n");
    EXPECT_THAT(active_job(id), HasMembers(R"({"status":"success"})"));
}

// --- refused

TEST_F(ScriptJob, WithoutAnIdFailsWithoutAMsg) {
    job = json(R"({"params":{"script":"true"}, "msg":"as it was"})");
    execute_action_cli_script(job);

    EXPECT_THAT(job, IsJson(R"({"params":{"script":"true"}, "msg":"as it was", "status":"failed"})"));
    EXPECT_THAT(log_lines(), ListIs(Notice("job object must contain jobid and status"),
                                    Debug("execute_action_cli_script update_job_status failed")));
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(ScriptJob, WithoutAScriptFails) {
    for (const char *text : {R"({"jobId":"77"})", R"({"jobId":"77", "params":{}})",
                             R"({"jobId":"77", "params":null})", R"({"jobId":"77", "script":"true"})"}) {
        begin_again();
        job = json(text);
        execute_action_cli_script(job);

        EXPECT_THAT(job, HasMembers(R"({"status":"failed", "msg":"params.script property required"})"))
            << text;
        EXPECT_FALSE(job.isMember("fail_on_reboot"));
        EXPECT_THAT(reported(), ListIs("failed"));
        EXPECT_THAT(commands(), IsEmpty());
        EXPECT_THAT(own_log_lines(), ListIs(Debug("execute_action_cli_script update_job_status failed")));
    }
}

TEST_F(ScriptJob, WhoseFileCannotBeWrittenStaysExecutedUnreported) {
    std::filesystem::create_directory("/var/volatile/orv/77_22:13:22_11-14-2023");
    run("true");

    EXPECT_EQ(job["status"], "executed");
    EXPECT_FALSE(job.isMember("msg"));
    EXPECT_THAT(reported(), ListIs("executed"));
    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"executed", "fail_on_reboot":true})"));
    EXPECT_THAT(commands(), IsEmpty());
    EXPECT_THAT(own_log_lines(), ListIs(Notice("cli script file: /var/volatile/orv/77_22:13:22_11-14-2023"),
                                        Debug("execute_action_cli_script update_job_status executed")));
}

// The folder of the scripts as a file system of one page.
class ScriptJobWithoutMemory : public ScriptJob {
protected:
    ScriptJobWithoutMemory() {
        if (mount("tmpfs", FOLDER, "tmpfs", 0, "size=1") != 0) // rounded up
            throw std::system_error(errno, std::generic_category(), FOLDER);
    }
    ~ScriptJobWithoutMemory() override { umount(FOLDER); }

    static constexpr const char *FOLDER = "/var/volatile/orv";
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
};

TEST_F(ScriptJobWithoutMemory, SucceedsWithoutRunning) {
    write_text(std::string(FOLDER) + "/filler", std::string(page, 'x'));

    run("echo ran > /tmp/ran");

    EXPECT_THAT(reported(), ListIs("executed", "success"));
    EXPECT_FALSE(exists("/tmp/ran"));
}

TEST_F(ScriptJobWithoutMemory, FailsBeforeItsFirstCommandWhenAPartWasWritten) {
    run("echo ran > /tmp/ran\n" + std::string(2 * page, '#'));

    EXPECT_THAT(reported(), ListIs("executed", "failed"));
    EXPECT_FALSE(exists("/tmp/ran"));
}

// --- inside the command job

TEST_F(ScriptJob, IsSelectedInUpperAndInLowerCase) {
    for (const char *value : {"SCRIPT", "script"}) {
        begin_again();
        job = script_job("true");
        job["value"] = value;
        execute_action_cmd(job);
        EXPECT_THAT(reported(), ListIs("executed", "success")) << value;
    }
}

TEST_F(ScriptJob, ReportsByItselfAndIsMarkedWhileItRuns) {
    job = script_job("cp /var/volatile/orv/FW_JOBID /tmp/marked");
    execute_action_cmd(job);

    EXPECT_EQ(file_text("/tmp/marked"), "77\n");
    EXPECT_FALSE(exists(MARKER));
    EXPECT_EQ(calls().back(), "delete_file /var/volatile/orv/FW_JOBID");
    EXPECT_THAT(log_lines().back(), Debug("execute_action_cli_script update_job_status success"));
    EXPECT_THAT(log_lines(), Not(Contains(Debug("execute_action_cmd update_job_status success"))));
}

TEST_F(ScriptJob, WhoseFileCannotBeWrittenIsUnmarked) {
    std::filesystem::create_directory("/var/volatile/orv/77_22:13:22_11-14-2023");
    job = script_job("true");
    execute_action_cmd(job);

    EXPECT_FALSE(exists(MARKER));
}

TEST_F(ScriptJob, ThatIsNoTextFailsAsACommandJobThatThrows) {
    job = script_job("");
    job["params"]["script"] = Json::Value(Json::objectValue);
    execute_action_cmd(job);

    EXPECT_THAT(reported(), ListIs("executed", "failed"));
    EXPECT_THAT(log_lines().back(), Debug("execute cmd: exception handler"));
    EXPECT_THAT(calls(), Not(Contains(StartsWith("orvsys timeout"))));
    EXPECT_FALSE(exists(MARKER));
}

// --- reboot

TEST_F(ScriptJob, ThatAsksForARebootStoresItsSuccessWaitsAndReboots) {
    std::string stored_at_the_reboot;
    answer_command("/sbin/reboot", [&](const std::string &) {
        stored_at_the_reboot = active_job("77")["status"].asString();
        throw fake_reboot{"reboot"};
        return 0;
    });

    EXPECT_THROW(run("true", R"({"reboot":true})"), fake_reboot);

    EXPECT_EQ(stored_at_the_reboot, "success");
    EXPECT_THAT(reported(), ListIs("executed"));
    const auto all = calls();
    const std::vector<std::string> last(all.end() - 4, all.end());
    EXPECT_THAT(last, ListIs("write_json_file /var/data/orv/vantrel_iot/jobs/active/77", "sync_to_fs 2",
                             "sleep 8", "system /sbin/reboot -f"));
    EXPECT_THAT(own_log_lines().back(), Info("reboot requested - delaying for 8 seconds"));
}

TEST_F(ScriptJob, ThatAsksForARebootStoresItsSuccessUnderASessionOfItsOwn) {
    answer_command("timeout ", [](const std::string &) {
        advance(60);
        return 0;
    });
    answer_command("/sbin/reboot", [](const std::string &) {
        throw fake_reboot{"reboot"};
        return 0;
    });

    EXPECT_THROW(run("true", R"({"reboot":true})"), fake_reboot);

    ASSERT_EQ(published().size(), 1U);
    const int executed = published()[0].json["session"].asInt();
    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"success", "ack":false})"));
    EXPECT_EQ(active_job("77")["ackId"], executed + 2 + 60); // the pause after the report, the script
    EXPECT_EQ(active_job("77")["ackTs"], executed + 2 + 60);
}

TEST_F(ScriptJob, IsCleanedUpWhenTheRebootFails) {
    answer_command("/sbin/reboot", 1);
    run("true", R"({"reboot":true})");

    EXPECT_EQ(job["status"], "success");
    EXPECT_THAT(log_lines(), Contains(Notice("update_job_status: 77 success post_status: 1")));
    EXPECT_THAT(names_in("/var/volatile/orv"), IsEmpty());
}

TEST_F(ScriptJob, RebootsOnAnythingThatReadsTrue) {
    for (const char *params : {R"({"reboot":true})", R"({"reboot":1})", R"({"reboot":-0.5})"}) {
        begin_again();
        answer_command("/sbin/reboot", 0);
        run("true", params);
        EXPECT_THAT(commands(), Contains("/sbin/reboot -f")) << params;
    }
}

TEST_F(ScriptJob, DoesNotRebootOnAnythingThatReadsFalse) {
    answer_command("/sbin/reboot", 0);
    for (const char *params : {"{}", R"({"reboot":false})", R"({"reboot":0})", R"({"reboot":null})"}) {
        run("true", params);
        EXPECT_THAT(commands(), Not(Contains("/sbin/reboot -f"))) << params;
        EXPECT_THAT(sleeps(), Not(Contains(8U)));
    }
}

TEST_F(ScriptJob, ThatFailsDoesNotReboot) {
    answer_command("/sbin/reboot", 0);
    run("false", R"({"reboot":true})");
    EXPECT_THAT(commands(), Not(Contains("/sbin/reboot -f")));
}

TEST_F(ScriptJob, WithAWishForARebootThatIsNoBoolFails) {
    job = script_job("true", R"({"reboot":"yes"})");
    execute_action_cmd(job);

    EXPECT_THAT(reported(), ListIs("executed", "failed"));
    EXPECT_THAT(log_lines().back(), Debug("execute cmd: exception handler"));
}

// --- the time limit

struct limit {
    std::string script;
    int seconds;
};

static void PrintTo(const limit &row, std::ostream *out) {
    *out << testing::PrintToString(row.script); // on one line
}

class TimeLimit : public ScriptJob, public testing::WithParamInterface<limit> {};

TEST_P(TimeLimit, IsTheOneOfTheMarkerOr600) {
    given_script_ends_with(0);
    run(GetParam().script);

    const std::string seconds = std::to_string(GetParam().seconds);
    EXPECT_THAT(commands(), Contains(StartsWith("timeout " + seconds + " /bin/sh ")));
    EXPECT_THAT(log_lines(), Contains(Debug("max cmd job execution time is " + seconds + " secs")));
}

INSTANTIATE_TEST_SUITE_P(
    Marker, TimeLimit,
    testing::Values(limit{"", 600}, limit{"true", 600}, limit{"# MAX JOB TIME 300\ntrue", 300},
                    limit{"# MAX JOB TIME=300", 300}, limit{"# MAX JOB TIME:300", 300},
                    limit{"# MAX JOB TIME   300", 300}, limit{"# MAX JOB TIME=  300", 300},
                    limit{"#!/bin/sh\n# MAX JOB TIME 20 seconds", 20}, limit{"echo # MAX JOB TIME 20", 20},
                    limit{"# MAX JOB TIME", 600}, limit{"# MAX JOB TIME ", 600},
                    limit{"# MAX JOB TIME x", 600}, limit{"# MAX JOB TIME == 300", 600},
                    limit{"# max job time 300", 600}, limit{"#MAX JOB TIME 300", 600}));

INSTANTIATE_TEST_SUITE_P(Range, TimeLimit,
                         testing::Values(limit{"# MAX JOB TIME 1", 1}, limit{"# MAX JOB TIME 0", 600},
                                         limit{"# MAX JOB TIME -5", 600}, limit{"# MAX JOB TIME +5", 5},
                                         limit{"# MAX JOB TIME 14400", 14400},
                                         limit{"# MAX JOB TIME 14401", 600},
                                         limit{"# MAX JOB TIME 99999999999999999999", 600},
                                         limit{"# MAX JOB TIME 300.9", 300}, limit{"# MAX JOB TIME 007", 7},
                                         limit{"# MAX JOB TIME 0x10", 600},
                                         limit{"# MAX JOB TIME300", 600}, // one character past the marker: 00
                                         limit{"# MAX JOB TIME3005", 5})); // likewise: 005

INSTANTIATE_TEST_SUITE_P(OnlyTheFirstMarkerCounts, TimeLimit,
                         testing::Values(limit{"# MAX JOB TIME 0\n# MAX JOB TIME 300", 600},
                                         limit{"# MAX JOB TIME 20\n# MAX JOB TIME 300", 20}));

// The marker is 14 characters long; its number stands at its 16th.
INSTANTIATE_TEST_SUITE_P(Within255Characters, TimeLimit,
                         testing::Values(limit{std::string(236, ' ') + "# MAX JOB TIME 300", 300},
                                         limit{std::string(237, ' ') + "# MAX JOB TIME 300", 300},
                                         limit{std::string(238, ' ') + "# MAX JOB TIME 300", 30},
                                         limit{std::string(239, ' ') + "# MAX JOB TIME 300", 3},
                                         limit{std::string(240, ' ') + "# MAX JOB TIME 300", 600},
                                         limit{std::string(241, ' ') + "# MAX JOB TIME 300", 600},
                                         limit{std::string(254, ' ') + "# MAX JOB TIME 300", 600},
                                         limit{std::string(255, ' ') + "# MAX JOB TIME 300", 600},
                                         limit{std::string(300, ' ') + "# MAX JOB TIME 300", 600}));

TEST_F(ScriptJob, DoesNotInheritTheLimitOfTheOneBefore) {
    given_script_ends_with(0);
    run("# MAX JOB TIME 5");
    run("true");

    EXPECT_THAT(commands(), ListIs(StartsWith("timeout 5 /bin/sh "), StartsWith("timeout 600 /bin/sh ")));
}
