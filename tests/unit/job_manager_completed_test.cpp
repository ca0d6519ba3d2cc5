// Jobs that have ended: reported until they are acknowledged, then archived.
#include "tests/unit/job_manager_fixture.h"

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

class CompletedJob : public JobManagerTest {
protected:
    int process(const std::string &job_id = "77") { return process_completed_job(client, job_id); }
};

TEST_F(CompletedJob, IsNoneWhileItsStatusIsAnother) {
    for (const char *status : {"received", "executed", "running", "", "Success", "failed "}) {
        fakes::reset();
        const std::string job =
            std::string(R"({"jobId":"77", "status":")") + status + R"(", "ack":true, "ackId":5})";
        given_active_job(job);

        EXPECT_EQ(process(), 1);

        EXPECT_THAT(log_lines(),
                    ListIs(Notice("processing job: 77"), Notice("job: 77 status: " + std::string(status))));
        EXPECT_THAT(calls(), IsEmpty());
        EXPECT_THAT(active_job("77"), IsJson(job));
    }
}

TEST_F(CompletedJob, IsNoneWhenItsFileCannotBeRead) {
    EXPECT_EQ(process(), 1);
    EXPECT_THAT(log_lines(), ListIs(Notice("processing job: 77")));
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(CompletedJob, WithoutAStatusHasFailed) {
    given_active_job(R"({"jobId":"77"})");

    EXPECT_EQ(process(), 0);

    EXPECT_THAT(log_lines()[0], Notice("processing job: 77"));
    EXPECT_THAT(log_lines()[1], Alert("job: 77 does not specify current status, setting status to FAILED"));
    EXPECT_THAT(log_lines()[2], Notice("job: 77 status: failed"));
    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"failed", "ack":false, "ackId":1700000000})"));
    EXPECT_THAT(reported("77"), ListIs("failed"));
}

class EndedJob : public CompletedJob, public testing::WithParamInterface<const char *> {
protected:
    void given_job(const std::string &job_id, const std::string &more) {
        given_active_job(R"({"jobId":")" + job_id + R"(", "status":")" + GetParam() +
                         R"(", "ackId":1699999000)" + more + "}");
    }
};

INSTANTIATE_TEST_SUITE_P(As, EndedJob, testing::Values("success", "failed"),
                         [](const auto &row) { return std::string(row.param); });

TEST_P(EndedJob, ThatIsNotAcknowledgedIsReportedAgainAndStays) {
    given_repeat_is_due();
    given_job("77", R"(, "ack":false)");

    EXPECT_EQ(process(), 0);

    EXPECT_THAT(reported("77"), ListIs(GetParam()));
    EXPECT_EQ(published().at(0).json["session"], 1699999000);
    EXPECT_THAT(log_lines(),
                Contains(Notice(std::string("update_job_status: 77 ") + GetParam() + " post_status: 1")));
    EXPECT_THAT(active_jobs(), ListIs("77"));
    EXPECT_THAT(archived_jobs(), IsEmpty());
    EXPECT_THAT(calls_of({"write_json_file"}), IsEmpty());
}

TEST_P(EndedJob, ThatIsNotAcknowledgedWaitsForItsNextReport) {
    given_repeat_is_due();
    given_job("77", R"(, "ack":false)");
    process();
    advance(17); // and the 2 of the report: 19 of 20

    EXPECT_EQ(process(), 0);
    EXPECT_THAT(reported("77"), SizeIs(1));
    advance(1);
    process();
    EXPECT_THAT(reported("77"), SizeIs(1));
    advance(1);
    process();
    EXPECT_THAT(reported("77"), SizeIs(2));
}

TEST_P(EndedJob, WithoutAnAcknowledgementMemberStays) {
    given_repeat_is_due();
    given_job("77", "");

    EXPECT_EQ(process(), 0);

    EXPECT_THAT(active_jobs(), ListIs("77"));
    EXPECT_THAT(log_lines(), Contains(Notice(StartsWith("update_job_status: 77 "))));
}

TEST_P(EndedJob, ThatIsAcknowledgedIsArchivedAndChecksIn) {
    given_job("77", R"(, "ack":true, "other":[1])");

    EXPECT_EQ(process(), 0);

    EXPECT_THAT(active_jobs(), IsEmpty());
    EXPECT_THAT(archived_job("77"), HasMembers(R"({"jobId":"77", "ack":true, "other":[1]})"));
    EXPECT_THAT(calls(), ListIs("delete_file /var/data/orv/vantrel_iot/jobs/archive/77",
                                "delete_file /var/volatile/orv/FW_JOBID", "sleep 5",
                                R"(send_message v1/device/cmd/checkin/apply {"session":"iot-client"})"));
    EXPECT_THAT(log_lines(),
                ListIs(Notice("processing job: 77"), Notice(std::string("job: 77 status: ") + GetParam()),
                       Alert("archiving job file 77"), Notice("archiving job: 77"),
                       Debug("job mgr initiating sequential IOT checkin")));
    EXPECT_EQ(published().at(0).message_id, &status_message_id);
}

TEST_P(EndedJob, OfTheFailsafeConfigurationIsArchivedUnacknowledgedWithoutACheckIn) {
    for (const char *ack : {R"(, "ack":false)", R"(, "ack":true)", ""}) {
        fakes::reset();
        given_job("FAILSAFE_CONFIG", ack);

        EXPECT_EQ(process("FAILSAFE_CONFIG"), 0);

        EXPECT_THAT(archived_jobs(), ListIs("FAILSAFE_CONFIG"));
        EXPECT_THAT(active_jobs(), IsEmpty());
        EXPECT_THAT(published(), IsEmpty());
        EXPECT_THAT(sleeps(), IsEmpty());
        EXPECT_THAT(log_lines().back(), Notice("archiving job: FAILSAFE_CONFIG"));
        EXPECT_THAT(log_lines(), Contains(Alert("archiving job file FAILSAFE_CONFIG")));
    }
}

TEST_P(EndedJob, OfAConfigurationPushIsArchivedUnacknowledgedAndChecksIn) {
    for (const char *ack : {R"(, "ack":false)", R"(, "ack":true)", ""}) {
        fakes::reset();
        given_job("POST_CONFIG", ack);

        EXPECT_EQ(process("POST_CONFIG"), 0);

        EXPECT_THAT(archived_jobs(), ListIs("POST_CONFIG"));
        EXPECT_THAT(published_topics(), ListIs("v1/device/cmd/checkin/apply"));
        EXPECT_THAT(sleeps(), ElementsAre(5));
    }
}

TEST_P(EndedJob, IsTheReservedOneByItsWholeNameOnly) {
    for (const char *id : {"POST_CONFIG2", "post_config", "FAILSAFE_CONFI", "LOCAL_FW_UPGRADE"}) {
        given_job(id, R"(, "ack":false)");
        EXPECT_EQ(process(id), 0);
        EXPECT_THAT(archived_jobs(), IsEmpty()) << id;
    }
}

TEST_P(EndedJob, IsHandledUnderTheManagersMutexToItsCheckIn) {
    given_job("77", R"(, "ack":true)");
    std::vector<bool> free;
    fakes::on_sleep = [&](unsigned) { free.push_back(manager_mutex_is_free()); };
    fakes::mqtt().after_publish = [&](const auto &) { free.push_back(manager_mutex_is_free()); };

    process();

    EXPECT_THAT(free, ElementsAre(false, false));
    EXPECT_TRUE(manager_mutex_is_free());
}

TEST_P(EndedJob, IsReportedUnderTheManagersMutex) {
    given_repeat_is_due();
    given_job("77", R"(, "ack":false)");
    std::vector<bool> free;
    fakes::mqtt().after_publish = [&](const auto &) { free.push_back(manager_mutex_is_free()); };

    process();

    EXPECT_THAT(free, ElementsAre(false));
    EXPECT_TRUE(manager_mutex_is_free());
}

TEST_F(CompletedJob, ThatThrowsIsLoggedAndNotFinished) {
    given_active_job(R"({"jobId":"77", "status":"success", "ack":"true"})");

    EXPECT_EQ(process(), 1);

    EXPECT_THAT(log_lines().back(), Notice("process_completed_job: exception handler"));
    EXPECT_THAT(active_jobs(), ListIs("77"));
    EXPECT_TRUE(manager_mutex_is_free());
}

TEST_F(CompletedJob, ThatIsNoObjectIsLoggedAndNotFinished) {
    write_text(std::string(ACTIVE_FOLDER) + "77", "[]");

    EXPECT_EQ(process(), 1);

    EXPECT_THAT(log_lines(),
                ListIs(Notice("processing job: 77"), Notice("process_completed_job: exception handler")));
}
