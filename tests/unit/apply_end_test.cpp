// The end of an apply: reported once, and nothing of it left behind, whatever happened.
#include "tests/unit/config_bed.h"

#include "config/apply.h"
#include "jobs/job_status.h"
#include "jobs/markers.h"

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class ApplyEnd : public ConfigTest {
protected:
    ApplyEnd() {
        given_active_job(R"({"jobId":"77", "action":"CFG", "status":"executed"})");
        write_text(MODIFIED, "");
        write_text(TIMER, "{}");
        write_text(FW_JOBID, "77");
    }

    void apply(bool after_fw_upgrade = false) { cmd_apply(client, job, after_fw_upgrade); }

    static void expect_nothing_left() {
        EXPECT_FALSE(is_config_job_executing());
        for (const char *path :
             {NEW, NEW_HASH, NEW_COPY, TIMER, MODIFIED, JOB_COPY, JOB_LINK, FW_JOBID, CONFIG_MARKER})
            EXPECT_FALSE(exists(path)) << path;
        EXPECT_EQ(fakes::config().apply_progress.front(), "set executing config change");
        EXPECT_EQ(fakes::config().apply_progress.back(), "clear");
    }
};

TEST_F(ApplyEnd, ClearsEverythingInItsOrder) {
    apply(); // no candidate: what follows is the end alone

    const std::vector<std::string> all = calls();
    const auto end = std::find_if(all.begin(), all.end(), [](const std::string &line) {
        return line == "delete_file /var/data/orv/vantrel_iot/jobs/active/LOCAL_FW_UPGRADE";
    });
    EXPECT_THAT(std::vector(end, all.end()),
                ListIs("delete_file /var/data/orv/vantrel_iot/jobs/active/LOCAL_FW_UPGRADE",
                       "delete_file /var/data/orv/ACTIVE_JOB", "delete_file /var/volatile/config/config.new",
                       "delete_file /var/volatile/config/config.new.hash",
                       "delete_file /var/data/orv/config.new", "sync_to_fs 2", "sleep 2",
                       "delete_file /var/run/ACTIVE_JOB", "clear_config_apply_in_progress",
                       "delete_file /var/data/orv/FAILSAFE_TIMER", "delete_file /var/run/CONFIG_MODIFIED",
                       "delete_file /var/volatile/orv/FW_JOBID",
                       "delete_file /var/volatile/orv/CONFIG_JOB_EXECUTING"));
}

TEST_F(ApplyEnd, IsShownAndReportedBeforeAnythingIsCleared) {
    apply();

    const auto seen =
        calls_of({"update_config_apply_status", "send_message", "clear_config_apply_in_progress"});
    EXPECT_THAT(seen,
                ListIs("update_config_apply_status config apply has no new config to apply",
                       HasSubstr("send_message v1/device/job/77/ack"), "clear_config_apply_in_progress"));
}

TEST_F(ApplyEnd, TheAbortRequestIsForgottenAfterTheMarkersAndBeforeTheJobInProgress) {
    client.abort_request_time = 5;
    int32_t at_the_markers = 0;
    int32_t at_the_job = -1;
    fakes::before_change = [&](const fakes::call &next) {
        if (next.text == MODIFIED)
            at_the_markers = client.abort_request_time;
        if (next.text == FW_JOBID)
            at_the_job = client.abort_request_time;
    };

    apply();

    EXPECT_EQ(at_the_markers, 5);
    EXPECT_EQ(at_the_job, 0);
}

TEST_F(ApplyEnd, TheFlagFallsLast) {
    bool flag = false;
    before("delete_file /var/volatile/orv/FW_JOBID", [&] { flag = is_config_job_executing(); });

    apply();

    EXPECT_TRUE(flag);
    EXPECT_FALSE(is_config_job_executing());
}

TEST_F(ApplyEnd, TheJobIsMarkedAsTheOneBeingAppliedUntilThen) {
    given_candidate(new_config());
    std::string copied;
    bool linked = false;
    before("update_config_apply_status applying new config", [&] {
        copied = file_text(JOB_COPY);
        linked = exists(JOB_LINK);
    });

    apply();

    EXPECT_THAT(json(copied), HasMembers(R"({"jobId":"77"})"));
    EXPECT_TRUE(linked);
    expect_nothing_left();
}

TEST_F(ApplyEnd, LeavesNothingAfterASuccess) {
    given_candidate(new_config());
    apply();
    EXPECT_EQ(job["status"], "success");
    expect_nothing_left();
}

TEST_F(ApplyEnd, LeavesNothingAfterARejection) {
    given_candidate(new_config());
    fakes::config().validator_status = -1;
    apply();
    EXPECT_EQ(job["status"], "failed");
    expect_nothing_left();
}

TEST_F(ApplyEnd, LeavesNothingWithoutACandidate) {
    apply();
    EXPECT_EQ(job["status"], "failed");
    expect_nothing_left();
}

TEST_F(ApplyEnd, LeavesNothingWhenNothingChanges) {
    given_candidate(old_config());
    apply();
    EXPECT_EQ(job["status"], "success");
    expect_nothing_left();
}

TEST_F(ApplyEnd, LeavesNothingAfterARevert) {
    given_candidate(new_config(R"("system":{"failsafe":{"enable":true, "timer":1}})"));
    fakes::always_returns("ping_test", -1, "3 ");
    apply();
    EXPECT_EQ(job["status"], "failed");
    expect_nothing_left();
}

TEST_F(ApplyEnd, DeletesTheJobFileOfALocalUpgrade) {
    given_active_job(R"({"jobId":"LOCAL_FW_UPGRADE", "status":"executed"})");

    apply();

    EXPECT_THAT(active_jobs(), ListIs("77"));
}

TEST_F(ApplyEnd, LetsTheNextApplyRun) {
    given_candidate(new_config());
    apply();
    given_candidate(old_config());

    apply();

    EXPECT_THAT(file_json(SAVED), IsJson(old_config()));
    EXPECT_THAT(log_lines(), Not(Contains(Notice("config apply is already in progress"))));
}

// --- what is shown and reported

TEST_F(ApplyEnd, ShowsAValidationResultThatIsText) {
    job["validation_result"] = "of an earlier run";
    apply();
    EXPECT_THAT(progress(), ListIs("config apply has no new config to apply", "of an earlier run"));
}

TEST_F(ApplyEnd, ShowsNoValidationResultThatIsNotText) {
    for (const char *result : {R"({"a":1})", "5", "true", "null"}) {
        given_active_job(R"({"jobId":"77", "status":"executed"})");
        fakes::config().apply_progress.clear();
        fakes::mqtt().published.clear();
        job["validation_result"] = json(result);

        apply();

        EXPECT_THAT(progress(), ListIs("config apply has no new config to apply")) << result;
        EXPECT_THAT(reported(), ListIs("failed")) << result;
    }
}

TEST_F(ApplyEnd, AFirmwareJobIsStoredAndNotReported) {
    job["action"] = "FW";
    apply(true);

    EXPECT_THAT(reported(), IsEmpty());
    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"failed"})"));
    EXPECT_THAT(log_lines(), Contains(Notice("update_job_status: 77 failed post_status: 0")));
}

TEST_F(ApplyEnd, AJobOfAnyOtherActionIsReported) {
    for (const char *action : {"fw", "FW_PUT", "CFG", ""}) {
        given_active_job(R"({"jobId":"77", "status":"executed"})");
        job = json(R"({"jobId":"77"})");
        if (*action)
            job["action"] = action;
        fakes::mqtt().published.clear();

        apply();

        EXPECT_THAT(reported(), ListIs("failed")) << action;
    }
    EXPECT_THAT(log_lines(), Contains(Notice("update_job_status: 77 failed post_status: 1")));
}

TEST_F(ApplyEnd, TheDevicesOwnJobIsNotReportedToTheCloud) {
    job = json(R"({"jobId":"FAILSAFE_CONFIG", "action":"FAILSAFE_CONFIG", "status":"received"})");
    given_candidate(new_config());
    apply();

    EXPECT_EQ(job["status"], "success");
    EXPECT_THAT(published_on("v1/device/job/FAILSAFE_CONFIG/ack"), IsEmpty());
    EXPECT_THAT(active_job("FAILSAFE_CONFIG"), HasMembers(R"({"status":"success"})"));
}

TEST_F(ApplyEnd, WorksWithoutAClientToPublishThrough) {
    iot_client = nullptr;
    given_candidate(new_config(R"("system":{"failsafe":{"enable":true}})"));

    apply();

    EXPECT_EQ(job["status"], "success");
    EXPECT_THAT(reported(), IsEmpty());
    expect_nothing_left();
}

// --- exceptions

TEST_F(ApplyEnd, RunsAfterAnExceptionWhichFailsTheJob) {
    given_candidate(new_config());
    given_changes(R"(["no object"])");

    apply();

    EXPECT_THAT(log_lines(), Contains(Notice("cmd_apply: exception handler")));
    EXPECT_THAT(log_lines(), Contains(Notice("update_job_status: 77 failed post_status: 1")));
    expect_nothing_left();
}

TEST_F(ApplyEnd, RunsForARecordThatIsNoObject) {
    job = json("[]");

    apply();

    EXPECT_THAT(log_lines(), Contains(Notice("cmd_apply: exception handler")));
    expect_nothing_left();
}
