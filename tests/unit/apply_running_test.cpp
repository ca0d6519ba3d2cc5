// The apply of a valid candidate: it becomes the running configuration, with or without a way back.
#include "tests/unit/config_bed.h"

#include "config/apply.h"
#include "jobs/markers.h"

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class ApplyValid : public ConfigTest {
protected:
    ApplyValid() {
        given_active_job(R"({"jobId":"77", "action":"CFG", "status":"executed"})");
        given_changes("[]");
    }

    void apply(const std::string &candidate) {
        given_candidate(candidate);
        cmd_apply(client, job, false);
    }

    static std::string with_failsafe(const std::string &settings) {
        return new_config(R"("system":{"failsafe":)" + settings + "}");
    }
};

TEST_F(ApplyValid, ComparesOldAndNewBeforeTheCandidateBecomesTheRunningOne) {
    apply(new_config());

    EXPECT_THAT(calls_of({"get_config_change_list"}),
                ListIs("get_config_change_list /var/volatile/config/config.running "
                       "/var/volatile/config/config.new"));
    EXPECT_THAT(file_json(RUNNING), HasMembers(R"({"name":"new"})"));
    EXPECT_EQ(file_text(RUNNING_HASH), fakes::hash_of(json(new_config())));
}

TEST_F(ApplyValid, FindsTheChangedAreas) {
    fakes::config().change_list = Json::Value();

    apply(new_config(R"("gps":{"gps":{"enable":true}})"));

    EXPECT_THAT(published_topics(),
                AllOf(Contains("v1/device/config/gps/update"), Contains("v1/device/config/name/update"),
                      Not(Contains("v1/device/config/iot/update"))));
}

// --- is there a way back?

TEST_F(ApplyValid, FailsafeIsOffUnlessTheCandidateEnablesIt) {
    for (const char *settings : {R"({})", R"({"enable":false})", R"({"enable":"true"})", R"({"enable":1})",
                                 R"({"auto_mode":true})", R"("enable")"}) {
        fakes::config().apply_progress.clear();
        given_config(RUNNING, RUNNING_HASH, old_config());

        apply(with_failsafe(settings));

        EXPECT_THAT(job, HasMembers(R"({"failsafe_enabled":false, "status":"success"})")) << settings;
        EXPECT_THAT(progress(), Contains("config apply has failsafe disabled")) << settings;
        EXPECT_THAT(progress(), Not(Contains("config apply has failsafe enabled"))) << settings;
        EXPECT_FALSE(exists(FAILSAFE)) << settings;
    }
}

TEST_F(ApplyValid, FailsafeOfTheFormerConfigurationDoesNotCount) {
    given_config(RUNNING, RUNNING_HASH, R"({"name":"old", "system":{"failsafe":{"enable":true}}})");

    apply(new_config());

    EXPECT_EQ(job["failsafe_enabled"], false);
}

TEST_F(ApplyValid, UnreadableFailsafeSettingsMeanNoFailsafe) {
    fakes::always_returns("cmd_get_value_json", -1, "system.failsafe");

    apply(with_failsafe(R"({"enable":true})"));

    EXPECT_EQ(job["failsafe_enabled"], false);
    EXPECT_EQ(job["msg"], "config has been applied (no failsafe)");
}

TEST_F(ApplyValid, WithFailsafeTheJobSaysSo) {
    apply(with_failsafe(R"({"enable":true})"));

    EXPECT_THAT(job, HasMembers(R"({"failsafe_enabled":true, "status":"success", )"
                                R"("msg":"failsafe config verified"})"));
    EXPECT_THAT(progress(), AllOf(Contains("config apply has failsafe enabled"),
                                  Not(Contains("config apply has failsafe disabled"))));
}

TEST_F(ApplyValid, TheFirstFailsafeCopyIsTheConfigurationInForce) {
    apply(with_failsafe(R"({"enable":true})"));

    EXPECT_EQ(file_text(FAILSAFE), old_config());
    EXPECT_EQ(file_text(FAILSAFE_HASH), fakes::hash_of(json(old_config())));
    EXPECT_THAT(progress(), Not(Contains(HasSubstr("already exists"))));
}

TEST_F(ApplyValid, WithoutAutoModeTheFirstFailsafeCopyStays) {
    for (const char *settings : {R"({"enable":true})", R"({"enable":true, "auto_mode":false})",
                                 R"({"enable":true, "auto_mode":"true"})"}) {
        fakes::config().apply_progress.clear();
        given_config(RUNNING, RUNNING_HASH, old_config());
        given_config(FAILSAFE, FAILSAFE_HASH, R"({"name":"first"})");

        apply(with_failsafe(settings));

        EXPECT_THAT(file_json(FAILSAFE), IsJson(R"({"name":"first"})")) << settings;
        EXPECT_THAT(story(), Not(Contains(HasSubstr("to data:config.failsafe")))) << settings;
        EXPECT_THAT(progress(), Contains("failsafe config already exists and auto failsafe disabled, using "
                                         "existing failsafe config"))
            << settings;
    }
}

TEST_F(ApplyValid, WithAutoModeTheFailsafeCopyIsRefreshed) {
    given_config(FAILSAFE, FAILSAFE_HASH, R"({"name":"first"})");

    apply(with_failsafe(R"({"enable":true, "auto_mode":true})"));

    EXPECT_EQ(file_text(FAILSAFE), old_config());
    EXPECT_EQ(file_text(FAILSAFE_HASH), fakes::hash_of(json(old_config())));
    EXPECT_THAT(progress(), Not(Contains(HasSubstr("already exists"))));
}

TEST_F(ApplyValid, WithoutFailsafeNoFailsafeCopyIsTouched) {
    given_config(FAILSAFE, FAILSAFE_HASH, R"({"name":"first"})");

    apply(new_config());

    EXPECT_THAT(file_json(FAILSAFE), IsJson(R"({"name":"first"})"));
}

TEST_F(ApplyValid, DecidesOnFailsafeBeforeItAppliesAnything) {
    apply(with_failsafe(R"({"enable":true})"));

    const std::vector<std::string> seen = progress();
    EXPECT_THAT(std::vector(seen.begin(), seen.begin() + 4),
                ListIs("validating config", "config validation successful",
                       "config apply has failsafe enabled", "applying new config"));
}

TEST_F(ApplyValid, IgnoresCopiesThatFail) {
    fakes::always_returns("copy_file", -1);

    apply(with_failsafe(R"({"enable":true})"));

    EXPECT_EQ(job["status"], "success");
}

// --- the services do not take it

TEST_F(ApplyValid, AHardwareFailureEndsTheJobAndLeavesTheCandidateRunning) {
    given_changes(R"([{"path":"hardware", "cmd_apply":[]}, {"path":"apps", "cmd_apply":[]}])");
    fakes::will_return("cmd_hwconfig", {-1});
    given_config(FAILSAFE, FAILSAFE_HASH, R"({"name":"first"})");

    apply(with_failsafe(R"({"enable":true})"));

    EXPECT_THAT(job, HasMembers(R"({"status":"failed", "msg":"failure applying new config", )"
                                R"("failsafe_enabled":true})"));
    EXPECT_THAT(file_json(RUNNING), HasMembers(R"({"name":"new"})"));
    EXPECT_THAT(file_json(SAVED), IsJson(old_config()));
    EXPECT_THAT(file_json(FAILSAFE), IsJson(R"({"name":"first"})"));
    EXPECT_FALSE(exists(TIMER));
    EXPECT_THAT(story(), Not(Contains(HasSubstr("restore_failsafe"))));
    EXPECT_THAT(published_topics(), Not(Contains(HasSubstr("v1/device/config/"))));
    EXPECT_THAT(reported(), ListIs("failed"));
    EXPECT_FALSE(exists(NEW));
}

// --- without failsafe

TEST_F(ApplyValid, WithoutFailsafeTheCandidateIsCommittedAtOnce) {
    apply(new_config());

    EXPECT_THAT(job, HasMembers(R"j({"status":"success", "msg":"config has been applied (no failsafe)"})j"));
    EXPECT_THAT(file_json(SAVED), IsJson(new_config()));
    EXPECT_EQ(file_text(SAVED_HASH), fakes::hash_of(json(new_config())));
    EXPECT_THAT(calls_of({"ping_test"}), Not(Contains(HasSubstr("ping_test 3"))));
}

TEST_F(ApplyValid, WithoutFailsafeChangesAreAnnouncedAfterTheCommitAndBeforeTheOneReport) {
    given_changes(R"([{"path":"gps.gps"}, {"path":"apps"}])");

    apply(new_config());

    EXPECT_THAT(published_topics(), ListIs("v1/device/config/gps.gps/update", "v1/device/config/apps/update",
                                           "v1/device/job/77/ack"));
    EXPECT_THAT(reported(), ListIs("success"));
    const std::vector<std::string> order =
        calls_of({"save_hw_config_section_to_nv", "send_message", "clear_config_apply_in_progress"});
    EXPECT_THAT(order,
                ListIs("save_hw_config_section_to_nv", "send_message v1/device/config/gps.gps/update 77",
                       "send_message v1/device/config/apps/update 77",
                       testing::StartsWith("send_message v1/device/job/77/ack"),
                       "clear_config_apply_in_progress"));
}

TEST_F(ApplyValid, WithFailsafeTheReportBeforeTheCommitMayBeRepeatedAtTheEnd) {
    let_repeats_be_due();

    apply(with_failsafe(R"({"enable":true})"));

    const auto reports = published_on("v1/device/job/77/ack");
    ASSERT_EQ(reports.size(), 2U);
    EXPECT_EQ(reports[0].payload, reports[1].payload);
    EXPECT_EQ(reports[0].json["params"]["status"], "success");
}

// --- the copies of an apply with failsafe, in their order

TEST_F(ApplyValid, TheCopiesOfAnApplyWithFailsafeThatIsVerified) {
    given_changes(R"([{"path":"network.firewall", "cmd_apply":["/usr/bin/cmd_firewall apply"]}])");

    apply(with_failsafe(R"({"enable":true, "auto_mode":true, "destination_ip":"192.0.2.1"})"));

    EXPECT_THAT(story(), ListIs(
                             // the persistent candidate and the volatile one are made equal
                             "copy volatile:config.new to data:config.new", "flush",
                             // the candidate gets its hash
                             "hash volatile:config.new into volatile:config.new.hash",
                             // the candidate replaces the running configuration
                             "copy volatile:config.new to volatile:config.running",
                             "copy volatile:config.new.hash to volatile:config.running.hash",
                             // the persistent configuration becomes the way back
                             "copy data:config.json to data:config.failsafe",
                             "copy data:config.hash to data:config.failsafe.hash", "flush",
                             // the areas are applied
                             "run /usr/bin/cmd_firewall apply",
                             // the verification begins
                             "write data:FAILSAFE_TIMER", "flush",
                             // it ends, and the job with it
                             "write job:77", "flush",
                             // the running configuration becomes persistent
                             "copy volatile:config.running to data:config.json",
                             "copy volatile:config.running.hash to data:config.hash", "flush",
                             // the result stands in the job file
                             "write job:77", "flush",
                             // no candidate is left
                             "delete volatile:config.new", "delete volatile:config.new.hash",
                             "delete data:config.new", "flush"));
    EXPECT_THAT(file_json(SAVED), HasMembers(R"({"name":"new"})"));
}

TEST_F(ApplyValid, TheCopiesOfAnApplyWithFailsafeThatIsReverted) {
    fakes::always_returns("ping_test", -1, "3 192.0.2.1");

    apply(with_failsafe(R"({"enable":true, "auto_mode":true, "timer":1, "destination_ip":"192.0.2.1"})"));

    EXPECT_THAT(story(), ListIs(
                             // the persistent candidate and the volatile one are made equal
                             "copy volatile:config.new to data:config.new", "flush",
                             // the candidate gets its hash
                             "hash volatile:config.new into volatile:config.new.hash",
                             // the candidate replaces the running configuration
                             "copy volatile:config.new to volatile:config.running",
                             "copy volatile:config.new.hash to volatile:config.running.hash",
                             // the persistent configuration becomes the way back
                             "copy data:config.json to data:config.failsafe",
                             "copy data:config.hash to data:config.failsafe.hash", "flush",
                             // the verification begins
                             "write data:FAILSAFE_TIMER", "flush",
                             // it ends, and the job with it
                             "write job:77", "flush", "write job:77",
                             // the failsafe configuration is restored
                             "restore_failsafe_files_to_nv", "restore_failsafe_files_to_running",
                             "delete volatile:config.new", "delete volatile:config.new.hash",
                             "delete data:config.new", "flush",
                             // the services pick it up
                             "run /usr/bin/cmd_netgen apply", "run /bin/systemctl reload qtel-mgr",
                             "run /usr/bin/cmd_wifi apply",
                             // no candidate is left
                             "delete volatile:config.new", "delete volatile:config.new.hash",
                             "delete data:config.new", "flush"));
    EXPECT_THAT(file_json(SAVED), IsJson(old_config()));
    EXPECT_THAT(file_json(RUNNING), IsJson(old_config()));
    EXPECT_EQ(file_text(RUNNING_HASH), fakes::hash_of(json(old_config())));
}
