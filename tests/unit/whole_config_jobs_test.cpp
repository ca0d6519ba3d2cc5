// Configurations, from the request to what is in force: requests that meet an apply, cuts, a full disk.
#include "tests/unit/whole_jobs_bed.h"

#include "config/boot_recovery.h"

#include <future>
#include <thread>

using testing::Contains;
using testing::IsEmpty;
using testing::Not;

class WholeConfigJobs : public WholeJobs {
protected:
    WholeConfigJobs() { given_changes(R"([{"path":"network", "cmd_apply":["/usr/bin/cmd_any apply"]}])"); }

    // As a person at the router asks for a change: places the candidate, then tells the agent.
    void request(const std::string &candidate) {
        given_candidate(candidate);
        arrives("v1/device/cmd/config/apply", json(R"({"source":"test"})"));
    }

    void send_config_job(const std::string &config, const std::string &for_version = "") {
        Json::Value sent = json(R"({"jobId":"77", "action":"CFG", "params":{"configLevel":0}})");
        sent["value"] = json(config);
        sent["params"]["configHash"] = fakes::hash_of(json(config));
        if (!for_version.empty())
            sent["params"]["fwVer"] = for_version;
        send_job(sent);
    }

    static std::string with_failsafe(const std::string &name = "new") {
        return R"({"name":")" + name + R"(", "iot":{"vantrel_iot":{"enabled":true}},
                   "system":{"failsafe":{"enable":true, "timer":1, "destination_ip":"192.0.2.1"}}})";
    }

    static void lock_out() { fakes::always_returns("ping_test", -1); }

    static void fill_disk() {
        fakes::always_returns("write_json_file", -1, "/var/data/");
        fakes::always_returns("copy_file", -1, " /var/data/");
    }

    static std::string name_of(const char *config) { return file_json(config)["name"].asString(); }

    static Json::Value request_record() {
        return exists(std::string(ACTIVE_FOLDER) + "FAILSAFE_CONFIG") ? active_job("FAILSAFE_CONFIG")
                                                                      : archived_job("FAILSAFE_CONFIG");
    }

    // What is on the disk just before this entry of the journal.
    void cut_before(const std::string &entry) {
        before(entry, [this] { disk.save(); });
    }

    // The first boot after the cut, which finishes what it finds. Notes the status that it finds stored, and
    // the one at the first connection test.
    void boot_after_the_cut() {
        disk.boot();
        stored_at_the_cut = active_job("77")["status"].asString();
        client.abort_request_time = 0;
        fakes::config().apply_progress.clear();
        before("update_config_apply_status performing connection test",
               [this] { stored_at_the_test = active_job("77")["status"].asString(); });
        recover_config_job(client);
    }

    std::string stored_at_the_cut;
    std::string stored_at_the_test;
    PersistentFiles disk;
};

// --- a second request

TEST_F(WholeConfigJobs, ARequestDuringAnApplyLosesItsCandidateAndKeepsTheFirstOnesEnd) {
    when_run("cmd_any", [this] { request(with_failsafe("second")); });
    request(new_config());

    passes(1);

    EXPECT_EQ(name_of(SAVED), "new");
    EXPECT_FALSE(exists(NEW));
    EXPECT_THAT(request_record(), HasMembers(R"j({"status":"success",
                                                  "msg":"config has been applied (no failsafe)"})j"));
    passes(3);
    EXPECT_EQ(name_of(SAVED), "new");
}

TEST_F(WholeConfigJobs, ARequestAfterTheEndWasStoredFailsAlthoughTheFirstOneIsInForce) {
    before("delete_file /var/data/orv/vantrel_iot/jobs/active/LOCAL_FW_UPGRADE",
           [this] { request(with_failsafe("second")); });
    request(new_config());

    passes(3);

    EXPECT_THAT(request_record(), HasMembers(R"({"status":"failed",
                                                 "msg":"config apply has no new config to apply"})"));
    EXPECT_EQ(name_of(SAVED), "new");
    EXPECT_EQ(name_of(RUNNING), "new");
}

TEST_F(WholeConfigJobs, ACandidateThatIsReplacedDuringTheValidationIsAppliedWithoutOne) {
    std::vector<std::string> validated;
    fakes::config().validate = [&](const Json::Value &config, std::string &) {
        validated.push_back(config["name"].asString());
        if (validated.size() == 1)
            given_candidate(R"({"name":"second"})");
        return 0;
    };
    request(new_config());

    passes(3);

    EXPECT_THAT(validated, ListIs("new"));
    EXPECT_EQ(name_of(SAVED), "second");
}

// --- what stays uncommitted

TEST_F(WholeConfigJobs, WithoutADestinationItFailsAndRunsUncommitted) {
    fakes::device().cloud_host = "";
    send_config_job(new_config(R"("system":{"failsafe":{"enable":true}})"));

    passes(3);

    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"failed",
                                                 "msg":"no failsafe config destination IP defined"})"));
    EXPECT_EQ(name_of(RUNNING), "new");
    EXPECT_EQ(name_of(SAVED), "old");
}

TEST_F(WholeConfigJobs, SentAgainWhileItRunsUncommittedItIsASuccessThatCommitsNothing) {
    given_changes(R"([{"path":"hardware", "cmd_apply":[]}])");
    fakes::will_return("cmd_hwconfig", {-1});
    send_config_job(new_config());
    passes(1);
    ASSERT_EQ(active_job("77")["status"], "failed");
    acknowledge("77");
    passes(1);

    send_config_job(new_config());
    passes(1);
    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"success",
                                                 "msg":"config matches current device config"})"));
    EXPECT_EQ(name_of(RUNNING), "new");
    EXPECT_EQ(name_of(SAVED), "old");
}

TEST_F(WholeConfigJobs, ForTheRunningVersionTheRunningConfigurationIsASuccessWithoutAnApply) {
    fakes::config().database_texts["SYS_FW_VER"] = "1.0";
    send_config_job(old_config(), "1.0");

    passes(1);

    EXPECT_THAT(reported(), ListIs("success"));
    EXPECT_THAT(progress(), IsEmpty());
}

// --- what is known of a request

TEST_F(WholeConfigJobs, ARequestWithoutACandidateFailsWhateverItCarries) {
    Json::Value command;
    command["source"] = json(new_config());
    command["payload"] = json(new_config());
    arrives("v1/device/cmd/config/apply", command);

    passes(2);

    EXPECT_THAT(request_record(), HasMembers(R"({"status":"failed",
                                                 "msg":"config apply has no new config to apply"})"));
    EXPECT_EQ(name_of(RUNNING), "old");
    EXPECT_EQ(name_of(SAVED), "old");
}

TEST_F(WholeConfigJobs, TheEndOfARequestIsShownAndOnlyASuccessIsPublished) {
    fakes::config().validator_status = -1;
    request(new_config());
    passes(2);
    EXPECT_THAT(published(), IsEmpty());
    EXPECT_THAT(progress(), Contains("config validation failed"));

    fakes::config().validator_status = 0;
    request(new_config());
    passes(2);
    ASSERT_THAT(published_topics(), ListIs("v1/device/config/network/update"));
    EXPECT_EQ(published()[0].payload, "FAILSAFE_CONFIG");
    EXPECT_EQ(progress().back(), "config has been applied (no failsafe)");
}

TEST_F(WholeConfigJobs, AnUpdateForAllThatStartsAnApplyHoldsUpEveryMessageUntilItsEnd) {
    struct seen {
        bool messages_wait = false;
        std::thread::id thread;
    };
    const auto look = [this](seen &into) {
        into.thread = std::this_thread::get_id();
        into.messages_wait = std::async(std::launch::async, [this] {
                                 const std::unique_lock lock(client.message_mutex, std::try_to_lock);
                                 return !lock.owns_lock();
                             }).get();
    };
    seen by_a_pass;
    when_run("cmd_any", [&] { look(by_a_pass); });
    request(new_config());
    passes(1);
    EXPECT_FALSE(by_a_pass.messages_wait);

    seen by_the_update;
    when_run("cmd_any", [&] { look(by_the_update); });
    request(with_failsafe());
    arrives("v1/device/job/all/update", json(R"({"connected":true})"));
    EXPECT_TRUE(by_the_update.messages_wait);
    EXPECT_EQ(by_the_update.thread, std::this_thread::get_id()); // the one that reads messages
    EXPECT_EQ(request_record()["status"], "success");
}

// --- aborts

TEST_F(WholeConfigJobs, AnAbortAfterTheClockWasSetBackDoesNotCount) {
    request(new_config());
    advance(-60);
    arrives("v1/device/cmd/config/abort/apply");

    passes(1);

    EXPECT_EQ(request_record()["status"], "success");
}

TEST_F(WholeConfigJobs, AnAbortedRequestThatIsCutAfterItsEndIsAppliedByTheNextStart) {
    cut_before("delete_file /var/data/orv/vantrel_iot/jobs/active/LOCAL_FW_UPGRADE");
    request(new_config());
    advance(1);
    arrives("v1/device/cmd/config/abort/apply");
    passes(1);
    EXPECT_EQ(name_of(SAVED), "old");

    boot_after_the_cut();
    EXPECT_EQ(name_of(SAVED), "new");
    EXPECT_EQ(request_record()["status"], "success");
}

// --- cuts

TEST_F(WholeConfigJobs, AnAgentKilledAloneFindsTheCandidateRunningAndCommitsNothing) {
    const char *record = R"({"jobId":"77", "action":"CFG", "status":"executed", "cfg_verified":false})";
    given_active_job(record);
    write_text(JOB_COPY, record);
    write_text(NEW_COPY, new_config());
    given_config(RUNNING, RUNNING_HASH, new_config());

    recover_config_job(client);

    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"success", "msg":"no config changes to apply"})"));
    EXPECT_EQ(name_of(SAVED), "old");
    EXPECT_FALSE(exists(NEW_COPY));
}

TEST_F(WholeConfigJobs, BetweenTheTwoCommitsTheHashDoesNotMatch) {
    std::string config_then;
    std::string hash_then;
    before("copy_file /var/volatile/config/config.running.hash /var/data/", [&] {
        config_then = file_text(SAVED);
        hash_then = file_text(SAVED_HASH);
    });
    request(new_config());
    passes(1);

    EXPECT_EQ(config_then, new_config());
    EXPECT_EQ(hash_then, fakes::hash_of(json(old_config())));
}

TEST_F(WholeConfigJobs, ALockOutThatIsCutAfterItsEndWasStoredIsVerifiedAgain) {
    cut_before("restore_failsafe_files_to_nv");
    lock_out();
    send_config_job(with_failsafe());
    passes(1);

    boot_after_the_cut();
    EXPECT_EQ(stored_at_the_cut, "failed");
    EXPECT_EQ(stored_at_the_test, "executed");
    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"failed",
    "msg":"failsafe timer expired, reverting to config.failsafe"})"));
    EXPECT_EQ(name_of(SAVED), "old");
}

TEST_F(WholeConfigJobs, AVerifiedOneThatIsCutBetweenItsEndAndItsCommitIsVerifiedAgain) {
    cut_before("copy_file /var/volatile/config/config.running /var/data/orv/config.json");
    send_config_job(with_failsafe());
    passes(1);

    boot_after_the_cut();
    EXPECT_EQ(stored_at_the_cut, "success");
    EXPECT_EQ(stored_at_the_test, "executed");
    EXPECT_EQ(active_job("77")["status"], "success");
    EXPECT_EQ(name_of(SAVED), "new");
}

class WithAndWithoutFailsafe : public WholeConfigJobs, public testing::WithParamInterface<const char *> {
protected:
    std::string candidate() const {
        return std::string(GetParam()) == "Failsafe" ? with_failsafe() : new_config();
    }
};

INSTANTIATE_TEST_SUITE_P(Each, WithAndWithoutFailsafe, testing::Values("Failsafe", "NoFailsafe"),
                         [](const auto &each) { return std::string(each.param); });

TEST_P(WithAndWithoutFailsafe, OneThatIsCutAfterItsCommitIsFoundEqual) {
    cut_before("delete_file /var/data/orv/vantrel_iot/jobs/active/LOCAL_FW_UPGRADE");
    send_config_job(candidate());
    passes(1);

    boot_after_the_cut();
    EXPECT_EQ(stored_at_the_cut, "success");
    EXPECT_EQ(stored_at_the_test, "");
    EXPECT_EQ(active_job("77")["status"], "success");
    EXPECT_THAT(progress(), ListIs("no config changes to apply"));
    EXPECT_EQ(name_of(SAVED), "new");
}

// --- a full disk

TEST_P(WithAndWithoutFailsafe, OnADiskThatIsFullAtTheCommitASuccessIsToldOfWhatTheNextBootDoesNotHave) {
    before("copy_file /var/volatile/config/config.running /var/data/", fill_disk);
    send_config_job(candidate());
    passes(1);

    EXPECT_EQ(reported().back(), "success");
    EXPECT_EQ(name_of(RUNNING), "new");
    EXPECT_EQ(name_of(SAVED), "old"); // what the next boot makes the running one
}

TEST_P(WithAndWithoutFailsafe, WhoseEndCannotBeStoredIsReportedFailedAfterItsSuccessUntilThereIsRoom) {
    before("update_config_apply_status performing connection test", fill_disk);
    if (std::string(GetParam()) == "NoFailsafe")
        when_run("cmd_any", fill_disk);
    send_config_job(candidate());

    passes(3);
    const auto reports = published_on("v1/device/job/77/ack");
    ASSERT_GE(reports.size(), 4U);
    EXPECT_EQ(reported()[1], "success");
    for (const auto *report : {&reports[reports.size() - 2], &reports.back()})
        EXPECT_THAT(report->json["params"],
                    HasMembers(R"({"status":"failed", "msg":"config apply has no new config to apply"})"));
    EXPECT_NE(reports[reports.size() - 2].json["session"], reports.back().json["session"]);
    EXPECT_EQ(active_job("77")["status"], "executed");
    EXPECT_EQ(name_of(RUNNING), "new");
    EXPECT_EQ(name_of(SAVED), "old");

    fakes::reset_calls(); // room
    passes(1);
    EXPECT_EQ(active_job("77")["status"], "failed");
}

TEST_F(WholeConfigJobs, OnADiskThatIsFullALockOutIsNeitherVerifiedNorTakenBack) {
    when_run("cmd_any", [] {
        fill_disk();
        lock_out();
    });
    send_config_job(with_failsafe());

    passes(1);

    EXPECT_EQ(progress().back(), "error writing failsafe timer file");
    EXPECT_THAT(progress(), Not(Contains("performing connection test")));
    EXPECT_EQ(name_of(RUNNING), "new");
    EXPECT_EQ(name_of(SAVED), "old");
    passes(100);
    EXPECT_EQ(name_of(RUNNING), "new");
    EXPECT_THAT(reported(), ListIs("executed"));
}
