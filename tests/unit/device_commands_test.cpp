// Jobs that another service of the device carries out.
#include "tests/unit/config_bed.h"

#include "actions/command_job.h"
#include "actions/device_commands.h"
#include "actions/dispatch.h"
#include "actions/requests/device_requests.h"
#include "jobs/job_status.h"

using testing::Contains;
using testing::IsEmpty;
using testing::IsNull;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

constexpr const char *CFGPUSH = "v1/device/cmd/cfgpush/apply";
constexpr const char *FILEPULL = "v1/device/cmd/filepull/apply";

class DeviceCommands : public ConfigTest {
protected:
    void given_job(const std::string &job_text) {
        job = json(job_text);
        given_active_job(job_text);
    }

    static fakes::published_message the_request(const std::string &topic) {
        const auto sent = published_on(topic);
        EXPECT_THAT(sent, SizeIs(1));
        return sent.empty() ? fakes::published_message{} : sent.front();
    }
};

// --- configuration push

class PostConfig : public DeviceCommands {
protected:
    PostConfig() {
        given_job(R"({"jobId":"77", "action":"POST_CONFIG", "value":{"a":[1]}, "status":"received"})");
    }
};

TEST_F(PostConfig, IsReportedExecutedAndThenHandedOver) {
    execute_action_cfgpush(job);

    EXPECT_EQ(job["status"], "executed");
    EXPECT_THAT(published_topics(), ListIs("v1/device/job/77/ack", CFGPUSH));
    const auto request = the_request(CFGPUSH);
    EXPECT_THAT(request.json, IsJson(R"({"value":{"a":[1]}, "session":1700000000, "jobId":"77"})"));
    EXPECT_THAT(request.message_id, IsNull());
    EXPECT_THAT(reported(), ListIs("executed"));
}

TEST_F(PostConfig, LogsNothingOfTheRequest) {
    execute_action_cfgpush(job);

    for (const log_line &line : log_lines())
        EXPECT_THAT(line.text, Not(testing::HasSubstr("cfgpush")));
}

TEST_F(PostConfig, ForwardsAnyValueUnchanged) {
    for (const char *value : {R"([1, {"b":null}])", "\"/\"", "7", "null", "{}"}) {
        fakes::mqtt().published.clear();
        job["value"] = json(value);

        execute_action_cfgpush(job);

        EXPECT_THAT(the_request(CFGPUSH).json["value"], IsJson(value));
    }
}

TEST_F(PostConfig, WithoutAReportItsSessionIsNull) {
    given_active_job(R"({"jobId":"77", "status":"executed"})"); // the status stands already

    execute_action_cfgpush(job);

    EXPECT_THAT(the_request(CFGPUSH).json, IsJson(R"({"value":{"a":[1]}, "session":null, "jobId":"77"})"));
    EXPECT_FALSE(job.isMember("ackId"));
}

TEST_F(PostConfig, WithoutAValueItFails) {
    job.removeMember("value");

    execute_action_cfgpush(job);

    EXPECT_THAT(job, HasMembers(R"({"status":"failed", "msg":"expected value property"})"));
    EXPECT_EQ(log_lines().front(), (log_line{LOG_DEBUG, "expected value property"}));
    EXPECT_THAT(reported(), ListIs("failed"));
    EXPECT_THAT(published_on(CFGPUSH), IsEmpty());
}

TEST_F(PostConfig, APublishThatFailsIsNotNoticed) {
    fakes::always_returns("send_message", 1, CFGPUSH);

    execute_action_cfgpush(job);

    EXPECT_EQ(job["status"], "executed");
    EXPECT_EQ(calls_of({"send_message"}).size(), 2U);
}

TEST_F(PostConfig, IsDispatched) {
    execute_job_action(client, job);

    EXPECT_THAT(published_on(CFGPUSH), SizeIs(1));
}

// --- the whole configuration

TEST_F(DeviceCommands, AFullPushAsksForTheRoot) {
    request_full_cfgpush();

    const auto request = the_request(CFGPUSH);
    EXPECT_THAT(request.json, IsJson(R"({"value":"/", "session":1700000000})"));
    EXPECT_THAT(request.message_id, IsNull());
    EXPECT_THAT(calls(), ListIs(StartsWith(std::string("send_message ") + CFGPUSH)));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(DeviceCommands, WithoutAClientNothingIsPublished) {
    iot_client = nullptr;
    given_job(R"({"jobId":"77", "action":"XTRA", "params":{"fileUrl":"u"}, "value":1, "status":"received"})");

    request_full_cfgpush();
    execute_action_cfgpush(job);
    job_action_xtra(job);

    EXPECT_THAT(published(), IsEmpty());
    EXPECT_EQ(active_job("77")["status"], "executed");
}

// --- satellite assistance data

class Xtra : public DeviceCommands {
protected:
    Xtra() {
        given_job(R"({"jobId":"77", "action":"XTRA", "params":{"fileUrl":"http://host/xtra.bin"},
                      "status":"received", "ackId":5})");
        write_text(FW_JOBID, "77");
        advance(30);
    }

    void expect_failed(const std::string &msg) {
        EXPECT_EQ(job["status"], "failed");
        EXPECT_EQ(job["msg"], msg);
        EXPECT_THAT(reported(), ListIs("failed"));
        EXPECT_THAT(published_on(FILEPULL), IsEmpty());
        EXPECT_FALSE(exists(FW_JOBID));
        EXPECT_EQ(calls().back(), "delete_file /var/volatile/orv/FW_JOBID");
        EXPECT_EQ(log_lines().front(), (log_line{LOG_NOTICE, "job_action_xtra"}));
    }
};

TEST_F(Xtra, IsStoredExecutedUnreportedAndHandedOver) {
    job_action_xtra(job);

    EXPECT_THAT(published_topics(), ListIs(FILEPULL));
    const auto request = the_request(FILEPULL);
    EXPECT_THAT(request.json,
                IsJson(R"({"url":"http://host/xtra.bin", "filepath":"/var/data/xtra/vantrel_xtra.bin",
                                         "jobId":"77", "session":1700000030})"));
    EXPECT_EQ(request.message_id, &cmd_message_id);
    EXPECT_EQ(request.message_id_value, 1000);
    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"executed", "ackId":1700000030})"));
    EXPECT_FALSE(active_job("77").isMember("ackTs"));
    EXPECT_THAT(log_lines(), ListIs(Notice("job_action_xtra"), Debug("write job file: 77"),
                                    Debug("send filepull command: " + request.payload)));
}

TEST_F(Xtra, IsStoredBeforeItIsHandedOverAndTheMarkIsDeletedLast) {
    job_action_xtra(job);

    EXPECT_THAT(calls(), ListIs("write_json_file /var/data/orv/vantrel_iot/jobs/active/77", "sync_to_fs 2",
                                StartsWith("send_message v1/device/cmd/filepull/apply"),
                                "delete_file /var/volatile/orv/FW_JOBID"));
}

TEST_F(Xtra, ForwardsAnyUrl) {
    job["params"]["fileUrl"] = json("[1]");
    job_action_xtra(job);
    EXPECT_THAT(the_request(FILEPULL).json["url"], IsJson("[1]"));
}

TEST_F(Xtra, AnotherActionFails) {
    for (const char *action : {"xtra", "XTRA2", ""}) {
        fakes::reset();
        write_text(FW_JOBID, "77");
        job = json(R"({"jobId":"77"})");
        job["action"] = action;
        job_action_xtra(job);
        expect_failed("expecting job action XTRA");
    }
}

TEST_F(Xtra, WithoutAnActionItFails) {
    job.removeMember("action");
    job.removeMember("params");
    job_action_xtra(job);
    expect_failed("expecting job action XTRA");
}

TEST_F(Xtra, WithoutParamsItFails) {
    job.removeMember("params");
    job_action_xtra(job);
    expect_failed("expecting params property");
}

TEST_F(Xtra, WithoutAUrlItFails) {
    job["params"] = json("{}");
    job_action_xtra(job);
    expect_failed("expecting fileUrl property");
}

TEST_F(Xtra, ParamsThatAreNoObjectHaveNoUrl) {
    for (const char *params : {"null", "[]", "\"fileUrl\"", "7"}) {
        fakes::reset();
        write_text(FW_JOBID, "77");
        job = json(R"({"jobId":"77", "action":"XTRA"})");
        job["params"] = json(params);
        job_action_xtra(job);
        expect_failed("expecting fileUrl property");
    }
}

TEST_F(Xtra, IsDispatched) {
    execute_job_action(client, job);

    EXPECT_THAT(published_on(FILEPULL), SizeIs(1));
}
