// Scripts, from the job's message to the archive, through a reboot.
#include "tests/unit/whole_jobs_bed.h"

#include "tests/fakes/private_root.h"

using testing::IsEmpty;

// A script that succeeds and asks for a reboot. The boot after it finds what its job's file said then.
class WholeScriptWithAReboot : public WholeJobs {
protected:
    void run_until_the_reboot() {
        answer_command("timeout ", 0);
        answer_command("/sbin/reboot", [this](const std::string &) {
            disk.save();
            return 0;
        });
        send_job(json(R"({"jobId":"77", "action":"CMD", "value":"SCRIPT",
                          "params":{"script":"true", "reboot":true}})"));
        passes(1);
        executed = published_on("v1/device/job/77/ack").at(0).json;
        ASSERT_EQ(executed["params"]["status"], "executed");
        disk.boot();
        fakes::reset_mqtt();
        let_repeats_be_due();
    }

    // The cloud's answer to "executed", which comes after the boot.
    void cloud_answers_executed() {
        Json::Value answer = json(R"({"jobId":"77", "rc":200})");
        answer["session"] = executed["session"];
        arrives("v1/device/job/77/pub_ack", answer);
    }

    Json::Value executed;

private:
    PersistentFiles disk;
};

TEST_F(WholeScriptWithAReboot, IsReportedASuccessAfterIt) {
    run_until_the_reboot();

    passes(1);
    ASSERT_THAT(reported("77"), ListIs("success"));
    EXPECT_NE(published_on("v1/device/job/77/ack")[0].json["session"], executed["session"]);

    acknowledge("77");
    passes(1);
    EXPECT_THAT(archived_job("77"), HasMembers(R"({"status":"success", "ack":true})"));
}

TEST_F(WholeScriptWithAReboot, IsNotAcknowledgedByALateAnswerToExecuted) {
    run_until_the_reboot();

    cloud_answers_executed();
    passes(1);

    EXPECT_THAT(archived_jobs(), IsEmpty());
    EXPECT_THAT(reported("77"), ListIs("success"));
}
