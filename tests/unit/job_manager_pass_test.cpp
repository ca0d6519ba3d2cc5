// A pass over the active jobs.
#include "tests/unit/job_manager_fixture.h"

#include <filesystem>
#include <future>
#include <stdexcept>
#include <thread>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

class Pass : public JobManagerTest {
protected:
    // A job of this status, stored this many seconds before now.
    static void given_job(const std::string &job_id, const std::string &status, time_t age,
                          const std::string &more = "") {
        given_active_job(R"({"jobId":")" + job_id + R"(", "status":")" + status + "\"" + more + "}",
                         fakes::now() - age);
    }

    static void given_corrupt_job(const std::string &job_id, time_t age, const std::string &text = "{}") {
        write_text(ACTIVE_FOLDER + job_id, text, fakes::now() - age);
    }
};

TEST_F(Pass, OverNoJobsDoesNothing) {
    EXPECT_EQ(process_jobs(client), 0);

    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_THAT(calls(), IsEmpty());
}

// --- busy

TEST_F(Pass, DoesNothingWhileAFirmwareJobRuns) {
    set_fw_job_executing(1);
    set_config_job_executing(1);
    set_critical_job_executing(1);
    given_job("1", "received", 10);
    fakes::reset_calls();

    EXPECT_EQ(process_jobs(client), 0);

    EXPECT_THAT(log_lines(), ListIs(Alert("FW job in progress")));
    EXPECT_THAT(all_calls(), SizeIs(1)); // the line
}

TEST_F(Pass, DoesNothingWhileAConfigurationIsApplied) {
    set_config_job_executing(1);
    set_critical_job_executing(1);
    given_job("1", "received", 10);
    fakes::reset_calls();

    EXPECT_EQ(process_jobs(client), 0);

    EXPECT_THAT(log_lines(), ListIs(Alert("Config apply job in progress")));
    EXPECT_THAT(all_calls(), SizeIs(1));
}

TEST_F(Pass, DoesNothingWhileACriticalJobRuns) {
    set_critical_job_executing(1);
    given_job("1", "received", 10);
    fakes::reset_calls();

    EXPECT_EQ(process_jobs(client), 0);

    EXPECT_THAT(log_lines(), ListIs(Notice("Critical job execution in progress")));
    EXPECT_THAT(all_calls(), SizeIs(1));
}

TEST_F(Pass, GoesOnWhileTheModemsFirmwareIsUpdated) {
    set_radiofw_job_executing(1);
    given_job("1", "received", 10);

    process_jobs(client);

    EXPECT_THAT(neighbours::called, ListIs("execute_job_action 1"));
}

TEST_F(Pass, AsksTheFlagsNotTheMarkers) {
    for (const char *marker : {FW_JOB_MARKER, CONFIG_JOB_MARKER, CRITICAL_JOB_MARKER})
        write_text(marker, "1\n");
    given_job("1", "received", 10);

    process_jobs(client);

    EXPECT_THAT(neighbours::called, ListIs("execute_job_action 1"));
}

// --- the list

TEST_F(Pass, FailsWhenTheJobsCannotBeListed) {
    std::filesystem::remove(ACTIVE_FOLDER);
    given_unverified_firmware();

    EXPECT_EQ(process_jobs(client), -1);

    EXPECT_THAT(log_lines(), ListIs(Notice("process_jobs: get_active_job_list failed")));
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_TRUE(exists(FIRMWARE_UPDATED_FILE));
}

TEST_F(Pass, StartsTheOldestUnfinishedJobAlone) {
    given_job("1", "received", 10);
    given_job("2", "received", 30);
    given_job("3", "received", 20);

    EXPECT_EQ(process_jobs(client), 0);

    EXPECT_THAT(neighbours::called, ListIs("execute_job_action 2"));
    EXPECT_THAT(log_lines()[0], Notice("processing job: 2"));
    EXPECT_THAT(log_lines(), Not(Contains(Notice(StartsWith("processing job: 3")))));
    EXPECT_EQ(neighbours::client, &client);
}

TEST_F(Pass, EndsAtAnUnfinishedJobEvenWhenThereIsNothingToDoForIt) {
    given_job("1", "running", 30);
    given_job("2", "received", 20);

    EXPECT_EQ(process_jobs(client), 0);

    EXPECT_THAT(neighbours::called, IsEmpty());
    EXPECT_THAT(log_lines().back(), Notice("process_active_job job: 1 status: running"));
}

TEST_F(Pass, StartsTheNewerJobOnceTheOlderHasEnded) {
    given_job("1", "received", 30);
    given_job("2", "received", 20);
    neighbours::inside = [&](Json::Value &job) {
        job[KEY_STATUS] = STATUS_SUCCESS;
        update_job_status(job, 0);
    };

    process_jobs(client);
    EXPECT_THAT(neighbours::called, ListIs("execute_job_action 1"));
    process_jobs(client);
    EXPECT_THAT(neighbours::called, ListIs("execute_job_action 1", "execute_job_action 2"));
}

TEST_F(Pass, ReportsAFinishedJobAndGoesOnWithTheNext) {
    given_repeat_is_due();
    given_job("1", "failed", 30, R"(, "ack":false, "ackId":5)");
    given_job("2", "received", 20);

    EXPECT_EQ(process_jobs(client), 0);

    EXPECT_THAT(reported("1"), ListIs("failed"));
    EXPECT_THAT(active_jobs(), ListIs("1", "2"));
    EXPECT_THAT(neighbours::called, ListIs("execute_job_action 2"));
}

TEST_F(Pass, ReportsOnlyTheFirstOfTheFinishedJobsThatWait) {
    given_repeat_is_due();
    for (const char *id : {"1", "2", "3"})
        given_job(id, "success", 30 - atoi(id), R"(, "ack":false, "ackId":5)");

    EXPECT_EQ(process_jobs(client), 0);

    EXPECT_THAT(published_topics(), ListIs("v1/device/job/1/ack"));
    EXPECT_THAT(log_lines(), Contains(Notice("update_job_status: 3 success post_status: 1")));
}

TEST_F(Pass, ArchivesEveryAcknowledgedJobAndGoesOnWithTheNext) {
    given_job("1", "success", 30, R"(, "ack":true)");
    given_job("2", "failed", 20, R"(, "ack":true)");
    given_job("3", "received", 10);

    EXPECT_EQ(process_jobs(client), 0);

    EXPECT_THAT(archived_jobs(), ListIs("1", "2"));
    EXPECT_THAT(sleeps(), ElementsAre(5, 5));
    EXPECT_THAT(published_topics(), ListIs("v1/device/cmd/checkin/apply", "v1/device/cmd/checkin/apply"));
    EXPECT_THAT(neighbours::called, ListIs("execute_job_action 3"));
}

TEST_F(Pass, LocksForEachJobAndNotForTheWholeOfIt) {
    given_job("1", "success", 30, R"(, "ack":true)");
    given_corrupt_job("2", 20);
    bool free = false;
    fakes::before_change = [&](const fakes::call &change) {
        if (change.text == std::string(ACTIVE_FOLDER) + "2")
            free = manager_mutex_is_free();
    };

    process_jobs(client);

    EXPECT_TRUE(free);
}

// --- corrupt jobs

class CorruptJob : public Pass, public testing::WithParamInterface<const char *> {};

INSTANTIATE_TEST_SUITE_P(Text, CorruptJob,
                         testing::Values("", "{}", "[]", "no JSON", R"({"jobId":"77"})",
                                         R"({"status":"received"})", R"({"jobId":"77", "status":"rec)"));

TEST_P(CorruptJob, IsReplacedByAFailedOneAndTheNextIsHandled) {
    given_corrupt_job("77", 30, GetParam());
    given_job("78", "received", 20);

    EXPECT_EQ(process_jobs(client), 0);

    EXPECT_THAT(active_job("77"), IsJson(R"({"jobId":"77", "status":"failed", "ack":false,
                                             "ackTs":1700000000, "ackId":1700000000})"));
    EXPECT_THAT(log_lines()[1], Alert("repairing and failing corrupt or missing job 77"));
    EXPECT_THAT(log_lines()[2], Debug("write job file: 77"));
    EXPECT_THAT(published(), IsEmpty());
    EXPECT_THAT(neighbours::called, ListIs("execute_job_action 78"));
}

TEST_F(Pass, TellsTheCloudLaterThatACorruptJobFailed) {
    given_repeat_is_due();
    given_corrupt_job("77", 30);
    const auto repaired_at = fakes::now();
    process_jobs(client);
    advance(3);
    process_jobs(client);

    EXPECT_THAT(reported("77"), ListIs("failed"));
    EXPECT_EQ(published().at(0).json["session"], static_cast<Json::Int>(repaired_at));
}

TEST_F(Pass, StampsARepairWithTheTimeAtWhichItBegan) {
    given_job("1", "success", 30, R"(, "ack":true)");
    given_corrupt_job("2", 20);
    process_jobs(client);

    EXPECT_EQ(fakes::now(), START_TIME + 5);
    EXPECT_EQ(active_job("2")["ackTs"], static_cast<Json::Int>(START_TIME));
}

TEST_F(Pass, GoesOnWhenARepairCannotBeStored) {
    given_corrupt_job("77", 30);
    given_job("78", "received", 20);
    fakes::will_return("write_json_file", {-1});

    EXPECT_EQ(process_jobs(client), 0);

    EXPECT_THAT(neighbours::called, ListIs("execute_job_action 78"));
}

// --- while an installed firmware is not verified

class PassOnUnverifiedFirmware : public Pass {
protected:
    PassOnUnverifiedFirmware() {
        given_unverified_firmware();
        write_text("/var/data/orv/config.staged", "{}");
        write_text("/var/data/orv/config.staged.hash", "h");
    }
};

TEST_F(PassOnUnverifiedFirmware, RevertsItWhenItsJobIsGone) {
    EXPECT_EQ(process_jobs(client), 0);

    EXPECT_THAT(calls_of({"delete_file", "syslog", "switch_firmware_partition"}),
                ListIs("delete_file /var/data/orv/config.staged",
                       "delete_file /var/data/orv/config.staged.hash",
                       "delete_file /var/data/orv/FIRMWARE_UPDATED",
                       "syslog FW upgrade aborted due to missing job file, reverting to previous FW.",
                       "switch_firmware_partition"));
    EXPECT_THAT(log_lines(),
                ListIs(Alert("FW upgrade aborted due to missing job file, reverting to previous FW.")));
    EXPECT_THAT(names_in("/var/data/orv"), ListIs("vantrel_iot"));
}

TEST_F(PassOnUnverifiedFirmware, KeepsItWhileThereIsAJob) {
    given_job("1", "success", 30, R"(, "ack":false)");

    EXPECT_EQ(process_jobs(client), 0);

    EXPECT_TRUE(exists(FIRMWARE_UPDATED_FILE));
    EXPECT_THAT(reboots(), IsEmpty());
}

TEST_F(PassOnUnverifiedFirmware, LeavesALocalUpgradeAlone) {
    write_text(LOCAL_FW_UPGRADE_FILE, "");

    EXPECT_EQ(process_jobs(client), 0);

    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(PassOnUnverifiedFirmware, RepairsACorruptJobOfALocalUpgradeAsEver) {
    write_text(LOCAL_FW_UPGRADE_FILE, "");
    given_corrupt_job("77", 30);

    process_jobs(client);

    EXPECT_THAT(log_lines(), Contains(Alert("repairing and failing corrupt or missing job 77")));
    EXPECT_THAT(reboots(), IsEmpty());
}

TEST_F(PassOnUnverifiedFirmware, RevertsItWhenAJobIsCorrupt) {
    given_corrupt_job("77", 30);

    EXPECT_EQ(process_jobs(client), 0);

    EXPECT_THAT(active_job("77"), IsJson(R"({"jobId":"77", "status":"failed", "ack":false, "action":"FW"})"));
    EXPECT_THAT(log_lines()[1], Alert("FW job corrupted, reverting to previous FW"));
    EXPECT_THAT(log_lines().back(), Alert("finalise FW install, job status: failed"));
    EXPECT_FALSE(exists(FIRMWARE_UPDATED_FILE));
    EXPECT_FALSE(exists("/var/data/orv/config.staged"));
    EXPECT_FALSE(exists("/var/data/orv/config.staged.hash"));
    EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
}

TEST_F(PassOnUnverifiedFirmware, GoesOnWithTheNextJobAfterACorruptOne) {
    given_corrupt_job("77", 30);
    given_corrupt_job("78", 20, "no JSON");
    given_job("79", "received", 10);

    EXPECT_EQ(process_jobs(client), 0);

    EXPECT_EQ(active_job("78")["action"], "FW");
    EXPECT_THAT(reboots(), ListIs("switch_firmware_partition", "switch_firmware_partition"));
    EXPECT_THAT(neighbours::called, ListIs("execute_job_action 79"));
}

// --- what throws

TEST_F(Pass, CatchesWhatAnActionThrows) {
    for (const auto &thrown : std::vector<std::function<void(Json::Value &)>>{
             [](Json::Value &) { throw std::runtime_error("x"); }, [](Json::Value &) { throw 1; }}) {
        given_job("1", "received", 30);
        neighbours::inside = thrown;

        EXPECT_EQ(process_jobs(client), 0);

        EXPECT_THAT(log_lines().back(), Notice("process_jobs: exception handler"));
        EXPECT_TRUE(manager_mutex_is_free());
    }
}

TEST_F(Pass, AfterAnExceptionStartsAgain) {
    given_job("1", "received", 30);
    neighbours::inside = [](Json::Value &) { throw 1; };
    process_jobs(client);
    process_jobs(client);

    EXPECT_THAT(neighbours::called, SizeIs(2));
}

// --- two threads

TEST_F(Pass, OfTwoThreadsAtOnceStartsAJobOnce) {
    given_job("1", "received", 30);
    given_job("2", "received", 20);
    std::promise<void> started;
    std::promise<void> go_on;
    neighbours::inside = [&](Json::Value &job) {
        if (job[KEY_JOB_ID] == "1") {
            started.set_value();
            go_on.get_future().wait();
        }
        job[KEY_STATUS] = STATUS_SUCCESS;
        update_job_status(job, 0);
    };
    std::thread manager([&] { process_jobs(client); });
    started.get_future().wait();
    std::thread update([&] { process_jobs(client); });
    go_on.set_value();
    manager.join();
    update.join();

    EXPECT_EQ(std::count(neighbours::called.begin(), neighbours::called.end(), "execute_job_action 1"), 1);
    EXPECT_LE(neighbours::called.size(), 2U);
    EXPECT_EQ(active_job("1")["status"], "success");
}
