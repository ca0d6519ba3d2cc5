// The answers to device commands, and the check-in whose answer is one of them.
#include "tests/unit/reporting_test.h"

#include "agent/acknowledgements.h"
#include "agent/requests/checkin.h"

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Values;

class CmdAck : public ReportingTest {
protected:
    void service_answers(const std::string &payload, const std::string &topic = FILEPULL) {
        cmd_ack(client, test_message(topic, payload).get());
    }

    static log_line arrival(const std::string &payload, const std::string &topic = FILEPULL) {
        return {LOG_NOTICE,
                "iot-client received ACK to job status: " + topic + " [payload: " + payload + "]"};
    }

    static void given_job(const std::string &action) {
        given_active_job(R"({"jobId":"77", "status":"executed", "ack":true, "ackId":1000, "action":")" +
                         action + "\"}");
    }

    static constexpr const char *FILEPULL = "v1/device/cmd/filepull/ack";
    static constexpr const char *CHECKIN = "v1/device/cmd/checkin/ack";
    const int now = static_cast<int>(time(nullptr));
};

TEST_F(CmdAck, EndsTheJobAsSuccessAndReportsIt) {
    given_job("CMD");
    const std::string payload = R"({"jobId":"77", "session":1000, "rc":200})";

    service_answers(payload);

    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"success", "ack":false, "action":"CMD"})"));
    EXPECT_EQ(active_job("77")["ackId"], now);
    ASSERT_THAT(published_topics(), ListIs("v1/device/job/77/ack"));
    EXPECT_THAT(published()[0].json["params"], HasMembers(R"({"status":"success"})"));
    auto lines = log_lines();
    lines.resize(4);
    EXPECT_THAT(lines, ListIs(arrival(payload), Debug("cmd ack for job:77 session:1000 rc:200"),
                              Debug("cmd_ack update_job_status success"),
                              Notice("update_job_status: 77 success post_status: 1")));
}

TEST_F(CmdAck, EndsTheJobAsFailedOnAnyOtherCode) {
    for (const int code : {0, 199, 201, 400, 500, 503, -1}) {
        given_job("CMD");
        const std::string rc = std::to_string(code);

        service_answers(R"({"jobId":"77", "session":1000, "rc":)" + rc + "}");

        EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"failed", "ack":false})")) << code;
        EXPECT_EQ(published().back().json["params"]["status"], "failed") << code;
        EXPECT_THAT(log_lines(), Contains(Debug("cmd ack for job:77 session:1000 rc:" + rc)));
    }
    EXPECT_THAT(log_lines(), Contains(Debug("cmd_ack update_job_status failed")).Times(7));
}

class CodeOfTheWrongType : public CmdAck, public testing::WithParamInterface<const char *> {};

TEST_P(CodeOfTheWrongType, IsNotTheNumber200AndFailsTheJob) {
    given_job("CMD");

    service_answers(std::string(R"({"jobId":"77", "session":1000, "rc":)") + GetParam() + "}");

    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"failed"})"));
    EXPECT_THAT(log_lines(), Contains(Debug("cmd ack for job:77 session:1000 rc:0")));
}

INSTANTIATE_TEST_SUITE_P(Each, CodeOfTheWrongType,
                         Values("\"200\"", "null", "{}", "[200]", "\"success\"", "99999999999", "200.5"));

TEST_F(CmdAck, OnATopicOfTheCheckInEndsAJobOfAnotherActionAsWell) {
    given_job("XTRA");

    service_answers(R"({"jobId":"77", "session":1000, "rc":500})", CHECKIN);

    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"failed"})"));
}

TEST_F(CmdAck, OfAFailedCheckInDoesNotFailAConfigurationJob) {
    given_job("CFG");
    const std::string payload = R"({"jobId":"77", "session":1000, "rc":500})";

    service_answers(payload, CHECKIN);

    EXPECT_THAT(log_lines(),
                ListIs(arrival(payload, CHECKIN), Debug("cmd ack for job:77 session:1000 rc:500"),
                       Debug("ignore failed cmd/checkin/apply response during CFG verify attempts")));
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(CmdAck, OfASuccessfulCheckInEndsAConfigurationJob) {
    given_job("CFG");

    service_answers(R"({"jobId":"77", "session":1000, "rc":200})", CHECKIN);

    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"success"})"));
}

TEST_F(CmdAck, OfAnotherCommandFailsAConfigurationJob) {
    for (const char *topic :
         {"v1/device/cmd/cfgpush/ack", "v1/device/cmd/checkin", "v1/device/cmd/xcheckin/ack"}) {
        given_job("CFG");

        service_answers(R"({"jobId":"77", "session":1000, "rc":500})", topic);

        EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"failed"})")) << topic;
    }
}

TEST_F(CmdAck, OfAFailedCheckInFailsAJobThatOnlyResemblesAConfigurationJob) {
    for (const char *action : {"cfg", "CFGS", "FAILSAFE_CONFIG", ""}) {
        given_job(action);

        service_answers(R"({"jobId":"77", "session":1000, "rc":500})", CHECKIN);

        EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"failed"})")) << action;
    }
}

TEST_F(CmdAck, OfAFailedCheckInFailsAJobWithoutAction) {
    given_active_job(R"({"jobId":"77", "status":"executed", "ackId":1000})");

    service_answers(R"({"jobId":"77", "session":1000, "rc":500})", CHECKIN);

    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"failed"})"));
}

TEST_F(CmdAck, ForAMissingJobIsLogged) {
    const std::string payload = R"({"jobId":"77", "session":1000, "rc":200})";

    service_answers(payload);

    EXPECT_THAT(log_lines(), ListIs(arrival(payload), Debug("cmd ack for job:77 session:1000 rc:200"),
                                    Notice("no job file for ack 77")));
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(active_jobs(), IsEmpty());
}

TEST_F(CmdAck, ForAnArchivedJobIsLoggedAsMissing) {
    write_text(std::string(ARCHIVE_FOLDER) + "77", R"({"jobId":"77", "ackId":1000})");

    service_answers(R"({"jobId":"77", "session":1000, "rc":200})");

    EXPECT_EQ(log_lines().back(), (log_line{LOG_NOTICE, "no job file for ack 77"}));
}

TEST_F(CmdAck, ForAJobThatCannotBeReadChangesNothing) {
    write_text(std::string(ACTIVE_FOLDER) + "77", "{");

    service_answers(R"({"jobId":"77", "session":1000, "rc":200})");

    EXPECT_EQ(log_lines().size(), 2U);
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(CmdAck, OfAnotherSessionChangesNothing) {
    given_job("CMD");
    for (const int session : {0, 999, 1001})
        service_answers(R"({"jobId":"77", "rc":200, "session":)" + std::to_string(session) + "}");
    given_active_job(R"({"jobId":"78", "status":"executed"})"); // never reported
    service_answers(R"({"jobId":"78", "session":0, "rc":200})");

    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_EQ(log_lines().size(), 8U); // the arrival and the answer of each
}

TEST_F(CmdAck, ThatIsIncompleteOnlyLogsItsArrival) {
    given_job("CMD");
    for (const char *payload : {"", "{", R"({"session":1000, "rc":200})", R"({"jobId":"77", "rc":200})",
                                R"({"jobId":"77", "session":1000})", "null"}) {
        fakes::reset_log();
        service_answers(payload);

        EXPECT_THAT(log_lines(), ListIs(arrival(payload)));
    }
    EXPECT_THAT(calls(), IsEmpty());
}

class WrongTypeInCmdAck : public CmdAck, public testing::WithParamInterface<const char *> {};

TEST_P(WrongTypeInCmdAck, IsLeftToTheHook) {
    given_job("CMD");

    EXPECT_THROW(service_answers(GetParam()), Json::Exception);

    EXPECT_THAT(calls(), IsEmpty());
}

TEST_P(WrongTypeInCmdAck, IsCaughtByTheHook) {
    given_job("CMD");

    client.derived_on_message(test_message(FILEPULL, GetParam()).get());

    EXPECT_EQ(log_lines().back(), (log_line{LOG_NOTICE, "on_message: exception handler"}));
    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"executed"})"));
}

INSTANTIATE_TEST_SUITE_P(Each, WrongTypeInCmdAck,
                         Values(R"({"jobId":"77", "session":"1000", "rc":200})",
                                R"({"jobId":"77", "session":{}, "rc":200})",
                                R"({"jobId":{}, "session":1000, "rc":200})", "[]", "5"));

TEST_F(CmdAck, TakesAnIdThatIsANumberAsText) {
    given_active_job(R"({"jobId":"77", "status":"executed", "ackId":1000})");

    service_answers(R"({"jobId":77, "session":1000, "rc":200})");

    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"success"})"));
}

class Checkin : public ReportingTest {};

TEST_F(Checkin, PublishesItsFixedSession) {
    send_checkin(client);

    ASSERT_THAT(published_topics(), ListIs("v1/device/cmd/checkin/apply"));
    EXPECT_EQ(published()[0].payload, R"({"session":"iot-client"})");
    EXPECT_THAT(calls(), ListIs(R"(send_message v1/device/cmd/checkin/apply {"session":"iot-client"})"));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(Checkin, CountsWithTheStatuses) {
    const int before = status_message_id;

    send_checkin(client);
    send_checkin(client);

    EXPECT_EQ(published()[0].message_id, &status_message_id);
    EXPECT_EQ(published()[0].message_id_value, before + 1);
    EXPECT_EQ(published()[1].message_id_value, before + 2);
}

TEST_F(Checkin, AsksForNoNetworkAndGoesThroughTheClientItIsGiven) {
    fakes::device().ping_result = -1;
    iot_client = nullptr;

    send_checkin(client);

    EXPECT_EQ(published().size(), 1U);
    EXPECT_THAT(calls_of({"ping_test"}), IsEmpty());
}
