// The request to abort a running configuration apply.
#include "tests/fakes/agent_test.h"

#include "agent/requests/abort_request.h"

#include <thread>

using testing::IsEmpty;

class AbortRequest : public AgentTest {
protected:
    tessard client{"tessard", "localhost", 1883};

    static Json::Value job_received_at(time_t when) {
        Json::Value job = json(R"({"jobId":"FAILSAFE_CONFIG", "action":"FAILSAFE_CONFIG"})");
        job["timestamp"] = static_cast<Json::Int>(when);
        return job;
    }
};

TEST_F(AbortRequest, IsTheTimeAtWhichItCame) {
    request_abort(client);

    EXPECT_EQ(client.abort_request_time, START_TIME);
    EXPECT_THAT(log_lines(), ListIs(Debug("Abort cmd apply requested at time 1700000000")));
}

TEST_F(AbortRequest, ALaterOneReplacesTheFormer) {
    request_abort(client);
    advance(5);
    request_abort(client);

    EXPECT_EQ(client.abort_request_time, START_TIME + 5);
}

TEST_F(AbortRequest, ASecondAfterTheJobAbortsIt) {
    const Json::Value job = job_received_at(START_TIME);
    advance(1);
    request_abort(client);

    EXPECT_TRUE(check_abort(client, job));
    EXPECT_EQ(log_lines().back(),
              (log_line{LOG_DEBUG, "Need to abort (job time:1700000000 abort request time:1700000001)"}));
    EXPECT_EQ(client.abort_request_time, START_TIME + 1) << "a check does not take the request away";
}

TEST_F(AbortRequest, InTheSecondOfTheJobItDoesNotAbortIt) {
    request_abort(client);

    EXPECT_FALSE(check_abort(client, job_received_at(START_TIME)));
    EXPECT_EQ(log_lines().size(), 1U);
}

TEST_F(AbortRequest, BeforeTheJobItDoesNotAbortIt) {
    request_abort(client);

    EXPECT_FALSE(check_abort(client, job_received_at(START_TIME + 60)));
}

TEST_F(AbortRequest, WithoutOneNoJobIsAborted) {
    EXPECT_FALSE(check_abort(client, job_received_at(START_TIME)));
    EXPECT_FALSE(check_abort(client, job_received_at(0)));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(AbortRequest, OnlyTheDevicesOwnConfigurationJobIsAborted) {
    request_abort(client);
    for (const char *action : {"CFG", "FAILSAFE_CONFIG2", "failsafe_config", "FAILSAFE", ""}) {
        Json::Value job = job_received_at(1);
        job["action"] = action;
        EXPECT_FALSE(check_abort(client, job)) << action;
    }
    for (const char *job : {R"({"timestamp":1})", R"({"action":null, "timestamp":1})",
                            R"({"action":["FAILSAFE_CONFIG"], "timestamp":1})", "{}", "[]", "null"})
        EXPECT_FALSE(check_abort(client, json(job))) << job;
}

TEST_F(AbortRequest, AJobWithoutTimeIsNotAborted) {
    request_abort(client);
    for (const char *job :
         {R"({"action":"FAILSAFE_CONFIG"})", R"({"action":"FAILSAFE_CONFIG", "timestamp":"1"})",
          R"({"action":"FAILSAFE_CONFIG", "timestamp":null})"})
        EXPECT_FALSE(check_abort(client, json(job))) << job;
}

TEST_F(AbortRequest, IsForgottenWhenCleared) {
    request_abort(client);
    clear_abort_request(client);

    EXPECT_EQ(client.abort_request_time, 0);
    EXPECT_FALSE(check_abort(client, job_received_at(1)));
}

TEST_F(AbortRequest, ComesByMessageWhateverItsPayload) {
    for (const char *payload : {"", "{", "{}"}) {
        clear_abort_request(client);
        client.on_message(test_message("v1/device/cmd/config/abort/apply", payload).get());
        EXPECT_EQ(client.abort_request_time, START_TIME);
    }
}

TEST_F(AbortRequest, MayComeWhileTheOtherThreadChecks) {
    const Json::Value job = job_received_at(START_TIME - 1);
    std::thread checking([&] {
        while (!check_abort(client, job))
            std::this_thread::yield();
        clear_abort_request(client);
    });
    request_abort(client);
    checking.join();

    EXPECT_EQ(client.abort_request_time, 0);
}
