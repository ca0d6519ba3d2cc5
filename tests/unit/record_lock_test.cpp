// The record's lock: from where to where each routine holds it, and what that keeps the two threads from doing to one
// another's changes.
#include "tests/unit/record_lock_bed.h"
#include "tests/unit/reporting_test.h"

#include "agent/acknowledgements.h"
#include "agent/job_intake.h"
#include "config/failsafe.h"
#include "jobs/job_store.h"
#include "jobs/manager/job_manager.h"

#include <atomic>
#include <semaphore>
#include <thread>

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class RecordLock : public ReportingTest {
protected:
    ~RecordLock() override {
        finish();
        fakes::before_change = nullptr;
        record_lock_bed::on_wait = nullptr;
        record_lock_bed::before_write = nullptr;
    }

    // A job 77 of this status, whose last report has session 1000.
    static void given_job(const std::string &status, const std::string &members = R"("ack":false)") {
        given_active_job(R"({"jobId":"77", "ackId":1000, "status":")" + status + "\", " + members + "}");
    }

    void cloud_answers(int rc) {
        job_pub_ack(client, test_message("v1/device/job/77/pub_ack", answer_with(rc)).get());
    }
    void service_answers(int rc) {
        cmd_ack(client, test_message("v1/device/cmd/filepull/ack", answer_with(rc)).get());
    }
    void cloud_updates(int rc) {
        job_update(client, test_message("v1/device/job/77/update", answer_with(rc)).get());
    }

    // As an action of the job manager does it, with the record that it has in memory.
    static void job_becomes(const std::string &status) {
        Json::Value job = json(R"({"jobId":"77", "ack":false, "ackId":1000})");
        job["status"] = status;
        update_job_status(job, POST_STATUS);
    }

    // What was done to the lock, the files and the cloud, in order and in short words.
    static std::vector<std::string> steps() {
        std::vector<std::string> lines =
            calls_of({"lock", "unlock", "read_json_file", "write_json_file", "sync_to_fs", "delete_file",
                      "send_message", "sleep", "switch_firmware_partition"});
        for (std::string &line : lines) {
            for (const std::string folder :
                 {"/var/data/orv/vantrel_iot/jobs/", "/var/volatile/orv/", "/var/data/orv/"})
                if (const size_t at = line.find(folder); at != std::string::npos)
                    line.erase(at, folder.size());
            if (line.rfind("send_message ", 0) == 0)
                line = line.substr(0, line.find(" {"));
        }
        return lines;
    }

    // Just before the first write of a job file, the other thread does this, until it is done or waits for the record's
    // lock.
    void before_the_write(const std::function<void()> &work) {
        record_lock_bed::before_write = [this, work] { let_the_other(work); };
    }

    // The same just before this file is deleted; that of the archive makes room for a job that moves there.
    void before_the_deletion_of(const std::string &path, const std::function<void()> &work) {
        fakes::before_change = [this, path, work](const fakes::call &next) {
            if (next.function == "delete_file" && next.text == path)
                let_the_other(work);
        };
    }

    void finish() {
        if (other.joinable())
            other.join();
    }

    static constexpr const char *ARCHIVED = "/var/data/orv/vantrel_iot/jobs/archive/77";

private:
    void let_the_other(const std::function<void()> &work) {
        if (begun.exchange(true))
            return;
        record_lock_bed::on_wait = [this] { settled.release(); };
        other = std::thread([this, work] {
            work();
            settled.release();
        });
        settled.acquire();
    }

    static std::string answer_with(int rc) {
        return R"({"jobId":"77", "session":1000, "rc":)" + std::to_string(rc) + "}";
    }

    std::thread other;
    std::atomic<bool> begun = false;
    std::counting_semaphore<> settled{0};
};

// --- from where to where

TEST_F(RecordLock, OfAnAcceptedReportIsHeldFromItsReadToItsFlush) {
    given_job("executed");
    cloud_answers(200);
    EXPECT_THAT(steps(), ListIs("lock record", "read_json_file active/77", "write_json_file active/77",
                                "sync_to_fs 2", "unlock record"));
}

TEST_F(RecordLock, OfAReportThatIsRefusedTooOftenIsHeldToItsArchive) {
    given_job("executed", R"("ack_attempts":100)");
    cloud_answers(500);
    EXPECT_THAT(steps(),
                ListIs("lock record", "read_json_file active/77", "write_json_file active/77", "sync_to_fs 2",
                       "delete_file archive/77", "delete_file FW_JOBID", "unlock record"));
}

TEST_F(RecordLock, OfAnAnswerThatCountsForNothingIsFreeAfterwards) {
    given_job("executed", R"("ackId":1001)");
    cloud_answers(200);
    service_answers(200);
    cloud_updates(0);
    EXPECT_THAT(steps(), ListIs("lock record", "read_json_file active/77", "unlock record", "lock record",
                                "read_json_file active/77", "unlock record", "lock record",
                                "read_json_file active/77", "unlock record"));
}

TEST_F(RecordLock, OfAnAnswerThatThrowsIsFreeAfterwards) {
    given_job("executed", R"("ack_attempts":"many")");
    cloud_answers(500);
    EXPECT_THAT(log_lines().back(), Debug("job_pub_ack: exception handler"));
    EXPECT_THAT(steps(), ListIs("lock record", "read_json_file active/77", "unlock record"));
}

TEST_F(RecordLock, OfAServicesAnswerIsHeldFromItsReadAndFreeAtTheReport) {
    given_job("executed");
    service_answers(200);
    EXPECT_THAT(steps(), ListIs("lock record", "read_json_file active/77", "read_json_file active/77",
                                "write_json_file active/77", "sync_to_fs 2", "unlock record",
                                "send_message v1/device/job/77/ack", "sleep 2"));
}

TEST_F(RecordLock, OfAJobUpdateIsHeldFromItsReadAndFreeAtTheReport) {
    given_job("executed", R"("action":"fw_put")");
    cloud_updates(0);
    EXPECT_THAT(steps(), ListIs("lock record", "read_json_file active/77", "delete_file FW_JOB_EXECUTING",
                                "read_json_file active/77", "write_json_file active/77", "sync_to_fs 2",
                                "unlock record", "send_message v1/device/job/77/ack", "sleep 2"));
}

TEST_F(RecordLock, OfAStatusIsHeldFromItsReadAndFreeAtTheReport) {
    given_job("received");
    job_becomes("executed");
    EXPECT_THAT(steps(),
                ListIs("lock record", "read_json_file active/77", "write_json_file active/77", "sync_to_fs 2",
                       "unlock record", "send_message v1/device/job/77/ack", "sleep 2"));
}

TEST_F(RecordLock, OfAStatusThatIsRepeatedIsFreeAtTheReport) {
    given_job("executed");
    job_becomes("executed");
    EXPECT_THAT(steps(), ListIs("lock record", "read_json_file active/77", "unlock record",
                                "send_message v1/device/job/77/ack", "sleep 2"));
}

TEST_F(RecordLock, OfAStatusThatCannotBeStoredIsFreeAfterwards) {
    fakes::before_change = [](const fakes::call &) { throw 7; };
    job_becomes("executed");
    fakes::before_change = nullptr;
    EXPECT_THAT(steps(), ListIs("lock record", "read_json_file active/77", "unlock record"));
}

TEST_F(RecordLock, OfAJobThatIsArchivedIsHeldFromItsReadAndFreeAtTheCheckIn) {
    given_job("success", R"("ack":true)");
    process_completed_job(client, "77");
    EXPECT_THAT(steps(), ListIs("lock record", "read_json_file active/77", "delete_file archive/77",
                                "delete_file FW_JOBID", "unlock record", "sleep 5",
                                "send_message v1/device/cmd/checkin/apply"));
}

TEST_F(RecordLock, OfAJobThatIsReportedAgainIsHeldFromItsReadAndFreeAtTheReport) {
    given_job("success");
    process_completed_job(client, "77");
    EXPECT_THAT(steps(), ListIs("lock record", "read_json_file active/77", "read_json_file active/77",
                                "unlock record", "send_message v1/device/job/77/ack", "sleep 2"));
}

TEST_F(RecordLock, OfAJobThatHasNotEndedIsFreeAfterwards) {
    given_job("received");
    EXPECT_EQ(process_completed_job(client, "77"), 1);
    EXPECT_THAT(steps(), ListIs("lock record", "read_json_file active/77", "unlock record"));
}

TEST_F(RecordLock, OfAVerificationsResultIsHeldFromItsReadToItsWrite) {
    given_job("executed", R"("cfg_verified":false)");
    record_failsafe_result(json(R"({"jobId":"77", "status":"success"})"), true);
    EXPECT_THAT(steps(), ListIs("lock record", "read_json_file active/77", "write_json_file active/77",
                                "unlock record", "sync_to_fs 2"));
}

TEST_F(RecordLock, OfAClearIsHeldForTheDeletionAlone) {
    given_job("received");
    force_fail_job(active_job_path("77"));
    EXPECT_THAT(steps(),
                ListIs("read_json_file active/77", "send_message v1/device/job/77/ack", "lock record",
                       "delete_file active/77", "unlock record", "delete_file FW_JOBID"));
}

TEST_F(RecordLock, IsHeldForAChangeThatDependsOnNoRead) {
    write_job_file(json(R"({"jobId":"77"})"));
    archive_job_file(json(R"({"jobId":"77"})"));
    delete_job_file("77");
    EXPECT_THAT(steps(), ListIs("lock record", "write_json_file active/77", "sync_to_fs 2", "unlock record",
                                "lock record", "delete_file archive/77", "delete_file FW_JOBID",
                                "unlock record", "lock record", "delete_file active/77", "unlock record"));
}

// --- what it keeps apart

TEST_F(RecordLock, KeepsAnAnswerToReceivedFromTakingBackTheStart) {
    given_job("received");
    before_the_write([] { job_becomes("executed"); });

    cloud_answers(200);
    finish();

    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"executed", "ack":false})"));
}

TEST_F(RecordLock, KeepsAnAnswerToExecutedFromTakingBackTheEnd) {
    given_job("executed");
    before_the_write([] { job_becomes("success"); });

    cloud_answers(200);
    finish();

    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"success", "ack":false})"));
}

TEST_F(RecordLock, KeepsAnAnswerToExecutedFromTakingBackAnEndThatIsStoredWithoutALook) {
    given_job("executed");
    before_the_write([] { write_job_file(json(R"({"jobId":"77", "status":"success", "ack":false})")); });

    cloud_answers(200);
    finish();

    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"success", "ack":false})"));
}

TEST_F(RecordLock, KeepsAnAnswerFromBeingTakenWhileTheNextStatusIsStored) {
    given_job("executed");
    before_the_write([this] { cloud_answers(200); });

    job_becomes("success");
    finish();

    EXPECT_THAT(log_lines(), Not(Contains(Alert(HasSubstr("set ACK: true")))));
    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"success", "ack":false})"));
}

TEST_F(RecordLock, KeepsTwoArchivingsOfAJobFromLosingIt) {
    given_job("failed", R"("ack":false, "ack_attempts":100)");
    before_the_deletion_of(ARCHIVED, [this] { process_completed_job(client, "77"); });

    cloud_answers(500);
    finish();

    EXPECT_THAT(active_jobs(), IsEmpty());
    EXPECT_EQ(archived_job("77")["status"], "failed");
}

TEST_F(RecordLock, KeepsAJobThatComesAgainFromBeingArchivedInThePlaceOfTheOld) {
    given_job("success", R"("ack":true)");
    before_the_deletion_of(ARCHIVED, [] {
        Json::Value job = json(R"({"jobId":"77"})");
        new_job_file(job);
    });

    process_completed_job(client, "77");
    finish();

    EXPECT_EQ(archived_job("77")["status"], "success");
    EXPECT_EQ(active_job("77")["status"], "received");
}

TEST_F(RecordLock, LetsTheLaterEndOfAJobStandWhenAServiceEndsItToo) {
    given_job("executed");
    before_the_write([] { job_becomes("failed"); });

    service_answers(200);
    finish();

    EXPECT_EQ(active_job("77")["status"], "failed");
}

TEST_F(RecordLock, LetsTheLaterEndOfAJobStandWhenAnUpdateEndsItToo) {
    given_job("executed", R"("action":"fw_put")");
    before_the_deletion_of("/var/volatile/orv/FW_JOB_EXECUTING", [] { job_becomes("failed"); });

    cloud_updates(0);
    finish();

    EXPECT_EQ(active_job("77")["status"], "failed");
}

TEST_F(RecordLock, KeepsAnAnswerThatComesWithTheVerificationsResult) {
    given_job("executed", R"("ack":false, "cfg_verified":false)");
    before_the_write([this] { cloud_answers(200); });

    record_failsafe_result(json(R"({"jobId":"77", "status":"success"})"), false);
    finish();

    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"success", "ack":true, "cfg_verified":true})"));
}

TEST_F(RecordLock, KeepsAClearFromBeingUndoneByAWriteThatHadBegun) {
    given_job("executed");
    before_the_write([] { force_fail_job(active_job_path("77")); });

    job_becomes("success");
    finish();

    EXPECT_THAT(active_jobs(), IsEmpty());
}
