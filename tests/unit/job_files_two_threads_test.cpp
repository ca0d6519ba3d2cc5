// Job files under the two threads of the agent. Of use above all with the thread sanitizer.
#include "tests/unit/reporting_test.h"

#include "jobs/job_store.h"
#include "platform/vantrel.h"

#include <atomic>
#include <functional>
#include <thread>

using testing::Each;
using testing::Field;

namespace {

constexpr int ROUNDS = 40;

void on_two_threads(const std::function<void(const std::string &)> &work) {
    std::thread other(work, "job manager");
    work("mqtt");
    other.join();
}

} // namespace

class TwoThreads : public ReportingTest {};

TEST_F(TwoThreads, WritingOneJobLeaveOneOfTheRecordsWhole) {
    on_two_threads([](const std::string &writer) {
        Json::Value job = json(R"({"jobId":"77", "status":"received"})");
        job["first"] = writer;
        job["last"] = writer;
        for (int i = 0; i < ROUNDS; i++)
            EXPECT_EQ(write_job_file(job), 0);
    });

    EXPECT_THAT(active_jobs(), ListIs("77"));
    EXPECT_EQ(active_job("77")["first"], active_job("77")["last"]);
    EXPECT_EQ(calls_of({"write_json_file"}).size(), 2U * ROUNDS);
}

TEST_F(TwoThreads, NeverWriteAJobFileAtOnce) {
    std::atomic<int> writers_without_the_mutex = 0;
    fakes::before_change = [&](const fakes::call &call) {
        if (call.function != "write_json_file")
            return;
        std::thread([&] {
            const std::unique_lock lock(job_file_mutex, std::try_to_lock);
            writers_without_the_mutex += lock.owns_lock() ? 1 : 0;
        }).join();
    };

    on_two_threads([](const std::string &writer) {
        Json::Value job;
        job["jobId"] = writer;
        for (int i = 0; i < ROUNDS; i++)
            write_job_file(job);
    });

    EXPECT_EQ(writers_without_the_mutex, 0);
    EXPECT_THAT(active_jobs(), ListIs("job manager", "mqtt"));
}

TEST_F(TwoThreads, ReadNoPartOfAFileThatTheOtherWrites) {
    given_active_job(R"({"jobId":"77", "status":"0", "msg":"0"})");

    on_two_threads([](const std::string &name) {
        for (int i = 0; i < ROUNDS; i++) {
            Json::Value job;
            ASSERT_EQ(read_json_file(active_job_path("77").c_str(), job), 0);
            EXPECT_EQ(job["status"], job["msg"]);
            EXPECT_EQ(check_job_file("77"), 0);
            if (name == "mqtt") {
                job["status"] = job["msg"] = std::to_string(i);
                write_job_file(job);
            }
        }
    });
}

TEST_F(TwoThreads, MayBothListWhileBothWriteAndArchive) {
    on_two_threads([](const std::string &name) {
        for (int i = 0; i < ROUNDS; i++) {
            Json::Value job;
            job["jobId"] = name + std::to_string(i);
            write_job_file(job);
            Json::Value job_ids(Json::arrayValue);
            EXPECT_EQ(get_active_job_list(job_ids), 0);
            archive_job_file(job);
        }
    });

    EXPECT_TRUE(active_jobs().empty());
    EXPECT_EQ(archived_jobs().size(), 2U * ROUNDS);
}

TEST_F(TwoThreads, UpdateStatusesAndCountEachPublishOnce) {
    const int before = status_message_id;

    on_two_threads([](const std::string &id) {
        Json::Value job;
        job["jobId"] = id;
        for (int i = 0; i < ROUNDS; i++) {
            job["status"] = i % 2 == 0 ? "executed" : "success";
            update_job_status(job, 1);
        }
    });

    EXPECT_EQ(status_message_id, before + 2 * ROUNDS);
    EXPECT_EQ(published().size(), 2U * ROUNDS);
    EXPECT_THAT(published(), Each(Field(&fakes::published_message::message_id, &status_message_id)));
    EXPECT_THAT(active_job("mqtt"), HasMembers(R"({"status":"success", "ack":false})"));
    EXPECT_THAT(active_job("job manager"), HasMembers(R"({"status":"success", "ack":false})"));
}

TEST_F(TwoThreads, ShareOneRepeatInterval) {
    given_active_job(R"({"jobId":"mqtt", "status":"executed", "ack":false, "ackId":1})");
    given_active_job(R"({"jobId":"job manager", "status":"executed", "ack":false, "ackId":1})");
    fakes::on_sleep = [](unsigned) {}; // the clock stands still

    on_two_threads([](const std::string &id) {
        Json::Value job = active_job(id);
        for (int i = 0; i < ROUNDS; i++)
            update_job_status(job, 1);
    });

    // at most one each: the interval is looked at and moved without a lock
    EXPECT_THAT(published().size(), testing::AllOf(testing::Ge(1U), testing::Le(2U)));
}
