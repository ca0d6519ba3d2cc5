// The status message itself, and the network check before it.
#include "tests/unit/reporting_test.h"

using testing::IsEmpty;

class SendJobStatus : public ReportingTest {
protected:
    Json::Value sent(const std::string &job_text) {
        send_job_status(client, json(job_text));
        return published().empty() ? Json::Value() : published().back().json;
    }
};

TEST_F(SendJobStatus, PublishesIdAndStatusUnderTheSession) {
    const auto report =
        sent(R"({"jobId":"1234-abc", "status":"executed", "ackId":1700000000, "action":"CMD"})");

    EXPECT_THAT(report, IsJson(R"({"method":"updateJob", "session":1700000000,
                                   "params":{"jobId":"1234-abc", "status":"executed"}})"));
    EXPECT_THAT(published_topics(), ListIs("v1/device/job/1234-abc/ack"));
}

TEST_F(SendJobStatus, AddsFirmwareVersionAndMessageAsTheyAre) {
    EXPECT_THAT(sent(R"({"jobId":"77", "status":"failed", "ackId":1, "fwVer":"2.1", "msg":"because"})"),
                IsJson(R"({"method":"updateJob", "session":1, "params":
                           {"jobId":"77", "status":"failed", "fwVer":"2.1", "msg":"because"}})"));
    EXPECT_THAT(sent(R"({"jobId":"77", "status":"failed", "ackId":1, "fwVer":{"a":[1]}, "msg":null})"),
                IsJson(R"({"method":"updateJob", "session":1, "params":
                           {"jobId":"77", "status":"failed", "fwVer":{"a":[1]}, "msg":null}})"));
}

TEST_F(SendJobStatus, SendsTheIdAsTextAndTheSessionAsItIs) {
    EXPECT_THAT(sent(R"({"jobId":77, "status":"failed", "ackId":"text"})"),
                IsJson(R"({"method":"updateJob", "session":"text",
                           "params":{"jobId":"77", "status":"failed"}})"));
    EXPECT_THAT(sent(R"({"jobId":"77", "status":"failed"})"),
                HasMembers(R"({"session":null, "params":{"jobId":"77", "status":"failed"}})"));
}

TEST_F(SendJobStatus, ReportsWhateverTheStatusAndTheAcknowledgement) {
    sent(R"({"jobId":"FAILSAFE_CONFIG", "status":"verifying", "ack":true, "ackId":0})");

    EXPECT_THAT(published_topics(), ListIs("v1/device/job/FAILSAFE_CONFIG/ack"));
}

TEST_F(SendJobStatus, CountsThenLogsThenSends) {
    const int before = status_message_id;

    sent(R"({"jobId":"77", "status":"failed", "ackId":1})");

    EXPECT_EQ(status_message_id, before + 1);
    EXPECT_EQ(published()[0].message_id, &status_message_id);
    EXPECT_EQ(published()[0].message_id_value, before + 1);
    const std::string payload = published()[0].payload;
    EXPECT_THAT(log_lines(), ListIs(Debug("ping to cloud.test OK"), Debug("network check: 1"),
                                    Alert("send status update for job: 77 status: failed"),
                                    Debug("send_message: " + payload)));
    EXPECT_EQ(payload.find('\n'), payload.npos);
    EXPECT_EQ(calls_of({"syslog", "send_message"}).back(), "send_message v1/device/job/77/ack " + payload);
}

TEST_F(SendJobStatus, WithoutTheNetworkSendsAndCountsNothing) {
    fakes::device().ping_result = -1;
    const int before = status_message_id;

    sent(R"({"jobId":"77", "status":"failed", "ackId":1})");

    EXPECT_THAT(published(), IsEmpty());
    EXPECT_EQ(status_message_id, before);
    EXPECT_THAT(log_lines(), ListIs(Debug("network check: 0")));
}

TEST_F(SendJobStatus, WritesNoFileAndDoesNotPause) {
    sent(R"({"jobId":"77", "status":"failed", "ackId":1})");

    EXPECT_EQ(calls().size(), 1U); // the publish
}

TEST_F(SendJobStatus, DoesNotLookAtTheResultOfTheSending) {
    fakes::will_return("send_message", {4});
    const int before = status_message_id;

    sent(R"({"jobId":"77", "status":"failed", "ackId":1})");

    EXPECT_EQ(status_message_id, before + 1);
    EXPECT_EQ(log_lines().size(), 4U);
}

class NetworkCheck : public AgentTest {};

TEST_F(NetworkCheck, IsTrueWhenTheCloudsHostAnswers) {
    fakes::device().cloud_host = "iot.example";

    EXPECT_TRUE(iot_network_check());

    EXPECT_THAT(log_lines(), ListIs(Debug("ping to iot.example OK"), Debug("network check: 1")));
    EXPECT_THAT(calls_of({"cmd_get_value_json", "ping_test"}),
                ListIs("cmd_get_value_json iot.vantrel_iot", "ping_test 2 iot.example"));
}

TEST_F(NetworkCheck, IsFalseWhenTheCloudsHostIsSilent) {
    for (const int result : {-1, 1, 256}) {
        fakes::reset_log();
        fakes::device().ping_result = result;

        EXPECT_FALSE(iot_network_check());

        EXPECT_THAT(log_lines(), ListIs(Debug("network check: 0")));
    }
}

TEST_F(NetworkCheck, IsFalseWithoutTheConfiguration) {
    fakes::will_return("cmd_get_value_json", {-1});

    EXPECT_FALSE(iot_network_check());

    EXPECT_THAT(log_lines(), ListIs(Notice("Error reading IOT config")));
    EXPECT_THAT(calls_of({"ping_test"}), IsEmpty());
}

TEST_F(NetworkCheck, IsFalseWithoutAHost) {
    fakes::device().cloud_host = "";

    EXPECT_FALSE(iot_network_check());

    EXPECT_THAT(log_lines(), ListIs(Notice("No IOT URL!")));
    EXPECT_THAT(calls_of({"ping_test"}), IsEmpty());
}

TEST_F(NetworkCheck, ReadsTheConfigurationAnewEachTime) {
    EXPECT_TRUE(iot_network_check());
    fakes::will_return("cmd_get_value_json", {-1});
    EXPECT_FALSE(iot_network_check());
    EXPECT_TRUE(iot_network_check());
}
