// Which routine a job's "action" leads to. The routines are this test's own.
#include "tests/fakes/agent_test.h"

#include "actions/command_job.h"
#include "actions/config_job.h"
#include "actions/device_commands.h"
#include "actions/dispatch.h"
#include "actions/firmware_job.h"
#include "config/apply.h"
#include "jobs/job_status.h"

using testing::IsEmpty;

namespace {

std::vector<std::string> run;    // "routine, id of the job it was given"
const char *status_left = "";    // by the configuration job's check
tessard *client_given = nullptr; // to the apply

void note(const std::string &routine, const Json::Value &job) {
    run.push_back(routine + " " + job["jobId"].asString());
}

} // namespace

void execute_action_fw_install(Json::Value &job) {
    note("execute_action_fw_install", job);
}
void execute_action_cmd(Json::Value &job) {
    note("execute_action_cmd", job);
}
void execute_config_job(Json::Value &job) {
    note("execute_config_job", job);
    job["status"] = status_left;
}
void cmd_apply(tessard &client, Json::Value &job, bool after_fw_upgrade) {
    note(after_fw_upgrade ? "cmd_apply after an upgrade" : "cmd_apply", job);
    client_given = &client;
}
void execute_action_cfgpush(Json::Value &job) {
    note("execute_action_cfgpush", job);
}
void job_action_xtra(Json::Value &job) {
    note("job_action_xtra", job);
}

class JobAction : public AgentTest {
protected:
    JobAction() {
        run.clear();
        status_left = "";
        client_given = nullptr;
        iot_client = &client;
    }
    ~JobAction() override { iot_client = nullptr; }

    void execute(const std::string &job_text) {
        job = json(job_text);
        execute_job_action(client, job);
    }

    tessard client{"tessard", "localhost", 1883};
    Json::Value job;
};

struct action_row {
    const char *action;
    const char *routine;
};

static void PrintTo(const action_row &row, std::ostream *out) {
    *out << row.action;
}

class KnownAction : public JobAction, public testing::WithParamInterface<action_row> {};

INSTANTIATE_TEST_SUITE_P(Each, KnownAction,
                         testing::Values(action_row{"FW", "execute_action_fw_install 77"},
                                         action_row{"CMD", "execute_action_cmd 77"},
                                         action_row{"CFG", "execute_config_job 77"},
                                         action_row{"FAILSAFE_CONFIG", "cmd_apply 77"},
                                         action_row{"POST_CONFIG", "execute_action_cfgpush 77"},
                                         action_row{"XTRA", "job_action_xtra 77"}),
                         [](const auto &row) { return std::string(row.param.action); });

TEST_P(KnownAction, RunsItsRoutineAndNothingElse) {
    execute(std::string(R"({"jobId":"77", "status":"received", "action":")") + GetParam().action + "\"}");

    EXPECT_THAT(run, ListIs(GetParam().routine));
    EXPECT_FALSE(job.isMember("msg"));
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(log_lines(), ListIs(Debug("executing jobId: 77")));
}

class UnknownAction : public JobAction, public testing::WithParamInterface<const char *> {};

INSTANTIATE_TEST_SUITE_P(Each, UnknownAction,
                         testing::Values(R"("cmd")", R"("Cmd")", R"("CMD ")", R"(" CMD")", R"("CMDS")",
                                         R"("")", R"("fw")", R"("FW_PUT")", R"("fw_put")", R"("cfg")",
                                         R"("failsafe_config")", R"("POST")", R"("xtra")", "null", "5",
                                         "true", R"(["CMD"])", R"({"CMD":1})"));

TEST_P(UnknownAction, FailsTheJobWithThisVeryTextAndReportsIt) {
    execute(std::string(R"({"jobId":"77", "status":"received", "action":)") + GetParam() + "}");

    EXPECT_THAT(run, IsEmpty());
    EXPECT_THAT(job, HasMembers(R"({"status":"failed", "msg":"job contains no action property"})"));
    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"failed", "ack":false})"));
    const auto reports = published_on("v1/device/job/77/ack");
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_THAT(reports[0].json["params"], IsJson(R"({"jobId":"77", "status":"failed",
                                                      "msg":"job contains no action property"})"));
    EXPECT_THAT(log_lines()[0], Debug("executing jobId: 77"));
    EXPECT_THAT(log_lines()[1], Notice("update_job_status: 77 failed post_status: 1"));
}

TEST_F(JobAction, ThatIsMissingLeavesTheJobAsItIs) {
    execute(R"({"jobId":"77", "status":"received"})");

    EXPECT_THAT(job, IsJson(R"({"jobId":"77", "status":"received"})"));
    EXPECT_THAT(run, IsEmpty());
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(log_lines(), ListIs(Debug("executing jobId: 77")));
}

TEST_F(JobAction, IsRunForAJobWithoutAnId) {
    execute(R"({"action":"CMD"})");

    EXPECT_THAT(run, ListIs("execute_action_cmd "));
    EXPECT_THAT(log_lines(), ListIs(Debug("executing jobId: ")));
}

TEST_F(JobAction, AppliesAConfigurationOnceItsCheckLeftTheJobExecuted) {
    status_left = "executed";
    execute(R"({"jobId":"77", "action":"CFG"})");

    EXPECT_THAT(run, ListIs("execute_config_job 77", "cmd_apply 77"));
    EXPECT_EQ(client_given, &client);
}

TEST_F(JobAction, AppliesNoConfigurationOfAJobThatHasEndedInItsCheck) {
    for (const char *status : {"success", "failed", "received", "", "Executed"}) {
        run.clear();
        status_left = status;
        execute(R"({"jobId":"77", "action":"CFG", "status":"executed"})");

        EXPECT_THAT(run, ListIs("execute_config_job 77")) << status;
    }
}

TEST_F(JobAction, AppliesTheFailsafeConfigurationWithTheClient) {
    execute(R"({"jobId":"FAILSAFE_CONFIG", "action":"FAILSAFE_CONFIG"})");

    EXPECT_THAT(run, ListIs("cmd_apply FAILSAFE_CONFIG"));
    EXPECT_EQ(client_given, &client);
}
