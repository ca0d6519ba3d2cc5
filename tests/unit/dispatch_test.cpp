// Which handler a message reaches. The handlers are this test's own.
#include "tests/fakes/agent_test.h"

#include "agent/acknowledgements.h"
#include "agent/client/tessard.h"
#include "agent/config_topics.h"
#include "agent/job_intake.h"
#include "agent/requests/abort_request.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <stdexcept>
#include <system_error>

using testing::HasSubstr;
using testing::IsEmpty;

namespace {

std::vector<std::string> handled; // "handler" or "handler what it was given"
std::function<void(tessard &)> inside_handler;

void note(tessard &client, const std::string &text) {
    handled.push_back(text);
    if (inside_handler)
        inside_handler(client);
}

std::string payload_of(const mosquitto_message *message) {
    return static_cast<const char *>(message->payload);
}

} // namespace

int job_apply(tessard &client, const mosquitto_message *message) {
    note(client, "job_apply " + payload_of(message));
    return 0;
}
void job_update(tessard &client, const mosquitto_message *message) {
    note(client, "job_update " + payload_of(message));
}
void job_pub_ack(tessard &client, const mosquitto_message *message) {
    note(client, "job_pub_ack " + payload_of(message));
}
void cmd_ack(tessard &client, const mosquitto_message *message) {
    note(client, "cmd_ack " + payload_of(message));
}
void cmd_apply_topic(tessard &client, const mosquitto_message *message) {
    note(client, "cmd_apply_topic " + payload_of(message));
}
void request_abort(tessard &client) {
    note(client, "request_abort");
}
void publish_config(tessard &client, const char *suffix) {
    note(client, suffix == nullptr ? "publish_config" : "publish_config with a suffix");
}
void process_config_reset(tessard &client, const char *request) {
    note(client, std::string("process_config_reset ") + request);
}
void process_attribute(tessard &client, const Json::Value &attributes) {
    note(client, "process_attribute " + client.serialize(attributes));
}

// The lock of the message hook, which the tests below make fail or look at.
namespace {

pthread_mutex_t *watched_mutex = nullptr;
std::function<int()> on_watched_lock;

} // namespace

extern "C" int __real_pthread_mutex_lock(pthread_mutex_t *mutex);
extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex);

extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex) {
    if (mutex == watched_mutex && on_watched_lock)
        if (const int error = on_watched_lock(); error != 0)
            return error;
    return __real_pthread_mutex_lock(mutex);
}

class Dispatch : public AgentTest {
protected:
    Dispatch() {
        handled.clear();
        inside_handler = nullptr;
        watched_mutex = nullptr;
        on_watched_lock = nullptr;
    }

    void deliver(const std::string &topic, const std::string &payload = "{}") {
        client.derived_on_message(test_message(topic, payload).get());
    }

    static log_line arrival(const std::string &topic) {
        return {LOG_DEBUG, std::to_string(getpid()) + " on_message: topic[" + topic + "]"};
    }

    bool mutex_is_free() { return free_for_another_thread(client.message_mutex); }

    tessard client{"tessard", "localhost", 1883};
};

struct route {
    const char *name;
    std::string topic;
    std::string handler;  // empty: none
    std::string log_line; // besides the line of the arrival; empty: none
};

static void PrintTo(const route &row, std::ostream *out) {
    *out << row.topic;
}

class Route : public Dispatch, public testing::WithParamInterface<route> {};

TEST_P(Route, LeadsToItsHandlerAlone) {
    deliver(GetParam().topic);

    std::vector<std::string> handlers;
    if (!GetParam().handler.empty())
        handlers.push_back(GetParam().handler);
    EXPECT_EQ(handled, handlers);

    std::vector<log_line> lines{arrival(GetParam().topic)};
    if (!GetParam().log_line.empty())
        lines.push_back({LOG_DEBUG, GetParam().log_line});
    EXPECT_EQ(log_lines(), lines);
    EXPECT_TRUE(mutex_is_free());
}

INSTANTIATE_TEST_SUITE_P(
    EachRule, Route,
    testing::Values(route{"JobApply", "v1/device/job/77/apply", "job_apply {}",
                          "tessard job apply message v1/device/job/77/apply"},
                    route{"JobUpdate", "v1/device/job/77/update", "job_update {}",
                          "tessard job update message v1/device/job/77/update"},
                    route{"JobPubAck", "v1/device/job/77/pub_ack", "job_pub_ack {}",
                          "tessard job pub ack message v1/device/job/77/pub_ack"},
                    route{"JobOther", "v1/device/job/77/other", "", ""},
                    route{"Abort", "v1/device/cmd/config/abort/apply", "request_abort", ""},
                    route{"CommandApply", "v1/device/cmd/config/apply", "cmd_apply_topic {}", ""},
                    route{"CommandAck", "v1/device/cmd/checkin/ack", "cmd_ack {}", ""},
                    route{"CommandOther", "v1/device/cmd/checkin/other", "", ""},
                    route{"ConfigPublish", "v1/device/config/publish", "publish_config", ""},
                    route{"ConfigReset", "v1/device/config/reset", "process_config_reset {}", ""},
                    route{"Attributes", "v1/devices/me/attributes", "process_attribute {}", ""},
                    route{"SubscribedButNotHandled", "v1/device/iot/job/update", "", ""},
                    route{"Foreign", "v2/device/job/77/apply", "", ""}, route{"Empty", "", "", ""}),
    [](const auto &row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(
    OrderConflict, Route,
    testing::Values(
        route{"ApplyBeforeUpdate", "v1/device/job/77/update/apply", "job_apply {}",
              "tessard job apply message v1/device/job/77/update/apply"},
        route{"ApplyBeforePubAck", "v1/device/job/77/pub_ack/apply", "job_apply {}",
              "tessard job apply message v1/device/job/77/pub_ack/apply"},
        route{"UpdateBeforePubAck", "v1/device/job/update/pub_ack", "job_update {}",
              "tessard job update message v1/device/job/update/pub_ack"},
        route{"AnIdThatEndsInApply", "v1/device/job/reapply/update", "job_update {}",
              "tessard job update message v1/device/job/reapply/update"},
        route{"AnIdThatEndsInUpdate", "v1/device/job/reupdate/pub_ack", "job_pub_ack {}",
              "tessard job pub ack message v1/device/job/reupdate/pub_ack"},
        route{"ACommandThatEndsInApply", "v1/device/cmd/reapply/ack", "cmd_ack {}", ""},
        route{"ACommandThatEndsInAck", "v1/device/cmd/back/other", "", ""},
        route{"AnIdThatHoldsApply", "v1/device/job/apply7/pub_ack", "job_apply {}",
              "tessard job apply message v1/device/job/apply7/pub_ack"},
        route{"JobBeforeCommand", "v1/device/cmd/v1/device/job/77/ack", "", ""},
        route{"JobBeforeConfigPublish", "v1/device/config/publish/v1/device/job/77/apply", "job_apply {}",
              "tessard job apply message v1/device/config/publish/v1/device/job/77/apply"},
        route{"AbortOnlyAsTheWholeTopic", "v1/device/cmd/config/abort/apply/1", "cmd_apply_topic {}", ""},
        route{"AbortOnlyFromTheFirstCharacter", "x/v1/device/cmd/config/abort/apply", "cmd_apply_topic {}",
              ""},
        route{"CommandApplyBeforeAck", "v1/device/cmd/apply/ack", "cmd_apply_topic {}", ""},
        route{"CommandBeforeConfigPublish", "v1/device/cmd/v1/device/config/publish", "", ""},
        route{"CommandBeforeReset", "v1/device/cmd/v1/device/config/reset", "", ""},
        route{"PublishBeforeReset", "v1/device/config/reset/v1/device/config/publish", "publish_config", ""},
        route{"PublishBeforeAttributes", "v1/devices/me/attributes/v1/device/config/publish",
              "publish_config", ""},
        route{"ResetBeforeAttributes", "v1/devices/me/attributes/v1/device/config/reset",
              "process_config_reset {}", ""}),
    [](const auto &row) { return std::string(row.param.name); });

INSTANTIATE_TEST_SUITE_P(
    AnywhereInTheTopic, Route,
    testing::Values(route{"Job", "x/v1/device/job/77/pub_ack/y", "job_pub_ack {}",
                          "tessard job pub ack message x/v1/device/job/77/pub_ack/y"},
                    route{"JobRuleBehindTheJobPart", "x/apply/v1/device/job/", "job_apply {}",
                          "tessard job apply message x/apply/v1/device/job/"},
                    route{"Command", "x/v1/device/cmd/7/acknowledged", "cmd_ack {}", ""},
                    route{"ConfigPublish", "x/v1/device/config/publish/0", "publish_config", ""},
                    route{"ConfigReset", "x/v1/device/config/resets", "process_config_reset {}", ""},
                    route{"Attributes", "x/v1/devices/me/attributes/y", "process_attribute {}", ""}),
    [](const auto &row) { return std::string(row.param.name); });

TEST_F(Dispatch, TheResetGetsThePayloadText) {
    deliver("v1/device/config/reset", "factory, not JSON");
    deliver("v1/device/config/reset", "");

    EXPECT_THAT(handled, ListIs("process_config_reset factory, not JSON", "process_config_reset "));
}

TEST_F(Dispatch, AttributesAreHandedOverParsed) {
    deliver("v1/devices/me/attributes", R"({ "a": [1, {"b": null}] })");

    EXPECT_THAT(handled, ListIs(R"(process_attribute {"a":[1,{"b":null}]})"));
}

TEST_F(Dispatch, AttributesThatAreNoJsonReachNobody) {
    deliver("v1/devices/me/attributes", "{");
    deliver("v1/devices/me/attributes", "");

    EXPECT_THAT(handled, IsEmpty());
    EXPECT_EQ(log_lines().size(), 2U); // the arrivals
}

TEST_F(Dispatch, AnEmptyPayloadReachesTheHandlerAsAnEmptyText) {
    deliver("v1/device/job/CLEAR_ACTIVE_JOBS/apply", "");

    EXPECT_THAT(handled, ListIs("job_apply "));
}

class ThrowingHandler : public Dispatch, public testing::WithParamInterface<const char *> {};

TEST_P(ThrowingHandler, LosesItsMessageAndNothingElse) {
    inside_handler = [](tessard &) { throw std::runtime_error("broken"); };
    deliver(GetParam());

    EXPECT_EQ(log_lines().back(), (log_line{LOG_NOTICE, "on_message: exception handler"}));
    EXPECT_TRUE(mutex_is_free());

    inside_handler = nullptr;
    handled.clear();
    deliver("v1/device/job/78/pub_ack");
    EXPECT_THAT(handled, ListIs("job_pub_ack {}"));
}

INSTANTIATE_TEST_SUITE_P(EachHandler, ThrowingHandler,
                         testing::Values("v1/device/job/77/apply", "v1/device/job/77/update",
                                         "v1/device/job/77/pub_ack", "v1/device/cmd/config/abort/apply",
                                         "v1/device/cmd/config/apply", "v1/device/cmd/checkin/ack",
                                         "v1/device/config/publish", "v1/device/config/reset",
                                         "v1/devices/me/attributes"));

TEST_F(Dispatch, WhateverAHandlerThrowsIsCaught) {
    inside_handler = [](tessard &) { throw 7; };
    deliver("v1/device/job/77/apply");
    inside_handler = [](tessard &) { Json::Value("text")["member"] = 1; };
    deliver("v1/device/job/77/apply");

    EXPECT_THAT(log_lines(), testing::Contains(Notice("on_message: exception handler")).Times(2));
}

TEST_F(Dispatch, TheMutexIsHeldWhileAHandlerRuns) {
    bool free_inside = true;
    inside_handler = [&](tessard &) { free_inside = mutex_is_free(); };
    deliver("v1/device/job/77/apply");

    EXPECT_FALSE(free_inside);
    EXPECT_TRUE(mutex_is_free());
}

TEST_F(Dispatch, TheArrivalIsLoggedBeforeTheLock) {
    std::vector<log_line> before_lock;
    on_watched_lock = [&] {
        before_lock = log_lines();
        return 0;
    };
    watched_mutex = client.message_mutex.native_handle();
    deliver("v1/device/job/77/apply");

    EXPECT_THAT(before_lock, ListIs(arrival("v1/device/job/77/apply")));
}

TEST_F(Dispatch, ALockThatFailsComesOutOfTheHook) {
    on_watched_lock = [] { return EINVAL; };
    watched_mutex = client.message_mutex.native_handle();

    EXPECT_THROW(deliver("v1/device/job/77/apply"), std::system_error);

    EXPECT_THAT(handled, IsEmpty());
    EXPECT_THAT(log_lines(), ListIs(arrival("v1/device/job/77/apply")));
}

TEST_F(Dispatch, TheLoopHandsMessagesOverOneByOne) {
    fakes::mqtt().incoming = {{"v1/device/job/1/apply", "one"}, {"v1/device/job/2/apply", "two"}};
    client.loop(-1, 1);
    EXPECT_THAT(handled, ListIs("job_apply one"));
    client.loop(-1, 1);
    EXPECT_THAT(handled, ListIs("job_apply one", "job_apply two"));
}
