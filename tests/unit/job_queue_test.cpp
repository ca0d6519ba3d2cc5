// What the jobs of the queue do to one another, and what passes make of files that the intake did not write.
#include "tests/unit/job_manager_fixture.h"

#include "agent/acknowledgements.h"
#include "agent/job_intake.h"
#include "jobs/job_store.h"

#include <algorithm>
#include <filesystem>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>

using testing::Contains;
using testing::Each;
using testing::Ge;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

class Queue : public JobManagerTest {
protected:
    // A job of this status, stored this many seconds before now.
    static void given_job(const std::string &job_id, const std::string &status, time_t age,
                          const std::string &more = "") {
        given_active_job(R"({"jobId":")" + job_id + R"(", "status":")" + status + "\"" + more + "}",
                         fakes::now() - age);
    }

    static void given_file(const std::string &name, const std::string &text, time_t age) {
        write_text(ACTIVE_FOLDER + name, text, fakes::now() - age);
    }

    static void given_folder(const std::string &name, time_t age) {
        const std::string path = ACTIVE_FOLDER + name;
        std::filesystem::create_directory(path);
        const timespec changed = {.tv_sec = fakes::now() - age, .tv_nsec = 0};
        const timespec times[] = {changed, changed};
        utimensat(AT_FDCWD, path.c_str(), times, 0);
    }

    void run_passes(int count) {
        for (int i = 0; i < count; ++i) {
            process_jobs(client);
            advance(3);
        }
    }

    // The cloud's answer to the last report of a job.
    void cloud_answers(const std::string &job_id) {
        const auto reports = published_on("v1/device/job/" + job_id + "/ack");
        ASSERT_THAT(reports, Not(IsEmpty()));
        Json::Value answer;
        answer["jobId"] = job_id;
        answer["session"] = reports.back().json["session"];
        answer["rc"] = 200;
        job_pub_ack(client,
                    test_message("v1/device/job/" + job_id + "/pub_ack", answer.toStyledString()).get());
    }

    // Seconds from one report to the next, of all jobs together.
    static std::vector<time_t> pauses() {
        std::vector<time_t> between;
        const auto all = published();
        for (size_t i = 1; i < all.size(); ++i)
            between.push_back(all[i].at - all[i - 1].at);
        return between;
    }

    static constexpr const char *UNANSWERED = R"(, "ack":false, "ackId":5)";
};

// --- reports that wait for their answer

TEST_F(Queue, RepeatsTheOldestUnansweredReportAlone) {
    given_repeat_is_due();
    for (const char *id : {"1", "2", "3"})
        given_job(id, "success", 30 - atoi(id), UNANSWERED);

    run_for(120, [this] { job_mgr_main(client); });

    EXPECT_THAT(published_topics(), SizeIs(Ge(5U)));
    EXPECT_THAT(published_topics(), Each("v1/device/job/1/ack"));
    EXPECT_THAT(pauses(), Each(23)); // the first pass after more than 20 seconds
}

TEST_F(Queue, RepeatsTheNextReportOnceTheOldestIsAnswered) {
    given_repeat_is_due();
    for (const char *id : {"1", "2"})
        given_job(id, "success", 30 - atoi(id), UNANSWERED);
    process_jobs(client);
    cloud_answers("1");
    advance(21);

    process_jobs(client);

    EXPECT_THAT(reported("2"), ListIs("success"));
}

TEST_F(Queue, StartsAJobWithoutItsReceivedWhileAnOlderReportIsUnanswered) {
    given_repeat_is_due();
    given_job("1", "success", 30, UNANSWERED);
    given_job("2", "received", 20, UNANSWERED);

    run_passes(20);

    EXPECT_THAT(reported("1"), SizeIs(Ge(2U)));
    EXPECT_THAT(reported("2"), IsEmpty());
    EXPECT_THAT(neighbours::called, Contains("execute_job_action 2"));
}

TEST_F(Queue, DoesNotRepeatExecuted) {
    given_repeat_is_due();
    given_job("1", "executed", 30, R"(, "ack":false, "ackId":5, "action":"POST_CONFIG")");

    run_passes(20);

    EXPECT_THAT(published(), IsEmpty());
}

TEST_F(Queue, StartsNoJobBehindOneThatWaitsForItsService) {
    given_job("1", "executed", 30, R"(, "ack":true, "ackId":5, "action":"XTRA")");
    given_job("2", "received", 20, UNANSWERED);

    run_passes(3);

    EXPECT_THAT(neighbours::called, IsEmpty());
    EXPECT_THAT(active_jobs(), ListIs("1", "2"));
}

// --- an answer makes a job the youngest

TEST_F(Queue, StartsAJobThatCameBeforeTheAnswerToOneThatStays) {
    given_repeat_is_due();
    given_job("1", "received", 30, UNANSWERED);
    neighbours::inside = [&](Json::Value &job) {
        if (job_id_of(job) == "1")
            return; // as a job without action
        job[KEY_STATUS] = STATUS_SUCCESS;
        update_job_status(job, 0);
    };
    given_job("2", "received", 20, UNANSWERED);
    run_passes(2);
    EXPECT_THAT(neighbours::called, Each("execute_job_action 1"));
    neighbours::called.clear();

    cloud_answers("1");
    advance(1);
    given_job("3", "received", 0, UNANSWERED);
    run_passes(20);

    EXPECT_THAT(neighbours::called, Contains("execute_job_action 2"));
    EXPECT_THAT(neighbours::called, Not(Contains("execute_job_action 3")));
    EXPECT_THAT(reported("1"), ListIs("received"));
}

// --- a full disk

TEST_F(Queue, RunsAJobAgainUntilItsStatusCanBeStored) {
    given_job("1", "received", 30, UNANSWERED);
    neighbours::inside = [](Json::Value &job) {
        for (const char *status : {STATUS_EXECUTED, STATUS_SUCCESS}) {
            job[KEY_STATUS] = status;
            update_job_status(job, 0);
        }
    };
    fakes::always_returns("write_json_file", -1);
    run_passes(3);
    EXPECT_THAT(neighbours::called, SizeIs(3));

    fakes::reset_calls();
    run_passes(3);

    EXPECT_THAT(neighbours::called, SizeIs(4));
    EXPECT_THAT(active_job("1"), HasMembers(R"({"status":"success"})"));
}

// --- cleared while a pass is under way

TEST_F(Queue, TakesAJobThatIsClearedDuringAPassForCorruptAndFailsIt) {
    given_repeat_is_due();
    given_job("1", "success", 30, UNANSWERED);
    given_job("2", "received", 20, UNANSWERED);
    bool cleared = false;
    fakes::mqtt().after_publish = [&cleared](const fakes::published_message &) {
        if (!std::exchange(cleared, true))
            clear_active_jobs(); // arrives during the report of job 1
    };

    process_jobs(client);

    EXPECT_THAT(active_jobs(), ListIs("2"));
    EXPECT_THAT(active_job("2"), HasMembers(R"({"status":"failed", "ack":false})"));
    EXPECT_THAT(neighbours::called, IsEmpty());
    advance(21);
    process_jobs(client);
    EXPECT_THAT(reported("2"), ListIs("failed", "failed")); // by the clear, and by the pass
}

TEST_F(Queue, TakesAJobThatIsClearedDuringTheArchivingOfAnotherForCorruptToo) {
    given_job("1", "success", 30, R"(, "ack":true)");
    given_job("2", "received", 20, UNANSWERED);
    bool cleared = false;
    fakes::mqtt().after_publish = [&cleared](const fakes::published_message &) {
        if (!std::exchange(cleared, true))
            clear_active_jobs(); // the check-in ends the 5 seconds
    };

    process_jobs(client);

    EXPECT_THAT(active_job("2"), HasMembers(R"({"status":"failed", "ack":false})"));
}

TEST_F(Queue, TakesAJobThatAnotherPassHasArchivedForCorruptToo) {
    given_repeat_is_due();
    given_job("1", "success", 30, R"(, "ack":true)");
    given_job("2", "success", 20, R"(, "ack":true)");
    bool archived = false;
    fakes::mqtt().after_publish = [&archived](const fakes::published_message &) {
        if (!std::exchange(archived, true))
            archive_job_file(active_job("2")); // by the pass of an "/all/" update that came meanwhile
    };

    process_jobs(client);
    run_passes(10);

    EXPECT_THAT(archived_job("2"), HasMembers(R"({"status":"success"})"));
    EXPECT_THAT(active_job("2"), HasMembers(R"({"status":"failed", "ack":false})"));
    EXPECT_THAT(reported("2"), Contains("failed"));
}

TEST_F(Queue, DoesNotBringBackAJobThatIsClearedBetweenPasses) {
    given_job("1", "running", 30);
    given_job("2", "received", 20, UNANSWERED);
    process_jobs(client);
    clear_active_jobs();

    run_passes(2);

    EXPECT_THAT(active_jobs(), IsEmpty());
}

TEST_F(Queue, DoesNotBringBackAJobThatIsClearedWhileAnOlderOneRuns) {
    given_job("1", "received", 30, UNANSWERED);
    given_job("2", "received", 20, UNANSWERED);
    neighbours::inside = [](Json::Value &) { clear_active_jobs(); };

    run_passes(2);

    EXPECT_THAT(neighbours::called, ListIs("execute_job_action 1"));
    EXPECT_THAT(active_jobs(), IsEmpty());
}

// --- files put there by hand

TEST_F(Queue, StartsAJobUnderAnotherNameThanItsIdOnEachPass) {
    given_file("77", R"({"jobId":"88", "status":"received", "ack":false, "ackId":5})", 30);
    given_job("99", "received", 20);
    const std::string as_it_was = file_text(std::string(ACTIVE_FOLDER) + "77");
    neighbours::inside = [](Json::Value &job) {
        job[KEY_STATUS] = STATUS_SUCCESS;
        update_job_status(job, 1);
    };

    run_passes(3);

    EXPECT_THAT(neighbours::called,
                ListIs("execute_job_action 88", "execute_job_action 88", "execute_job_action 88"));
    EXPECT_EQ(file_text(std::string(ACTIVE_FOLDER) + "77"), as_it_was);
    EXPECT_THAT(active_job("88"), HasMembers(R"({"jobId":"88", "status":"success"})"));
}

TEST_F(Queue, NeverArchivesAFinishedJobUnderAnotherNameThanItsId) {
    given_file("77", R"({"jobId":"88", "status":"success", "ack":true})", 30);

    run_passes(3);

    EXPECT_THAT(active_jobs(), ListIs("77"));
    EXPECT_THAT(archived_jobs(), IsEmpty());
    EXPECT_THAT(published_topics(), SizeIs(3));
    EXPECT_THAT(published_topics(), Each("v1/device/cmd/checkin/apply"));
}

TEST_F(Queue, ClearsAJobUnderAnotherNameThanItsId) {
    given_file("777", R"({"jobId":"888", "status":"received", "ack":false, "ackId":5})", 30);

    clear_running_job();

    EXPECT_THAT(active_jobs(), IsEmpty());
    EXPECT_THAT(reported("888"), ListIs("failed"));
}

TEST_F(Queue, GoesOnPastAFolderAndNeverReportsIt) {
    given_folder("stray", 30);
    given_job("77", "received", 20);

    run_passes(3);

    const auto lines = log_lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         log_line{LOG_ALERT, "repairing and failing corrupt or missing job stray"}),
              3);
    EXPECT_THAT(neighbours::called, SizeIs(3));
    EXPECT_THAT(published(), IsEmpty());
    EXPECT_THAT(active_jobs(), ListIs("77", "stray"));
}

TEST_F(Queue, RevertsAnUnverifiedFirmwareBecauseOfAFolder) {
    given_unverified_firmware();
    given_folder("stray", 30);

    process_jobs(client);

    EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
}

class StatusOfTheWrongType : public Queue, public testing::WithParamInterface<const char *> {};

INSTANTIATE_TEST_SUITE_P(Each, StatusOfTheWrongType, testing::Values("{}", "[]", "5", "true", "null"));

TEST_P(StatusOfTheWrongType, EndsEachPassUntilTheJobIsCleared) {
    given_repeat_is_due();
    given_file("777",
               std::string(R"({"jobId":"777", "action":"CMD", "ack":false, "ackId":5, "status":)") +
                   GetParam() + "}",
               30);
    given_job("888", "received", 20);

    run_passes(10);

    EXPECT_THAT(neighbours::called, IsEmpty());
    EXPECT_THAT(published(), IsEmpty());
    EXPECT_TRUE(manager_mutex_is_free());

    clear_running_job();
    process_jobs(client);

    EXPECT_THAT(reported("777"), ListIs("failed"));
    EXPECT_THAT(neighbours::called, ListIs("execute_job_action 888"));
}

class AckOfTheWrongType : public Queue, public testing::WithParamInterface<const char *> {
protected:
    static std::string job_of(const std::string &status) {
        return R"({"jobId":"777", "status":")" + status + R"(", "ackId":5, "ack":)" + GetParam() + "}";
    }
};

INSTANTIATE_TEST_SUITE_P(Each, AckOfTheWrongType, testing::Values("{}", "[1]", R"("no")", R"("true")"));

TEST_P(AckOfTheWrongType, OfAFinishedJobEndsEachPassUntilTheJobIsCleared) {
    given_repeat_is_due();
    given_file("777", job_of("success"), 30);
    given_job("888", "received", 20);

    run_passes(10);

    EXPECT_THAT(neighbours::called, IsEmpty());
    EXPECT_THAT(published(), IsEmpty());

    clear_running_job();
    process_jobs(client);

    EXPECT_THAT(reported("777"), ListIs("failed"));
    EXPECT_THAT(neighbours::called, ListIs("execute_job_action 888"));
}

TEST_P(AckOfTheWrongType, OfAReceivedJobCostsItThatReportOnly) {
    given_repeat_is_due();
    given_file("777", job_of("received"), 30);
    neighbours::inside = [](Json::Value &job) {
        job[KEY_STATUS] = STATUS_SUCCESS;
        update_job_status(job, 1);
    };

    process_jobs(client);

    EXPECT_THAT(reported("777"), ListIs("success"));
    EXPECT_THAT(active_job("777"), HasMembers(R"({"status":"success", "ack":false})"));
}
