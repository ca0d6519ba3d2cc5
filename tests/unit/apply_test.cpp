// The apply of a candidate configuration: from the request to its verdict.
#include "tests/unit/config_bed.h"

#include "config/apply.h"
#include "jobs/markers.h"

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;
using testing::StartsWith;

class Apply : public ConfigTest {
protected:
    Apply() { given_active_job(R"({"jobId":"77", "action":"CFG", "status":"executed"})"); }

    void apply() { cmd_apply(client, job, false); }
    void apply_after_upgrade() { cmd_apply(client, job, true); }

    // The device's own configuration job, received at this time.
    void given_failsafe_job(time_t received) {
        job = json(R"({"jobId":"FAILSAFE_CONFIG", "action":"FAILSAFE_CONFIG", "status":"received"})");
        job["timestamp"] = static_cast<Json::Int>(received);
    }

    void request_abort_at(time_t when) { client.abort_request_time = static_cast<int32_t>(when); }

    static std::vector<std::string> validations() { return calls_of({"config_validator"}); }
};

// --- the beginning

TEST_F(Apply, ASecondOneWhileOneRunsChangesNothing) {
    given_candidate(new_config());
    set_config_job_executing(1);
    const size_t before_it = all_calls().size();
    const Json::Value job_before = job;

    apply();

    EXPECT_THAT(log_lines(), ListIs(Notice("config apply is already in progress")));
    EXPECT_EQ(all_calls().size(), before_it + 1); // that line
    EXPECT_EQ(job, job_before);
    EXPECT_TRUE(is_config_job_executing());
    EXPECT_TRUE(exists(NEW));
}

TEST_F(Apply, BeginsWithTheMarksOfAnApply) {
    given_candidate(new_config());
    write_text(TIMER, "{}");
    write_text(MODIFIED, "");

    apply();

    const std::vector<std::string> all = calls();
    ASSERT_GT(all.size(), 8U);
    EXPECT_THAT(std::vector(all.begin(), all.begin() + 8),
                ListIs("orvsys echo 1 > /var/volatile/orv/CONFIG_JOB_EXECUTING",
                       "set_config_apply_in_progress executing config change",
                       "delete_file /var/data/orv/FAILSAFE_TIMER", "delete_file /var/run/CONFIG_MODIFIED",
                       "orvsys /bin/ln -s /var/data/orv/vantrel_iot/jobs/active/77 /var/run/ACTIVE_JOB",
                       "copy_file /var/data/orv/vantrel_iot/jobs/active/77 /var/data/orv/ACTIVE_JOB",
                       "copy_file /var/volatile/config/config.new /var/data/orv/config.new", "sync_to_fs 2"));
    EXPECT_EQ(log_lines().front(), (log_line{LOG_DEBUG, "executing config apply"}));
}

TEST_F(Apply, RaisesTheFlagBeforeTheMark) {
    bool flag = false;
    before("set_config_apply_in_progress", [&] { flag = is_config_job_executing(); });

    apply();

    EXPECT_TRUE(flag);
}

// --- the candidate

TEST_F(Apply, WithoutACandidateTheJobFails) {
    apply();

    EXPECT_THAT(job, HasMembers(R"({"status":"failed", "msg":"config apply has no new config to apply"})"));
    EXPECT_THAT(progress(), ListIs("config apply has no new config to apply"));
    EXPECT_THAT(calls_of({"encode_encrypt_fields_config_file", "calculate_and_write_config_hash"}),
                IsEmpty());
    EXPECT_THAT(validations(), IsEmpty());
    EXPECT_THAT(reported(), ListIs("failed"));
    EXPECT_FALSE(is_config_job_executing());
}

TEST_F(Apply, ThePersistentCandidateWins) {
    given_candidate(R"({"name":"volatile"})");
    write_text(NEW_COPY, new_config());

    apply();

    EXPECT_THAT(story(), AllOf(Contains("copy data:config.new to volatile:config.new"),
                               Not(Contains("copy volatile:config.new to data:config.new"))));
    EXPECT_THAT(file_json(RUNNING), HasMembers(R"({"name":"new"})"));
}

TEST_F(Apply, TheMirrorStepFlushesEvenWithNothingToCopy) {
    sync_new_config();

    EXPECT_THAT(calls(), ListIs("sync_to_fs 2"));
}

TEST_F(Apply, TheMirrorStepMakesBothCandidatesEqual) {
    given_candidate(new_config());
    sync_new_config();
    EXPECT_EQ(file_text(NEW_COPY), new_config());

    write_text(NEW_COPY, old_config());
    sync_new_config();
    EXPECT_EQ(file_text(NEW), old_config());
    EXPECT_THAT(story(), ListIs("copy volatile:config.new to data:config.new", "flush",
                                "copy data:config.new to volatile:config.new", "flush"));
}

TEST_F(Apply, AfterAnUpgradeThePersistentCandidateIsNotLookedAt) {
    given_candidate(new_config());
    write_text(NEW_COPY, R"({"name":"remnant"})");

    apply_after_upgrade();

    EXPECT_THAT(file_json(RUNNING), HasMembers(R"({"name":"new"})"));
}

TEST_F(Apply, AfterAnUpgradeNoPersistentCandidateIsMade) {
    given_candidate(new_config());

    apply_after_upgrade();

    EXPECT_THAT(story(), Not(Contains(HasSubstr("to data:config.new"))));
}

TEST_F(Apply, StoresSensitiveFieldsBeforeItHashesTheCandidate) {
    given_candidate(new_config());

    apply();

    EXPECT_THAT(
        calls_of({"encode_encrypt_fields_config_file", "calculate_and_write_config_hash", "read_hash"}),
        ListIs("encode_encrypt_fields_config_file /var/volatile/config/config.new",
               "calculate_and_write_config_hash /var/volatile/config/config.new "
               "/var/volatile/config/config.new.hash",
               "read_hash /var/volatile/config/config.new.hash",
               "read_hash /var/volatile/config/config.running.hash"));
}

// --- nothing to do

TEST_F(Apply, TheRunningConfigurationAsCandidateIsASuccessWithoutAnyDeed) {
    given_candidate(old_config());

    apply();

    EXPECT_THAT(job, HasMembers(R"({"status":"success", "msg":"no config changes to apply"})"));
    EXPECT_THAT(log_lines(), Contains(Notice("no config changes to apply")));
    EXPECT_THAT(progress(), ListIs("no config changes to apply"));
    EXPECT_THAT(validations(), IsEmpty());
    EXPECT_THAT(calls_of({"get_config_change_list", "store_meta_file", "system"}), IsEmpty());
    EXPECT_THAT(story(), Not(Contains(HasSubstr("to volatile:config.running"))));
    EXPECT_THAT(reported(), ListIs("success"));
    EXPECT_FALSE(exists(NEW));
}

TEST_F(Apply, AfterAnUpgradeTheRunningConfigurationIsAppliedAllTheSame) {
    given_candidate(old_config());

    apply_after_upgrade();

    EXPECT_THAT(validations(), ListIs("config_validator /var/volatile/config/config.new"));
    EXPECT_THAT(calls_of({"read_hash"}), IsEmpty());
    EXPECT_THAT(job, HasMembers(R"j({"status":"success", "msg":"config has been applied (no failsafe)"})j"));
    EXPECT_THAT(progress(), IsSupersetOf({"network restart", "reload iot config"}));
}

TEST_F(Apply, AMissingRunningHashSendsEveryCandidateThroughValidation) {
    given_candidate(old_config());
    std::remove(RUNNING_HASH);

    apply();

    EXPECT_THAT(validations(), ListIs("config_validator /var/volatile/config/config.new"));
    EXPECT_THAT(job, HasMembers(R"j({"status":"success", "msg":"config has been applied (no failsafe)"})j"));
}

TEST_F(Apply, ACandidateWithoutHashGoesThroughValidation) {
    given_candidate(old_config());
    fakes::will_return("calculate_and_write_config_hash", {-1});

    apply();

    EXPECT_FALSE(validations().empty());
}

TEST_F(Apply, AFailedReadOfEitherHashIsNoEquality) {
    for (const char *path : {NEW_HASH, RUNNING_HASH}) {
        fakes::reset_calls();
        given_candidate(old_config());
        fakes::always_returns("read_hash", -1, path);

        apply();

        EXPECT_FALSE(validations().empty()) << path;
    }
}

TEST_F(Apply, HashesThatBothCannotBeReadAreNoEquality) {
    given_candidate(old_config());
    fakes::always_returns("read_hash", -1);

    apply();

    EXPECT_FALSE(validations().empty());
}

TEST_F(Apply, HashesAreComparedWhole) {
    given_candidate(old_config());
    write_text(RUNNING_HASH, fakes::hash_of(json(old_config())) + "0");

    apply();

    EXPECT_FALSE(validations().empty());
}

// --- validation

TEST_F(Apply, ShowsItsProgressFromValidationToSuccess) {
    given_candidate(new_config());
    given_changes("[]");

    apply();

    EXPECT_THAT(progress(), ListIs("validating config", "config validation successful",
                                   "config apply has failsafe disabled", "applying new config",
                                   "config has been applied (no failsafe)"));
}

TEST_F(Apply, ARejectedCandidateFailsWithTheValidatorsReason) {
    given_candidate(new_config());
    fakes::config().validator_status = 3;
    fakes::config().validator_result = "network.mtu: expected an integer";

    apply();

    EXPECT_THAT(job, HasMembers(R"({"status":"failed", "msg":"config validation failed", )"
                                R"("validation_result":"network.mtu: expected an integer"})"));
    EXPECT_THAT(log_lines(), Contains(Notice("config validation failed : network.mtu: expected an integer")));
    EXPECT_THAT(log_lines(), Not(Contains(Alert(StartsWith("config validation failed")))));
    EXPECT_THAT(progress(),
                ListIs("validating config", "config validation failed", "network.mtu: expected an integer"));
    EXPECT_THAT(calls_of({"get_config_change_list", "store_meta_file"}), IsEmpty());
    EXPECT_THAT(file_json(RUNNING), IsJson(old_config()));
    EXPECT_THAT(reported(), ListIs("failed"));
}

TEST_F(Apply, AValidatorWithoutAReasonLeavesThePresetOne) {
    given_candidate(new_config());
    fakes::config().validator_status = -1;

    apply();

    EXPECT_EQ(job["validation_result"], "Validation not run");
    EXPECT_THAT(log_lines(), Contains(Notice("config validation failed : Validation not run")));
}

TEST_F(Apply, AfterAnUpgradeARejectionIsLoggedTwice) {
    given_candidate(new_config());
    fakes::config().validator_status = -1;
    fakes::config().validator_result = "bad";

    apply_after_upgrade();

    std::vector<log_line> rejections;
    for (const log_line &line : log_lines())
        if (line.text == "config validation failed : bad")
            rejections.push_back(line);
    EXPECT_THAT(rejections,
                ListIs(Notice("config validation failed : bad"), Alert("config validation failed : bad")));
}

TEST_F(Apply, AValidCandidateHasNoValidationResult) {
    given_candidate(new_config());
    fakes::config().validator_result = "all is well";

    apply();

    EXPECT_FALSE(job.isMember("validation_result"));
    EXPECT_THAT(progress(), Not(Contains("all is well")));
}

// --- aborts

TEST_F(Apply, AnAbortBeforeValidationEndsTheJob) {
    given_failsafe_job(START_TIME - 10);
    given_candidate(new_config());
    request_abort_at(START_TIME - 9);

    apply();

    EXPECT_THAT(job, HasMembers(R"({"status":"failed", "msg":"cmd apply aborted"})"));
    EXPECT_THAT(progress(),
                ListIs("validating config", "Aborting before config validator", "cmd apply aborted"));
    EXPECT_THAT(validations(), IsEmpty());
    EXPECT_EQ(client.abort_request_time, 0);
    EXPECT_FALSE(exists(NEW));
    EXPECT_FALSE(exists(NEW_COPY));
}

TEST_F(Apply, AnAbortDuringValidationEndsTheJobAfterIt) {
    given_failsafe_job(START_TIME);
    given_candidate(new_config());
    before("update_config_apply_status config validation successful",
           [this] { request_abort_at(START_TIME + 1); });

    apply();

    EXPECT_THAT(job, HasMembers(R"({"status":"failed", "msg":"cmd apply aborted"})"));
    EXPECT_THAT(progress(), ListIs("validating config", "config validation successful",
                                   "Aborting after config validator", "cmd apply aborted"));
    EXPECT_THAT(file_json(RUNNING), IsJson(old_config()));
}

TEST_F(Apply, AnAbortInTheSecondOfTheRequestDoesNotCount) {
    given_failsafe_job(START_TIME);
    given_candidate(new_config());
    request_abort_at(START_TIME);

    apply();

    EXPECT_EQ(job["status"], "success");
}

TEST_F(Apply, AJobOfTheCloudIsNotAborted) {
    job["timestamp"] = 1;
    given_candidate(new_config());
    request_abort_at(START_TIME);

    apply();

    EXPECT_EQ(job["status"], "success");
    EXPECT_EQ(client.abort_request_time, 0);
}
