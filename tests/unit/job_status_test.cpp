// Recording a job's status: what is stored, and what is reported at once.
#include "tests/unit/reporting_test.h"

#include "jobs/job_store.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Values;

class UpdateJobStatus : public ReportingTest {
protected:
    const int now = static_cast<int>(time(nullptr));

    void update(const std::string &job_text, int post_status = 1) {
        job = json(job_text);
        update_job_status(job, post_status);
    }

    // The record and its file alike.
    void expect_stored(const std::string &members) {
        EXPECT_THAT(job, HasMembers(members));
        EXPECT_THAT(active_job(job["jobId"].asString()), IsJson(job.toStyledString()));
    }

    std::string at(const std::string &text) const { // "NOW" stands for the time of the test's start
        std::string result = text;
        for (size_t found; (found = result.find("NOW")) != result.npos;)
            result.replace(found, 3, std::to_string(now));
        return result;
    }

    Json::Value job;
};

TEST_F(UpdateJobStatus, LogsChecksTheNetworkReportsAndPausesInThisOrder) {
    given_active_job(R"({"jobId":"77", "status":"received"})");

    update(R"({"jobId":"77", "status":"executed"})");

    EXPECT_THAT(log_lines(),
                ListIs(Notice("update_job_status: 77 executed post_status: 1"),
                       Notice("prev job status: received current job status: executed"),
                       Debug("job status executed setting ACK to false"), Debug("write job file: 77"),
                       Debug(at("send job status:executed to IOT, ack_id:NOW")),
                       Debug("ping to cloud.test OK"), Debug("network check: 1"),
                       Alert("send status update for job: 77 status: executed"),
                       Debug(HasSubstr("send_message: {"))));
    EXPECT_THAT(calls(), ListIs("write_json_file /var/data/orv/vantrel_iot/jobs/active/77", "sync_to_fs 2",
                                HasSubstr("send_message v1/device/job/77/ack {"), "sleep 2"));
}

class ReportedStatus : public UpdateJobStatus, public testing::WithParamInterface<const char *> {};

TEST_P(ReportedStatus, IsStoredUnacknowledgedUnderANewSessionAndPublished) {
    given_active_job(R"({"jobId":"77", "status":"other", "ack":true, "ackId":5, "ackTs":4})");
    const std::string status = GetParam();

    update(R"({"jobId":"77", "ack":true, "ackId":5, "ackTs":4, "kept":[1], "status":")" + status + "\"}");

    expect_stored(at(R"({"ack":false, "ackId":NOW, "ackTs":NOW, "kept":[1], "status":")" + status + "\"}"));
    ASSERT_EQ(published().size(), 1U);
    EXPECT_EQ(published()[0].json["session"], now);
    EXPECT_EQ(published()[0].json["params"]["status"], status);
    EXPECT_THAT(log_lines(), Contains(Debug("job status " + status + " setting ACK to false")));
    EXPECT_THAT(log_lines(), Not(Contains(Debug("set job ACK true"))));
}

INSTANTIATE_TEST_SUITE_P(Each, ReportedStatus, Values("received", "executed", "success", "failed"));

class IntermediateStatus : public UpdateJobStatus, public testing::WithParamInterface<const char *> {};

TEST_P(IntermediateStatus, IsStoredAsNeedingNoAcknowledgementAndNotPublished) {
    const std::string status = GetParam();

    update(R"({"jobId":"77", "ack":false, "ackId":5, "ackTs":4, "status":")" + status + "\"}");

    expect_stored(R"({"ack":true, "ackId":0, "ackTs":4, "status":")" + status + "\"}");
    EXPECT_THAT(published(), IsEmpty());
    EXPECT_THAT(sleeps(), IsEmpty());
    EXPECT_THAT(log_lines(), ListIs(Notice("update_job_status: 77 " + status + " post_status: 1"),
                                    Debug("set job ACK true"), Debug("write job file: 77"),
                                    Debug("did not post status " + status + " to IOT: ackid:0 ack:1")));
}

INSTANTIATE_TEST_SUITE_P(Each, IntermediateStatus,
                         Values("downloading", "Executed", "FAILED", "success ", "succes", ""));

TEST_F(UpdateJobStatus, OfAnIntermediateStatusSetsNoTimeOfItsOwn) {
    update(R"({"jobId":"77", "status":"downloading"})");

    EXPECT_FALSE(job.isMember("ackTs"));
}

TEST_F(UpdateJobStatus, WithPostStatus0StoresAndIsSilent) {
    update(R"({"jobId":"77", "status":"executed"})", 0);
    expect_stored(at(R"({"status":"executed", "ack":false, "ackId":NOW, "ackTs":NOW})"));

    update(R"({"jobId":"78", "status":"downloading"})", 0);
    expect_stored(R"({"status":"downloading", "ack":true, "ackId":0})");

    EXPECT_THAT(published(), IsEmpty());
    EXPECT_THAT(sleeps(), IsEmpty());
    EXPECT_THAT(log_lines(), Contains(Notice("update_job_status: 77 executed post_status: 0")));
    EXPECT_THAT(log_lines(), Not(Contains(Debug(HasSubstr("to IOT")))));
}

TEST_F(UpdateJobStatus, WithAnyOtherPostStatusPublishes) {
    update(R"({"jobId":"77", "status":"executed"})", -1);
    update(R"({"jobId":"78", "status":"executed"})", 7);

    EXPECT_THAT(published_topics(), ListIs("v1/device/job/77/ack", "v1/device/job/78/ack"));
    EXPECT_THAT(log_lines(), Contains(Notice("update_job_status: 77 executed post_status: -1")));
    EXPECT_THAT(log_lines(), Contains(Notice("update_job_status: 78 executed post_status: 7")));
}

TEST_F(UpdateJobStatus, WithoutIdOrStatusOnlyLogs) {
    for (const char *text : {R"({"status":"failed"})", R"({"jobId":"77"})", "{}", "null"}) {
        fakes::reset_log();
        update(text);

        EXPECT_THAT(job, IsJson(text));
        EXPECT_THAT(log_lines(), ListIs(Notice("job object must contain jobid and status"))) << text;
    }
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(active_jobs(), IsEmpty());
}

TEST_F(UpdateJobStatus, WritesAMissingFileAnew) {
    update(R"({"jobId":"77", "status":"failed", "ack":true})");

    expect_stored(at(R"({"status":"failed", "ack":false, "ackId":NOW})"));
    EXPECT_THAT(log_lines(), Not(Contains(Notice(HasSubstr("prev job status")))));
}

class UnusableFile : public UpdateJobStatus, public testing::WithParamInterface<const char *> {};

TEST_P(UnusableFile, IsWrittenAnewEvenForTheSameStatus) {
    write_text(std::string(ACTIVE_FOLDER) + "77", GetParam());

    update(R"({"jobId":"77", "status":"failed", "ack":true})");

    expect_stored(at(R"({"status":"failed", "ack":false, "ackId":NOW})"));
    EXPECT_EQ(published().size(), 1U);
    EXPECT_THAT(log_lines(), Not(Contains(Notice(HasSubstr("prev job status")))));
}

INSTANTIATE_TEST_SUITE_P(Each, UnusableFile,
                         Values("", "{\"jobId\":\"77\", \"status\":\"fai", "null", "[]", "[{}]", "\"failed\"",
                                "5", R"({"status":"failed"})", R"({"jobId":"78", "status":"failed"})",
                                R"({"jobId":77, "status":"failed"})"));

TEST_F(UpdateJobStatus, WritesAFileWithoutStatusAnew) {
    given_active_job(R"({"jobId":"77", "ack":true})");

    update(R"({"jobId":"77", "status":"failed", "ack":true})");

    expect_stored(at(R"({"status":"failed", "ack":false, "ackId":NOW})"));
    EXPECT_THAT(log_lines(), Contains(Notice(HasSubstr("current job status: failed"))));
}

TEST_F(UpdateJobStatus, ReportsAlthoughTheFileCannotBeWritten) {
    fakes::always_returns("write_json_file", -1);

    update(R"({"jobId":"77", "status":"executed"})");

    EXPECT_EQ(published_on("v1/device/job/77/ack").size(), 1U);
    EXPECT_THAT(active_jobs(), IsEmpty());
}

TEST_F(UpdateJobStatus, PausesAlsoWhenTheReportCouldNotBeSent) {
    fakes::will_return("send_message", {-1});
    update(R"({"jobId":"77", "status":"executed"})");
    EXPECT_THAT(sleeps(), ElementsAre(2));

    fakes::device().ping_result = -1;
    update(R"({"jobId":"77", "status":"success"})");
    EXPECT_THAT(sleeps(), ElementsAre(2, 2));

    EXPECT_THAT(published(), IsEmpty());
    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"success", "ack":false})"));
}

TEST_F(UpdateJobStatus, WithoutAClientStoresAndPublishesNothing) {
    iot_client = nullptr;

    update(R"({"jobId":"77", "status":"executed"})");

    expect_stored(at(R"({"status":"executed", "ack":false, "ackId":NOW})"));
    EXPECT_THAT(published(), IsEmpty());
}

TEST_F(UpdateJobStatus, WithoutACloudAddressLeavesTheStatusUnacknowledged) {
    fakes::device().cloud_host = "";

    update(R"({"jobId":"77", "status":"success"})");

    expect_stored(at(R"({"status":"success", "ack":false, "ackId":NOW})"));
    EXPECT_THAT(published(), IsEmpty());
    EXPECT_THAT(log_lines(), Contains(Notice("No IOT URL!")));
}

TEST_F(UpdateJobStatus, HoldsNoLockOnReturn) {
    update(R"({"jobId":"77", "status":"success"})");

    for (std::mutex *mutex : {&job_record_mutex, &job_file_mutex}) {
        EXPECT_TRUE(mutex->try_lock());
        mutex->unlock();
    }
}

class WrongType : public UpdateJobStatus, public testing::WithParamInterface<const char *> {};

TEST_P(WrongType, IsLoggedAndChangesNothing) {
    update(GetParam());

    EXPECT_EQ(log_lines().back(), (log_line{LOG_NOTICE, "update_job_status: exception handler"}));
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(active_jobs(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Each, WrongType,
                         Values("[]", "5", "\"text\"", R"({"jobId":{}, "status":"failed"})",
                                R"({"jobId":"77", "status":[]})"));

TEST_F(UpdateJobStatus, CatchesWhateverIsThrown) {
    fakes::before_change = [](const fakes::call &) { throw 7; };

    update(R"({"jobId":"77", "status":"executed"})");

    EXPECT_EQ(log_lines().back(), (log_line{LOG_NOTICE, "update_job_status: exception handler"}));
    EXPECT_TRUE(job_file_mutex.try_lock());
    job_file_mutex.unlock();
}

// --- An end that is stored by other means

TEST_F(UpdateJobStatus, LeavesItsStampToOthersToo) {
    for (const char *before : {R"({"jobId":"77", "status":"failed"})",
                               R"({"jobId":"77", "status":"failed", "ack":true, "ackId":5, "ackTs":4})"}) {
        job = json(before);

        stamp_status(job);

        EXPECT_THAT(
            job, IsJson(at(R"({"jobId":"77", "status":"failed", "ack":false, "ackId":NOW, "ackTs":NOW})")));
    }
    EXPECT_THAT(all_calls(), IsEmpty());
    EXPECT_THAT(active_jobs(), IsEmpty());
}

// --- The failsafe configuration's job, which the device makes itself.

struct failsafe_ack {
    const char *ack; // as a member of the record
    bool kept;
};

class FailsafeStatus : public UpdateJobStatus, public testing::WithParamInterface<failsafe_ack> {};

TEST_P(FailsafeStatus, KeepsItsAcknowledgementAndIsNeverPublished) {
    for (const std::string status : {"received", "executed", "success", "failed"}) {
        fakes::reset_log();
        update(R"({"jobId":"FAILSAFE_CONFIG", "status":")" + status + "\"" + GetParam().ack + "}");

        expect_stored(at(R"({"ackId":NOW, "ackTs":NOW, "status":")" + status + "\"}"));
        EXPECT_EQ(job["ack"], GetParam().kept);
        EXPECT_EQ(log_lines().back(), (log_line{LOG_DEBUG, "write job file: FAILSAFE_CONFIG"}));
        EXPECT_THAT(log_lines(), Not(Contains(Debug(HasSubstr("setting ACK to false")))));
    }
    EXPECT_THAT(published(), IsEmpty());
    EXPECT_THAT(sleeps(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Each, FailsafeStatus,
                         Values(failsafe_ack{", \"ack\":true", true}, failsafe_ack{", \"ack\":false", false},
                                failsafe_ack{"", false}, failsafe_ack{", \"ack\":\"text\"", false}));

TEST_F(UpdateJobStatus, OfTheFailsafeJobMayBeIntermediateToo) {
    update(R"({"jobId":"FAILSAFE_CONFIG", "status":"verifying", "ack":false})");

    expect_stored(R"({"ack":true, "ackId":0, "status":"verifying"})");
    EXPECT_THAT(log_lines(), ListIs(Notice("update_job_status: FAILSAFE_CONFIG verifying post_status: 1"),
                                    Debug("set job ACK true"), Debug("write job file: FAILSAFE_CONFIG")));
}

TEST_F(UpdateJobStatus, IsSilentForEveryIdThatBeginsLikeTheFailsafeJob) {
    update(R"({"jobId":"FAILSAFE_CONFIG-2", "status":"executed", "ack":true})");

    expect_stored(at(R"({"ack":false, "ackId":NOW})")); // else it is a job like any other
    EXPECT_THAT(published(), IsEmpty());
    EXPECT_THAT(sleeps(), IsEmpty());
    EXPECT_EQ(log_lines().back(), (log_line{LOG_DEBUG, "write job file: FAILSAFE_CONFIG-2"}));
}

TEST_F(UpdateJobStatus, IsReportedForIdsThatOnlyResembleTheFailsafeJob) {
    update(R"({"jobId":"FAILSAFE_CONFI", "status":"executed"})");
    update(R"({"jobId":"failsafe_config", "status":"executed"})");
    update(R"({"jobId":"xFAILSAFE_CONFIG", "status":"executed"})");
    update(R"({"jobId":"POST_CONFIG", "status":"executed"})");

    EXPECT_EQ(published().size(), 4U);
}
