// The cloud's answers to status reports.
#include "tests/unit/reporting_test.h"

#include "agent/acknowledgements.h"

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Values;

class JobPubAck : public ReportingTest {
protected:
    void cloud_answers(const std::string &payload) {
        job_pub_ack(client, test_message("v1/device/job/77/pub_ack", payload).get());
    }

    static void given_job(const std::string &members) {
        given_active_job(R"({"jobId":"77", "status":"executed", "ack":false, "ackId":1000, )" + members +
                         "}");
    }

    static log_line received(const std::string &payload) {
        return {LOG_DEBUG, "received pub ack message: " + json(payload).toStyledString()};
    }

    // Nothing but what may be logged: no file written or moved, nothing published, no pause.
    static void expect_no_change() { EXPECT_THAT(calls(), IsEmpty()); }
};

TEST_F(JobPubAck, AcceptedMarksTheJobAcknowledged) {
    given_job(R"("ack_attempts":7, "msg":"kept", "ackTs":999)");

    cloud_answers(R"({"jobId":"77", "session":1000, "rc":200})");

    EXPECT_THAT(active_job("77"), IsJson(R"({"jobId":"77", "status":"executed", "ack":true, "ackId":1000,
                                             "ack_attempts":0, "msg":"kept", "ackTs":999})"));
    EXPECT_THAT(archived_jobs(), IsEmpty());
    EXPECT_THAT(published(), IsEmpty());
    EXPECT_THAT(sleeps(), IsEmpty());
}

TEST_F(JobPubAck, AcceptedIsLoggedAndThenStored) {
    given_job(R"("ack_attempts":0)");
    const std::string payload = R"({"jobId":"77", "session":1000, "rc":200})";

    cloud_answers(payload);

    EXPECT_THAT(log_lines(),
                ListIs(received(payload),
                       Alert("job: /var/data/orv/vantrel_iot/jobs/active/77 set ACK: true for job "
                             "status:executed"),
                       Debug("write job file: 77")));
    EXPECT_THAT(calls(), ListIs("write_json_file /var/data/orv/vantrel_iot/jobs/active/77", "sync_to_fs 2"));
}

TEST_F(JobPubAck, AcceptedTwiceChangesNothingMore) {
    given_job(R"("ack_attempts":0)");
    cloud_answers(R"({"jobId":"77", "session":1000, "rc":200})");
    const auto stored = active_job("77");

    cloud_answers(R"({"jobId":"77", "session":1000, "rc":200})");

    EXPECT_EQ(active_job("77"), stored);
}

TEST_F(JobPubAck, ForAnotherReportIsIgnoredWithoutALog) {
    given_job(R"("ack_attempts":100)");
    for (const char *answer :
         {R"({"jobId":"77", "session":999, "rc":200})", R"({"jobId":"77", "session":1001, "rc":500})",
          R"({"jobId":"77", "session":0, "rc":200})"}) {
        fakes::reset_log();
        cloud_answers(answer);

        EXPECT_THAT(log_lines(), ListIs(received(answer)));
    }
    expect_no_change();
}

TEST_F(JobPubAck, ForAJobThatWasNeverReportedIsIgnored) {
    given_active_job(R"({"jobId":"77", "status":"executed", "ack":false})");

    cloud_answers(R"({"jobId":"77", "session":0, "rc":200})");

    expect_no_change();
    EXPECT_EQ(log_lines().size(), 1U);
}

TEST_F(JobPubAck, ForAMissingJobIsIgnored) {
    const std::string payload = R"({"jobId":"77", "session":1000, "rc":200})";

    cloud_answers(payload);

    EXPECT_THAT(log_lines(), ListIs(received(payload)));
    expect_no_change();
    EXPECT_THAT(active_jobs(), IsEmpty());
}

TEST_F(JobPubAck, ForAJobThatCannotBeReadIsIgnored) {
    write_text(std::string(ACTIVE_FOLDER) + "77", "{\"jobId\":");

    cloud_answers(R"({"jobId":"77", "session":1000, "rc":200})");

    EXPECT_EQ(log_lines().size(), 1U);
    expect_no_change();
}

TEST_F(JobPubAck, GoesByThePayloadsIdAndNotByTheTopics) {
    given_active_job(R"({"jobId":"78", "status":"executed", "ack":false, "ackId":1000})");
    given_job(R"("ack_attempts":0)");

    cloud_answers(R"({"jobId":"78", "session":1000, "rc":200})");

    EXPECT_THAT(active_job("78"), HasMembers(R"({"ack":true})"));
    EXPECT_THAT(active_job("77"), HasMembers(R"({"ack":false})"));
}

TEST_F(JobPubAck, WithoutIdOrThatIsNoJsonIsDroppedSilently) {
    for (const char *payload : {"", "{", R"({"session":1000, "rc":200})", "null"})
        cloud_answers(payload);

    EXPECT_THAT(log_lines(), IsEmpty());
    expect_no_change();
}

TEST_F(JobPubAck, WithoutSessionOrCodeIsLoggedAndDropped) {
    given_active_job(R"({"jobId":"0", "ack":false, "ackId":0, "ack_attempts":100})");
    for (const char *answer :
         {R"({"jobId":"0", "rc":200})", R"({"jobId":"0", "session":0})", R"({"jobId":"0"})"}) {
        fakes::reset_log();
        cloud_answers(answer);

        EXPECT_THAT(log_lines(), ListIs(received(answer)));
    }
    expect_no_change();
}

class RefusalBelowTheLimit : public JobPubAck, public testing::WithParamInterface<const char *> {};

TEST_P(RefusalBelowTheLimit, LeavesTheFileAsItWas) {
    given_job(GetParam());
    const std::string before = file_text(std::string(ACTIVE_FOLDER) + "77");
    const std::string payload = R"({"jobId":"77", "session":1000, "rc":500})";

    for (int i = 0; i < 3; i++)
        cloud_answers(payload);

    EXPECT_EQ(file_text(std::string(ACTIVE_FOLDER) + "77"), before);
    EXPECT_THAT(log_lines(), ListIs(received(payload), received(payload), received(payload)));
    expect_no_change();
}

INSTANTIATE_TEST_SUITE_P(Each, RefusalBelowTheLimit,
                         Values("\"ack_attempts\":0", "\"ack_attempts\":98", "\"ack_attempts\":99",
                                "\"other\":0"));

class RefusalAboveTheLimit : public JobPubAck, public testing::WithParamInterface<int> {};

TEST_P(RefusalAboveTheLimit, FailsAndArchivesTheJob) {
    given_job("\"ack_attempts\":" + std::to_string(GetParam()));

    cloud_answers(R"({"jobId":"77", "session":1000, "rc":500})");

    EXPECT_THAT(active_jobs(), IsEmpty());
    EXPECT_THAT(archived_job("77"), HasMembers(R"({"status":"failed", "ack":true, "ackId":1000,
                    "msg":"exceeded max attempts to update with IOT. job will be FAILED and archived"})"));
    EXPECT_EQ(archived_job("77")["ack_attempts"], GetParam() + 1);
    EXPECT_THAT(published(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Each, RefusalAboveTheLimit, Values(100, 101, 5000));

TEST_F(JobPubAck, RefusedTooOftenIsLoggedThenStoredThenArchived) {
    given_job(R"("ack_attempts":100)");
    write_text("/var/volatile/orv/FW_JOBID", "another\n");

    cloud_answers(R"({"jobId":"77", "session":1000, "rc":503})");

    EXPECT_THAT(log_lines(),
                ListIs(Debug(HasSubstr("received pub ack message: ")),
                       Alert("job: 77 exceeded max attempts to update with IOT. job will be FAILED and "
                             "archived "),
                       Debug("write job file: 77"), Notice("archiving job: 77")));
    EXPECT_THAT(calls(), ListIs("write_json_file /var/data/orv/vantrel_iot/jobs/active/77", "sync_to_fs 2",
                                "delete_file /var/data/orv/vantrel_iot/jobs/archive/77",
                                "delete_file /var/volatile/orv/FW_JOBID"));
    EXPECT_FALSE(exists("/var/volatile/orv/FW_JOBID"));
}

TEST_F(JobPubAck, TakesEveryCodeBut200ForARefusal) {
    for (const int code : {0, 199, 201, 400, 500, 503, -200}) {
        given_job(R"("ack_attempts":100)");
        cloud_answers("{\"jobId\":\"77\", \"session\":1000, \"rc\":" + std::to_string(code) + "}");
        EXPECT_THAT(active_jobs(), IsEmpty()) << code;
    }
}

TEST_F(JobPubAck, DoesNotGoThroughTheStatusUpdate) {
    given_job(R"("ack_attempts":100)");
    cloud_answers(R"({"jobId":"77", "session":1000, "rc":500})");
    given_job(R"("ack_attempts":0)");
    cloud_answers(R"({"jobId":"77", "session":1000, "rc":200})");

    EXPECT_THAT(log_lines(), Not(Contains(Notice(HasSubstr("update_job_status")))));
    EXPECT_FALSE(active_job("77").isMember("ackTs"));
}

class WrongTypeInPubAck : public JobPubAck, public testing::WithParamInterface<const char *> {};

TEST_P(WrongTypeInPubAck, IsCaughtAndChangesNothing) {
    given_job(R"("ack_attempts":0)");

    cloud_answers(GetParam());

    EXPECT_EQ(log_lines().back(), (log_line{LOG_DEBUG, "job_pub_ack: exception handler"}));
    expect_no_change();
}

INSTANTIATE_TEST_SUITE_P(Each, WrongTypeInPubAck,
                         Values(R"({"jobId":"77", "session":"1000", "rc":200})",
                                R"({"jobId":"77", "session":1000, "rc":"200"})",
                                R"({"jobId":"77", "session":{}, "rc":200})",
                                R"({"jobId":"77", "session":1000, "rc":[]})",
                                R"({"jobId":{}, "session":1000, "rc":200})",
                                R"({"jobId":"77", "session":99999999999, "rc":200})", "[]", "5", "\"text\""));

class WrongTypeInRecord : public JobPubAck, public testing::WithParamInterface<const char *> {};

TEST_P(WrongTypeInRecord, IsCaughtAndChangesNothing) {
    write_text(std::string(ACTIVE_FOLDER) + "77", GetParam());

    cloud_answers(R"({"jobId":"77", "session":1000, "rc":500})");

    EXPECT_EQ(log_lines().back(), (log_line{LOG_DEBUG, "job_pub_ack: exception handler"}));
    expect_no_change();
}

INSTANTIATE_TEST_SUITE_P(Each, WrongTypeInRecord,
                         Values("[]", "\"text\"", R"({"jobId":"77", "ackId":"1000"})",
                                R"({"jobId":"77", "ackId":1000, "ack_attempts":"many"})"));

TEST_F(JobPubAck, CatchesWhateverIsThrown) {
    given_job(R"("ack_attempts":0)");
    fakes::before_change = [](const fakes::call &) { throw 7; };

    cloud_answers(R"({"jobId":"77", "session":1000, "rc":200})");

    EXPECT_EQ(log_lines().back(), (log_line{LOG_DEBUG, "job_pub_ack: exception handler"}));
}

TEST_F(JobPubAck, WhoseRecordCannotBeStoredIsReportedAgain) {
    given_job(R"("ack_attempts":0)");
    fakes::always_returns("write_json_file", -1);

    cloud_answers(R"({"jobId":"77", "session":1000, "rc":200})");

    Json::Value job = active_job("77");
    EXPECT_THAT(job, HasMembers(R"({"ack":false})"));
    update_job_status(job, 1);
    EXPECT_EQ(published_on("v1/device/job/77/ack").size(), 1U);
}
