// The first status of a process: what stands before it, and where the first repeat interval begins.
#include "tests/fakes/agent_test.h"

#include "agent/client/tessard.h"
#include "jobs/job_status.h"

#include <unistd.h>

#include <functional>

using testing::IsEmpty;

// This process itself never updates a status; each test does so in one forked from it.
class FirstStatusDeathTest : public AgentTest {
protected:
    static void in_a_new_process(const std::function<void()> &body) {
        const auto run = [&] {
            body();
            _exit(HasFailure() ? 1 : 0);
        };
        EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
    }

    void report(int post_status) {
        job["jobId"] = "77";
        job["status"] = "executed";
        update_job_status(job, post_status);
    }

    size_t repeats_at(time_t time) {
        set_time(time);
        const size_t before = published().size();
        report(1);
        return published().size() - before;
    }

    tessard client{"tessard", "localhost", 1883};
    Json::Value job;
};

TEST_F(FirstStatusDeathTest, FindsNoClientAndACounterAt1000) {
    in_a_new_process([&] {
        EXPECT_EQ(iot_client, nullptr);
        EXPECT_EQ(status_message_id, 1000);

        iot_client = &client;
        report(1);

        ASSERT_EQ(published().size(), 1U);
        EXPECT_EQ(published()[0].message_id_value, 1001);
    });
}

TEST_F(FirstStatusDeathTest, BeginsTheFirstIntervalWithItsTime) {
    in_a_new_process([&] {
        iot_client = &client;
        report(0);

        EXPECT_EQ(repeats_at(START_TIME), 0U); // not strictly later
        EXPECT_EQ(repeats_at(START_TIME + 1), 1U);
        EXPECT_EQ(repeats_at(START_TIME + 21), 0U);
        EXPECT_EQ(repeats_at(START_TIME + 22), 1U);
    });
}

TEST_F(FirstStatusDeathTest, IsNoReceivedOfAJobThatIsStored) {
    in_a_new_process([&] {
        iot_client = &client;
        given_active_job(R"({"jobId":"77", "status":"received", "ack":false, "ackId":1})");
        job = active_job("77");
        update_job_status(job, 1);

        report(1);

        ASSERT_EQ(published().size(), 1U);
        EXPECT_EQ(published()[0].json["params"]["status"], "executed");
    });
}

TEST_F(FirstStatusDeathTest, BeginsItAlsoWhenTheRecordIsRefused) {
    in_a_new_process([&] {
        iot_client = &client;
        Json::Value no_job;
        update_job_status(no_job, 1);
        given_active_job(R"({"jobId":"77", "status":"executed", "ack":false, "ackId":1})");
        job = active_job("77");

        EXPECT_EQ(repeats_at(START_TIME + 1), 1U);
    });
}

TEST_F(FirstStatusDeathTest, BeginsItOnlyOnce) {
    in_a_new_process([&] {
        iot_client = &client;
        report(0);
        set_time(START_TIME + 100);
        job["status"] = "success";
        update_job_status(job, 0);
        job["status"] = "executed";
        update_job_status(job, 0);

        EXPECT_EQ(repeats_at(START_TIME + 100), 1U);
    });
}

TEST_F(FirstStatusDeathTest, IsOverAfterItsOwnPause) {
    in_a_new_process([&] {
        iot_client = &client;
        report(1);
        EXPECT_EQ(published().size(), 1U);
        EXPECT_EQ(time(nullptr), START_TIME + 2);

        report(1); // only a repeat holds up the next: the first may follow at once

        EXPECT_EQ(published().size(), 2U);
    });
}
