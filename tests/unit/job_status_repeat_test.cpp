// The stored status again: the report is repeated until it is acknowledged, at most every 20 seconds.
#include "tests/unit/reporting_test.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class RepeatJobStatus : public ReportingTest {
protected:
    RepeatJobStatus() {
        given_active_job(WAITING);
        given_active_job(R"({"jobId":"78", "status":"failed", "ack":false, "ackId":2000})");
    }

    // The report as the job manager repeats it: with the record as it is stored.
    void report(const std::string &job_id, int post_status = 1) {
        Json::Value job = active_job(job_id);
        const Json::Value before = job;
        update_job_status(job, post_status);
        EXPECT_EQ(job, before);
    }

    size_t reports_at(time_t time, const std::string &job_id = "77") {
        set_time(time);
        const size_t before = published().size();
        report(job_id);
        return published().size() - before;
    }

    static constexpr const char *WAITING =
        R"({"jobId":"77", "status":"executed", "ack":false, "ackId":1000})";
    const time_t start = time(nullptr);
};

TEST_F(RepeatJobStatus, PublishesItWithTheSameSessionAndWritesNothing) {
    report("77");

    ASSERT_EQ(published().size(), 1U);
    EXPECT_THAT(published()[0].json,
                HasMembers(R"({"session":1000, "params":{"jobId":"77", "status":"executed"}})"));
    EXPECT_THAT(calls_of({"write_json_file", "sync_to_fs"}), IsEmpty());
    EXPECT_EQ(file_text(std::string(ACTIVE_FOLDER) + "77"), WAITING);
    EXPECT_THAT(sleeps(), ElementsAre(2));
}

TEST_F(RepeatJobStatus, SaysWhenTheNextMayFollow) {
    report("77");

    auto lines = log_lines();
    ASSERT_GE(lines.size(), 4U);
    lines.resize(4);
    EXPECT_THAT(lines, ListIs(Notice("update_job_status: 77 executed post_status: 1"),
                              Notice("prev job status: executed current job status: executed"),
                              Debug("update_job_status: sending repeat job status, next:" +
                                    std::to_string(start + 20) + " now:" + std::to_string(start)),
                              Debug("send job status:executed to IOT, ack_id:1000")));
}

TEST_F(RepeatJobStatus, WaitsUntilMoreThan20SecondsHavePassed) {
    EXPECT_EQ(reports_at(start), 1U);
    EXPECT_EQ(reports_at(start + 2), 0U);
    EXPECT_EQ(reports_at(start + 19), 0U);
    EXPECT_EQ(reports_at(start + 20), 0U);
    EXPECT_EQ(reports_at(start + 21), 1U);
    EXPECT_EQ(reports_at(start + 41), 0U);
    EXPECT_EQ(reports_at(start + 42), 1U);
}

TEST_F(RepeatJobStatus, BeforeItsTimeOnlyLogsBothStatuses) {
    report("77");
    fakes::reset_log();
    fakes::reset_calls();

    report("77");

    EXPECT_THAT(log_lines(), ListIs(Notice("update_job_status: 77 executed post_status: 1"),
                                    Notice("prev job status: executed current job status: executed")));
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(RepeatJobStatus, HasOneIntervalForAllJobs) {
    EXPECT_EQ(reports_at(start, "77"), 1U);
    EXPECT_EQ(reports_at(start + 2, "78"), 0U);
    EXPECT_EQ(reports_at(start + 21, "78"), 1U);
    EXPECT_EQ(reports_at(start + 23, "77"), 0U);
    EXPECT_EQ(reports_at(start + 42, "77"), 1U);
}

TEST_F(RepeatJobStatus, IsNotHeldUpByAStatusThatChanges) {
    Json::Value job = active_job("78");
    job["status"] = "success";
    update_job_status(job, 1);

    EXPECT_EQ(reports_at(start + 2, "77"), 1U);
}

TEST_F(RepeatJobStatus, DoesNotHoldUpAStatusThatChanges) {
    report("77");
    Json::Value job = active_job("77");
    job["status"] = "success";

    update_job_status(job, 1);

    ASSERT_EQ(published().size(), 2U);
    EXPECT_EQ(published()[1].json["params"]["status"], "success");
    EXPECT_EQ(published()[1].json["session"], static_cast<int>(start) + 2);
    EXPECT_EQ(reports_at(start + 4, "77"), 0U);
    EXPECT_EQ(reports_at(start + 21, "77"), 1U);
}

TEST_F(RepeatJobStatus, EndsWithTheAcknowledgement) {
    for (const char *text : {R"({"jobId":"77", "status":"executed", "ack":true, "ackId":1000})",
                             R"({"jobId":"77", "status":"executed", "ackId":1000})"}) {
        given_active_job(text);
        EXPECT_EQ(reports_at(start), 0U) << text;
    }
    EXPECT_EQ(reports_at(start, "78"), 1U); // nor was the interval begun
    EXPECT_THAT(calls_of({"write_json_file"}), IsEmpty());
}

TEST_F(RepeatJobStatus, GoesByTheRecordInHandAndNotByItsFile) {
    given_active_job(R"({"jobId":"77", "status":"executed", "ack":true, "ackId":1000})");
    Json::Value job = json(WAITING);

    update_job_status(job, 1);

    EXPECT_EQ(published().size(), 1U);
    EXPECT_THAT(active_job("77"), HasMembers(R"({"ack":true})"));
}

TEST_F(RepeatJobStatus, WithoutASessionIsNotPosted) {
    given_active_job(R"({"jobId":"77", "status":"executed", "ack":false})");

    report("77");

    EXPECT_THAT(published(), IsEmpty());
    EXPECT_THAT(sleeps(), IsEmpty());
    EXPECT_EQ(log_lines().back(),
              (log_line{LOG_DEBUG, "did not post status executed to IOT: ackid:0 ack:0"}));
}

TEST_F(RepeatJobStatus, WithPostStatus0UsesUpTheInterval) {
    report("77", 0);

    EXPECT_THAT(published(), IsEmpty());
    EXPECT_THAT(sleeps(), IsEmpty());
    EXPECT_THAT(log_lines(), Contains(Debug(HasSubstr("sending repeat job status"))));
    EXPECT_EQ(reports_at(start + 20), 0U);
    EXPECT_EQ(reports_at(start + 21), 1U);
}

TEST_F(RepeatJobStatus, OfTheFailsafeJobIsSilentAndUsesUpTheInterval) {
    given_active_job(R"({"jobId":"FAILSAFE_CONFIG", "status":"executed", "ack":false, "ackId":1000})");

    report("FAILSAFE_CONFIG");

    EXPECT_THAT(published(), IsEmpty());
    EXPECT_EQ(reports_at(start + 20), 0U);
    EXPECT_EQ(reports_at(start + 21), 1U);
}

TEST_F(RepeatJobStatus, TriesAgainAfterTheIntervalWhenTheNetworkWasGone) {
    fakes::device().ping_result = -1;
    EXPECT_EQ(reports_at(start), 0U);

    fakes::device().ping_result = 0;
    EXPECT_EQ(reports_at(start + 20), 0U);
    EXPECT_EQ(reports_at(start + 21), 1U);
    EXPECT_EQ(published()[0].json["session"], 1000);
}

TEST_F(RepeatJobStatus, StopsWhenTheClockWasSetBackUntilItHasCaughtUp) {
    EXPECT_EQ(reports_at(start), 1U);
    EXPECT_EQ(reports_at(start - 3600), 0U);
    EXPECT_EQ(reports_at(start - 1800), 0U);
    EXPECT_EQ(reports_at(start + 20), 0U);
    EXPECT_EQ(reports_at(start + 21), 1U);
}

TEST_F(RepeatJobStatus, IsAllThatAClockThatWasSetBackHoldsUp) {
    report("77");
    set_time(start - 3600);
    Json::Value job = active_job("77");
    job["status"] = "success";

    update_job_status(job, 1);

    ASSERT_EQ(published().size(), 2U);
    EXPECT_EQ(published()[1].json["session"], static_cast<int>(start) - 3600);
}

TEST_F(RepeatJobStatus, OfAStatusThatNeedsNoAnswerIsNothing) {
    given_active_job(R"({"jobId":"77", "status":"downloading", "ack":true, "ackId":0})");

    EXPECT_EQ(reports_at(start), 0U);

    EXPECT_THAT(log_lines(), Not(Contains(Debug(HasSubstr("did not post")))));
}

TEST_F(RepeatJobStatus, WithAnAcknowledgementOfTheWrongTypeIsCaught) {
    given_active_job(R"({"jobId":"77", "status":"executed", "ack":"no", "ackId":1000})");

    report("77");

    EXPECT_THAT(published(), IsEmpty());
    EXPECT_EQ(log_lines().back(), (log_line{LOG_NOTICE, "update_job_status: exception handler"}));
    EXPECT_EQ(reports_at(start, "78"), 1U);
}
