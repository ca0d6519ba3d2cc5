// Configuration jobs: what the cloud sent is checked before anything is applied.
#include "tests/unit/config_bed.h"

#include "actions/config_job.h"
#include "actions/dispatch.h"
#include "jobs/job_store.h"

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class ConfigJob : public ConfigTest {
protected:
    ConfigJob() {
        job = json(R"({"jobId":"77", "action":"CFG", "status":"received", "params":{"configLevel":0}})");
        given_value(new_config());
    }

    // The job's configuration, with its right hash.
    void given_value(const std::string &config_text) {
        job["value"] = json(config_text);
        job["params"]["configHash"] = fakes::hash_of(job["value"]);
    }

    void given_firmware(const std::string &version) {
        fakes::config().database_texts["SYS_FW_VER"] = version;
    }

    void execute() {
        given_active_job(job.toStyledString());
        execute_config_job(job);
    }

    // How the job ends; the first deletion makes room for the mark of the job in progress.
    static std::vector<std::string> end_of_the_job() {
        std::vector<std::string> steps = calls_of({"delete_file", "send_message"});
        steps.erase(steps.begin());
        return steps;
    }

    static void expect_no_candidate() {
        EXPECT_FALSE(exists(NEW));
        EXPECT_FALSE(exists(NEW_HASH));
    }

    void expect_rejected(const std::string &msg) {
        EXPECT_EQ(job["status"], "failed");
        EXPECT_EQ(job["msg"], msg);
        EXPECT_FALSE(job.isMember("cfg_verified"));
        const auto lines = log_lines();
        const auto outcome =
            std::find(lines.begin(), lines.end(), log_line{LOG_NOTICE, "config job status: " + msg});
        ASSERT_NE(outcome, lines.end());
        EXPECT_EQ(*(outcome + 1), (log_line{LOG_ERR, "config job failed"}));
        EXPECT_THAT(end_of_the_job(), ListIs("delete_file /var/volatile/orv/FW_JOBID",
                                             StartsWith("send_message v1/device/job/77/ack")));
        EXPECT_THAT(reported(), ListIs("failed"));
        EXPECT_FALSE(exists(FW_JOBID));
        expect_no_candidate();
    }
};

// --- a job that passes

TEST_F(ConfigJob, APassedOneLeavesItsCandidateForTheApply) {
    execute();

    EXPECT_THAT(job, HasMembers(R"({"status":"executed", "cfg_verified":false})"));
    EXPECT_THAT(file_json(NEW), IsJson(new_config()));
    EXPECT_EQ(file_text(NEW_HASH), fakes::hash_of(json(new_config())));
    EXPECT_THAT(reported(), ListIs("executed"));
    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"executed", "cfg_verified":false})"));
    EXPECT_THAT(file_json(RUNNING), IsJson(old_config()));
}

TEST_F(ConfigJob, ItsStepsComeInTheirOrder) {
    execute();

    EXPECT_THAT(calls(), ListIs("delete_file /var/volatile/orv/FW_JOBID",
                                "system /bin/echo '77' > /var/volatile/orv/FW_JOBID",
                                "write_json_file /var/volatile/config/config.new",
                                "calculate_and_write_config_hash /var/volatile/config/config.new "
                                "/var/volatile/config/config.new.hash",
                                "write_json_file /var/data/orv/vantrel_iot/jobs/active/77", "sync_to_fs 2",
                                StartsWith("send_message v1/device/job/77/ack"), "sleep 2"));
}

TEST_F(ConfigJob, ItIsTheJobInProgressUntilItIsApplied) {
    execute();

    EXPECT_EQ(file_text(FW_JOBID), "77\n");
}

TEST_F(ConfigJob, TheCandidateAloneIsWrittenUnderTheJobFileMutex) {
    bool free_at_the_write = true;
    bool free_at_the_hash = false;
    fakes::before_change = [&](const fakes::call &next) {
        if (next.function == "write_json_file" && next.text == NEW)
            free_at_the_write = free_for_another_thread(job_file_mutex);
        if (next.function == "calculate_and_write_config_hash")
            free_at_the_hash = free_for_another_thread(job_file_mutex);
    };

    execute();

    EXPECT_FALSE(free_at_the_write);
    EXPECT_TRUE(free_at_the_hash);
}

TEST_F(ConfigJob, LogsWhatItComparesAndFinds) {
    execute();

    const std::string hash = fakes::hash_of(json(new_config()));
    const auto lines = log_lines();
    EXPECT_EQ(lines.front(), (log_line{LOG_DEBUG, "job action: CFG jobId:77"}));
    EXPECT_THAT(lines,
                AllOf(Contains(Debug("compare calculated hash: " + hash + " with provided hash: " + hash)),
                      Contains(Debug("config hash validated")), Contains(Debug("job config level: 0"))));
    EXPECT_THAT(lines, Not(Contains(Notice(StartsWith("config job status:")))));
    EXPECT_THAT(lines, Not(Contains(Notice(StartsWith("validate FW version")))));
    EXPECT_THAT(lines, Not(Contains(Error("config job failed"))));
}

TEST_F(ConfigJob, AMessageThatCameWithTheJobIsLogged) {
    job["msg"] = "from the cloud";

    execute();

    EXPECT_THAT(log_lines(), Contains(Notice("config job status: from the cloud")));
    EXPECT_EQ(job["status"], "executed");
}

TEST_F(ConfigJob, AMessageThatIsNoTextDoesNotStopIt) {
    job["msg"] = json(R"({"a":1})");

    execute();

    EXPECT_EQ(job["status"], "executed");
    EXPECT_THAT(log_lines(), Not(Contains(Debug("config apply: exception handler"))));
}

TEST_F(ConfigJob, TheMembersOrderDoesNotMatter) {
    job["value"] = json(R"({"b":1, "a":{"d":1, "c":2}})");
    job["params"]["configHash"] = fakes::hash_of(json(R"({"a":{"c":2, "d":1}, "b":1})"));

    execute();

    EXPECT_EQ(job["status"], "executed");
}

// --- what it must have

TEST_F(ConfigJob, WithoutAConfigurationItFails) {
    job.removeMember("value");
    job["params"].removeMember("configHash");

    execute();

    expect_rejected("value property is required");
}

TEST_F(ConfigJob, AConfigurationThatIsNoObjectIsNone) {
    for (const char *value : {"null", "[]", "\"text\"", "7", "true"}) {
        fakes::reset_calls();
        fakes::mqtt().published.clear();
        job = json(R"({"jobId":"77", "action":"CFG", "status":"received", "params":{"configHash":"x"}})");
        job["value"] = json(value);

        execute();

        expect_rejected("value property is required");
    }
}

TEST_F(ConfigJob, WithoutAHashItFails) {
    for (const char *params :
         {"{}", "null", R"({"configHash":null})", R"({"configHash":7})", "\"text\"", "[]"}) {
        fakes::reset_calls();
        fakes::mqtt().published.clear();
        job.removeMember("msg");
        job["status"] = "received";
        job["params"] = json(params);

        execute();

        expect_rejected("configHash property is required");
    }
}

TEST_F(ConfigJob, AHashThatDoesNotMatchFailsIt) {
    job["params"]["configHash"] = fakes::hash_of(job["value"]) + "0";

    execute();

    expect_rejected("configHash mismatch");
    EXPECT_THAT(log_lines(), Not(Contains(Debug("config hash validated"))));
}

TEST_F(ConfigJob, AnEmptyHashIsAMismatch) {
    job["params"]["configHash"] = "";

    execute();

    expect_rejected("configHash mismatch");
}

TEST_F(ConfigJob, OnlyLevelZeroPasses) {
    for (const auto &[level, shown] :
         {std::pair("1", "1"), {"2", "2"}, {"-1", "-1"}, {"\"0\"", "2"}, {"null", "2"}}) {
        fakes::reset_calls();
        fakes::mqtt().published.clear();
        job.removeMember("msg");
        job["status"] = "received";
        job["params"]["configLevel"] = json(level);

        execute();

        expect_rejected("invalid config level");
        EXPECT_THAT(log_lines(), Contains(Debug(std::string("job config level: ") + shown)));
    }
}

TEST_F(ConfigJob, AMissingLevelIsTwo) {
    job["params"].removeMember("configLevel");

    execute();

    expect_rejected("invalid config level");
    EXPECT_THAT(log_lines(), Contains(Debug("job config level: 2")));
}

// --- the configuration that runs already

TEST_F(ConfigJob, TheRunningConfigurationIsASuccessWithoutAnyFile) {
    given_value(old_config());
    job["params"]["configLevel"] = 9; // not looked at

    execute();

    EXPECT_THAT(job, HasMembers(R"({"status":"success", "msg":"config matches current device config"})"));
    EXPECT_FALSE(job.isMember("cfg_verified"));
    EXPECT_THAT(log_lines(), Contains(Notice("config job is same as current running config")));
    EXPECT_THAT(log_lines(), Not(Contains(Notice(StartsWith("config job status:")))));
    EXPECT_THAT(end_of_the_job(), ListIs(StartsWith("send_message v1/device/job/77/ack"),
                                         "delete_file /var/volatile/orv/FW_JOBID"));
    EXPECT_THAT(reported(), ListIs("success"));
    expect_no_candidate();
}

// --- the firmware it was made for

TEST_F(ConfigJob, WithoutAFirmwareVersionNoneIsCompared) {
    given_firmware("1.0");

    execute();

    EXPECT_THAT(calls_of({"sysdb_read_str"}), IsEmpty());
    EXPECT_EQ(job["status"], "executed");
}

TEST_F(ConfigJob, AFirmwareVersionThatIsNoTextIsNone) {
    given_firmware("1.0");
    job["params"]["fwVer"] = 2;

    execute();

    EXPECT_EQ(job["status"], "executed");
}

TEST_F(ConfigJob, TheRightFirmwareVersionLetsItPass) {
    given_firmware("1.2.3");
    job["params"]["fwVer"] = "1.2.3";

    execute();

    EXPECT_THAT(calls_of({"sysdb_read_str"}), ListIs("sysdb_read_str SYS_FW_VER"));
    EXPECT_THAT(log_lines(),
                AllOf(Contains(Notice("validate FW version is 1.2.3")),
                      Contains(Notice("verified config job FW version matches running FW version"))));
    EXPECT_EQ(job["status"], "executed");
    EXPECT_FALSE(job.isMember("fwVer"));
}

TEST_F(ConfigJob, AnotherFirmwareVersionFailsItAndIsReported) {
    given_firmware("1.2.4");
    job["params"]["fwVer"] = "1.2.3";
    job["params"]["configHash"] = "not looked at";

    execute();

    EXPECT_THAT(job, HasMembers(R"({"status":"failed", "msg":"FW version mismatch", "fwVer":"1.2.4"})"));
    EXPECT_EQ(job["params"]["fwVer"], "1.2.3");
    EXPECT_THAT(log_lines(),
                Contains(Notice("config job FW version: 1.2.3 does not match device FW version: 1.2.4")));
    EXPECT_THAT(log_lines(), Not(Contains(Error("config job failed"))));
    EXPECT_THAT(log_lines(), Not(Contains(Notice(StartsWith("config job status:")))));
    EXPECT_THAT(end_of_the_job(), ListIs(StartsWith("send_message v1/device/job/77/ack"),
                                         "delete_file /var/volatile/orv/FW_JOBID"));
    EXPECT_THAT(published_on("v1/device/job/77/ack").front().json["params"],
                IsJson(R"({"jobId":"77", "status":"failed", "msg":"FW version mismatch", "fwVer":"1.2.4"})"));
    expect_no_candidate();
}

TEST_F(ConfigJob, AnUnreadableFirmwareVersionLeavesItAsItWasUnreported) {
    job["params"]["fwVer"] = "1.2.3";
    given_active_job(job.toStyledString());
    const Json::Value before_it = job;

    execute_config_job(job);

    EXPECT_EQ(job, before_it);
    EXPECT_THAT(log_lines(), Contains(Error("error reading sysdb")));
    EXPECT_THAT(published(), IsEmpty());
    EXPECT_THAT(calls_of({"write_json_file"}), IsEmpty());
    expect_no_candidate();
}

TEST_F(ConfigJob, AFirmwareVersionIsReadUpTo63Characters) {
    given_firmware(std::string(63, 'v') + "w");
    job["params"]["fwVer"] = std::string(63, 'v');

    execute();

    EXPECT_EQ(job["status"], "executed");
}

TEST_F(ConfigJob, FirmwareVersionsAreComparedWhole) {
    given_firmware("1.2");
    job["params"]["fwVer"] = "1.2.3";

    execute();

    EXPECT_EQ(job["msg"], "FW version mismatch");
}

// --- exceptions

TEST_F(ConfigJob, AnExceptionLeavesTheStatus) {
    job["jobId"] = json("[]");

    execute_config_job(job);

    EXPECT_EQ(job["status"], "received");
    EXPECT_THAT(log_lines(), Contains(Debug("config apply: exception handler")));
    EXPECT_THAT(published(), IsEmpty());
}

TEST_F(ConfigJob, ARecordThatIsNoObjectIsAnException) {
    job = json("[]");

    execute_config_job(job);

    EXPECT_THAT(log_lines(), ListIs(Debug("config apply: exception handler")));
}

// --- dispatched

TEST_F(ConfigJob, APassedOneIsAppliedAtOnce) {
    given_active_job(job.toStyledString());

    execute_job_action(client, job);

    EXPECT_THAT(job, HasMembers(R"j({"status":"success", "msg":"config has been applied (no failsafe)"})j"));
    EXPECT_THAT(reported(), ListIs("executed", "success"));
    EXPECT_THAT(file_json(SAVED), IsJson(new_config()));
    EXPECT_FALSE(exists(FW_JOBID));
}

TEST_F(ConfigJob, ARejectedOneIsNotApplied) {
    job["params"]["configLevel"] = 1;
    given_candidate(new_config()); // of somebody else
    given_active_job(job.toStyledString());

    execute_job_action(client, job);

    EXPECT_THAT(log_lines(), Not(Contains(Debug("executing config apply"))));
    EXPECT_THAT(file_json(RUNNING), IsJson(old_config()));
}

TEST_F(ConfigJob, OneThatMatchesIsNotApplied) {
    given_value(old_config());
    given_active_job(job.toStyledString());

    execute_job_action(client, job);

    EXPECT_THAT(log_lines(), Not(Contains(Debug("executing config apply"))));
    EXPECT_EQ(job["status"], "success");
}
