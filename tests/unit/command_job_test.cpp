// Jobs with action "CMD": what is refused, what is handed to another service, the marker of the job in
// progress.
#include "tests/unit/command_job_fixture.h"

#include "actions/command_job.h"
#include "actions/requests/device_requests.h"

using testing::Contains;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

class CommandJob : public CommandJobTest {
protected:
    void execute(const std::string &job_text) {
        job = json(job_text);
        execute_action_cmd(job);
    }

    void expect_failed_with(const char *msg) {
        EXPECT_EQ(job["status"], "failed");
        EXPECT_EQ(job["msg"], msg);
        EXPECT_THAT(reported(), ListIs("failed"));
        EXPECT_EQ(published_on("v1/device/job/77/ack").back().json["params"]["msg"], msg);
        EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"failed", "ack":false})"));
        EXPECT_FALSE(exists(MARKER));
        EXPECT_THAT(own_log_lines(),
                    ListIs(Debug("execute cmd jobId:77"),
                           Debug("set_jobid_flag /bin/echo '77' > /var/volatile/orv/FW_JOBID"),
                           Debug("execute_action_cmd update_job_status failed")));
    }
};

TEST_F(CommandJob, OfAnotherActionIsRefused) {
    for (const char *action : {R"("cmd")", R"("FW")", R"("CMD ")", R"("")", "5"}) {
        begin_again();
        execute(std::string(R"({"jobId":"77", "action":)") + action + R"(, "value":"SCRIPT", "params":{}})");
        expect_failed_with("not a valid command job");
    }
}

TEST_F(CommandJob, WithoutActionIsRefusedBeforeAnythingElseIsMissed) {
    execute(R"({"jobId":"77"})");
    expect_failed_with("not a valid command job");
}

TEST_F(CommandJob, WithoutValueIsRefusedBeforeItsParamsAreMissed) {
    execute(R"({"jobId":"77", "action":"CMD"})");
    expect_failed_with("job requires 'value' property");
}

TEST_F(CommandJob, WithoutParamsIsRefusedBeforeItsValueIsLookedAt) {
    execute(R"({"jobId":"77", "action":"CMD", "value":"unknown"})");
    expect_failed_with("job requires 'params' property");
}

TEST_F(CommandJob, OfAnUnknownTypeIsRefused) {
    for (const char *value :
         {"Script", "sCRIPT", "SCRIPT ", "Filepush", "FilePull", "filepushed", "", "FW"}) {
        begin_again();
        execute(std::string(R"({"jobId":"77", "action":"CMD", "params":{"script":"true"}, "value":")") +
                value + "\"}");
        expect_failed_with("command not supported");
        EXPECT_THAT(published(), SizeIs(1)) << value;
    }
}

TEST_F(CommandJob, IsMarkedAsTheOneInProgressUntilItIsReported) {
    std::string marked;
    fakes::mqtt().after_publish = [&](const auto &) { marked = file_text(MARKER); };

    execute(R"({"jobId":"77", "action":"CMD"})");

    EXPECT_EQ(marked, "77\n");
    EXPECT_FALSE(exists(MARKER));
    EXPECT_EQ(calls().front(), "delete_file /var/volatile/orv/FW_JOBID");
    EXPECT_EQ(calls().back(), "delete_file /var/volatile/orv/FW_JOBID");
}

TEST_F(CommandJob, WithoutAnIdIsFailedAndReportedNowhere) {
    execute(R"({"action":"CMD", "value":"FILEPUSH"})");

    EXPECT_THAT(job, IsJson(R"({"action":"CMD", "value":"FILEPUSH", "status":"failed",
                                "msg":"job requires 'params' property"})"));
    EXPECT_THAT(published(), IsEmpty());
    EXPECT_THAT(active_jobs(), IsEmpty());
    EXPECT_THAT(commands(), ListIs("/bin/echo '' > /var/volatile/orv/FW_JOBID"));
    EXPECT_FALSE(exists(MARKER));
}

// --- file push and pull

struct transfer {
    const char *value;
    std::string direction;
};

static void PrintTo(const transfer &row, std::ostream *out) {
    *out << row.value;
}

class FileTransfer : public CommandJob, public testing::WithParamInterface<transfer> {
protected:
    FileTransfer() {
        given_active_job(R"({"jobId":"77", "status":"received", "ack":true, "ackId":1699999990})");
    }

    void request(const std::string &params) {
        execute(std::string(R"({"jobId":"77", "action":"CMD", "status":"received", "ack":true,
                                "ackId":1699999990, "value":")") +
                GetParam().value + R"(", "params":)" + params + "}");
    }

    const std::string topic = "v1/device/cmd/" + GetParam().direction + "/apply";
};

INSTANTIATE_TEST_SUITE_P(Each, FileTransfer,
                         testing::Values(transfer{"FILEPUSH", "filepush"}, transfer{"filepush", "filepush"},
                                         transfer{"FILEPULL", "filepull"}, transfer{"filepull", "filepull"}),
                         [](const auto &row) { return std::string(row.param.value); });

TEST_P(FileTransfer, IsRequestedWithTheParamsTheTimeAndTheId) {
    request(R"({"url":"http://x/y", "filepath":"/tmp/y", "deep":{"a":[1]}})");

    ASSERT_THAT(published_topics(), ListIs(topic));
    EXPECT_THAT(published()[0].json, IsJson(R"({"url":"http://x/y", "filepath":"/tmp/y", "deep":{"a":[1]},
                                                "session":1700000000, "jobId":"77"})"));
    EXPECT_THAT(own_log_lines(),
                Contains(Debug("send " + GetParam().direction + " command: " + published()[0].payload)));
}

TEST_P(FileTransfer, OverwritesASessionAndAnIdAmongTheParams) {
    request(R"({"session":"mine", "jobId":5})");

    EXPECT_THAT(published().at(0).json, IsJson(R"({"session":1700000000, "jobId":"77"})"));
    EXPECT_THAT(job["params"], IsJson(R"({"session":"mine", "jobId":5})"));
}

TEST_P(FileTransfer, TakesParamsThatAreNull) {
    request("null");

    EXPECT_THAT(published().at(0).json, IsJson(R"({"session":1700000000, "jobId":"77"})"));
}

TEST_P(FileTransfer, PassesTheCommandCounterAndLeavesItAlone) {
    request("{}");
    request("{}");

    for (const auto &message : published_on(topic)) {
        EXPECT_EQ(message.message_id, &cmd_message_id);
        EXPECT_EQ(message.message_id_value, 1000);
    }
}

TEST_P(FileTransfer, KeepsTheStatusThatTheJobHad) {
    request("{}");

    EXPECT_EQ(job["status"], "received");
    EXPECT_FALSE(job.isMember("msg"));
    EXPECT_THAT(active_job("77"), IsJson(R"({"jobId":"77", "status":"received", "ack":true,
                                             "ackId":1699999990})"));
    EXPECT_THAT(log_lines(), Contains(Debug("execute_action_cmd update_job_status received")));
    EXPECT_THAT(log_lines(), Contains(Notice("update_job_status: 77 received post_status: 1")));
    EXPECT_FALSE(exists(MARKER));
}

TEST_P(FileTransfer, IsRequestedBeforeTheJobIsReported) {
    request("{}");

    const std::string payload = published().at(0).payload;
    EXPECT_THAT(calls_of({"delete_file", "send_message", "syslog"}),
                ListIs("syslog execute cmd jobId:77", "delete_file /var/volatile/orv/FW_JOBID",
                       "syslog set_jobid_flag /bin/echo '77' > /var/volatile/orv/FW_JOBID",
                       "syslog send " + GetParam().direction + " command: " + payload,
                       "send_message " + topic + " " + payload,
                       "syslog execute_action_cmd update_job_status received",
                       "syslog update_job_status: 77 received post_status: 1",
                       "syslog prev job status: received current job status: received",
                       "delete_file /var/volatile/orv/FW_JOBID"));
}

TEST_P(FileTransfer, DoesNotNoticeThatTheRequestWasNotSent) {
    fakes::always_returns("send_message", 4);
    request("{}");

    EXPECT_EQ(job["status"], "received");
    EXPECT_FALSE(exists(MARKER));
}

TEST_P(FileTransfer, WithoutAClientIsNotRequested) {
    iot_client = nullptr;
    request("{}");

    EXPECT_THAT(published(), IsEmpty());
    EXPECT_EQ(job["status"], "received");
    EXPECT_FALSE(exists(MARKER));
}

TEST_P(FileTransfer, WithParamsThatAreNoObjectFails) {
    for (const char *params : {R"("text")", "5", "[1]", "true"}) {
        begin_again();
        request(params);

        EXPECT_THAT(log_lines().back(), Debug("execute cmd: exception handler")) << params;
        EXPECT_THAT(reported(), ListIs("failed"));
        EXPECT_THAT(published_on(topic), IsEmpty());
    }
}

// --- what throws

TEST_F(CommandJob, ThatThrowsFailsIsReportedAndUnmarked) {
    execute(R"({"jobId":"77", "action":"CMD", "value":{}, "params":{}, "msg":"as it was"})");

    EXPECT_THAT(job, HasMembers(R"({"status":"failed", "msg":"as it was"})"));
    EXPECT_THAT(reported(), ListIs("failed"));
    EXPECT_FALSE(exists(MARKER));
    EXPECT_THAT(own_log_lines(), ListIs(Debug("execute cmd jobId:77"),
                                        Debug("set_jobid_flag /bin/echo '77' > /var/volatile/orv/FW_JOBID"),
                                        Debug("execute cmd: exception handler")));
    EXPECT_EQ(calls().back(), "delete_file /var/volatile/orv/FW_JOBID");
    EXPECT_THAT(all_calls().back().text, "execute cmd: exception handler");
}

TEST_F(CommandJob, ThatThrowsAddsNoMsg) {
    execute(R"({"jobId":"77", "action":["CMD"]})");

    EXPECT_EQ(job["status"], "failed");
    EXPECT_FALSE(job.isMember("msg"));
}

TEST_F(CommandJob, WithAnIdOfTheWrongTypeIsOnlyFailed) {
    execute(R"({"jobId":{}, "action":"CMD"})");

    EXPECT_EQ(job["status"], "failed");
    EXPECT_THAT(log_lines(), ListIs(Notice("update_job_status: exception handler"),
                                    Debug("execute cmd: exception handler")));
    EXPECT_THAT(published(), IsEmpty());
}

// --- the marker of the job in progress

class JobIdFlag : public CommandJobTest {};

TEST_F(JobIdFlag, HoldsTheIdAndALineEnd) {
    write_text(MARKER, "a longer id of another job\n");
    set_jobid_flag("77");

    EXPECT_EQ(file_text(MARKER), "77\n");
    EXPECT_THAT(calls(), ListIs("delete_file /var/volatile/orv/FW_JOBID",
                                "system /bin/echo '77' > /var/volatile/orv/FW_JOBID"));
    EXPECT_THAT(log_lines(), ListIs(Debug("set_jobid_flag /bin/echo '77' > /var/volatile/orv/FW_JOBID")));
}

TEST_F(JobIdFlag, IsOnlyDeletedForNoId) {
    write_text(MARKER, "77\n");
    set_jobid_flag(nullptr);

    EXPECT_FALSE(exists(MARKER));
    EXPECT_THAT(calls(), ListIs("delete_file /var/volatile/orv/FW_JOBID"));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(JobIdFlag, PutsTheIdBetweenQuotesAsItStands) {
    answer_command("/bin/echo", 0);
    set_jobid_flag("a b'c%s");

    EXPECT_THAT(commands(), ListIs("/bin/echo 'a b'c%s' > /var/volatile/orv/FW_JOBID"));
    EXPECT_THAT(log_lines(),
                ListIs(Debug("set_jobid_flag /bin/echo 'a b'c%s' > /var/volatile/orv/FW_JOBID")));
}

TEST_F(JobIdFlag, DoesNotNoticeThatItCannotBeWritten) {
    answer_command("/bin/echo", 2);
    set_jobid_flag("77");

    EXPECT_FALSE(exists(MARKER));
    EXPECT_THAT(log_lines(), SizeIs(1));
}
