// The job files: written, validated, archived and deleted.
#include "tests/fakes/agent_test.h"

#include "jobs/job_store.h"

#include <filesystem>

using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr const char *FW_JOBID = "/var/volatile/orv/FW_JOBID";

} // namespace

class WriteJobFile : public AgentTest {};

TEST_F(WriteJobFile, StoresTheWholeRecordUnderItsId) {
    EXPECT_EQ(write_job_file(json(R"({"jobId":"1234-abc", "status":"received", "other":[1, {"a":null}]})")),
              0);

    EXPECT_THAT(active_jobs(), ListIs("1234-abc"));
    EXPECT_THAT(active_job("1234-abc"),
                IsJson(R"({"jobId":"1234-abc", "status":"received", "other":[1, {"a":null}]})"));
    EXPECT_THAT(log_lines(), ListIs(Debug("write job file: 1234-abc")));
}

TEST_F(WriteJobFile, ReplacesTheFormerRecordWhole) {
    given_active_job(R"({"jobId":"77", "status":"received", "msg":"old"})");

    EXPECT_EQ(write_job_file(json(R"({"jobId":"77", "status":"success"})")), 0);

    EXPECT_THAT(active_job("77"), IsJson(R"({"jobId":"77", "status":"success"})"));
}

TEST_F(WriteJobFile, LogsThenWritesThenFlushes) {
    write_job_file(json(R"({"jobId":"77"})"));

    EXPECT_THAT(calls_of({"syslog", "write_json_file", "sync_to_fs"}),
                ListIs("syslog write job file: 77",
                       "write_json_file /var/data/orv/vantrel_iot/jobs/active/77", "sync_to_fs 2"));
}

TEST_F(WriteJobFile, HoldsTheMutexForTheWriteAlone) {
    std::vector<std::string> seen;
    fakes::before_change = [&](const fakes::call &call) {
        seen.push_back(call.function + (free_for_another_thread(job_file_mutex) ? " free" : " held"));
    };

    write_job_file(json(R"({"jobId":"77"})"));

    EXPECT_THAT(seen, ListIs("write_json_file held", "sync_to_fs free"));
    EXPECT_TRUE(free_for_another_thread(job_file_mutex));
}

TEST_F(WriteJobFile, TakesNoOtherMutex) {
    const std::lock_guard lock(job_manager_mutex);

    EXPECT_EQ(write_job_file(json(R"({"jobId":"77"})")), 0);
}

TEST_F(WriteJobFile, WithoutJobIdWritesNothing) {
    EXPECT_EQ(write_job_file(json(R"({"status":"received"})")), -1);
    EXPECT_EQ(write_job_file(Json::Value()), -1);

    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_THAT(active_jobs(), IsEmpty());
}

TEST_F(WriteJobFile, HandsOnTheResultOfTheWriteAndStillFlushes) {
    given_active_job(R"({"jobId":"77", "status":"received"})");
    fakes::will_return("write_json_file", {-1, 5});

    EXPECT_EQ(write_job_file(json(R"({"jobId":"77", "status":"failed"})")), -1);
    EXPECT_EQ(write_job_file(json(R"({"jobId":"77", "status":"failed"})")), 5);

    EXPECT_THAT(calls_of({"sync_to_fs"}), ListIs("sync_to_fs 2", "sync_to_fs 2"));
    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"received"})"));
    EXPECT_TRUE(free_for_another_thread(job_file_mutex));
}

TEST_F(WriteJobFile, OnAFullDiskLeavesTheOldRecord) {
    given_active_job(R"({"jobId":"77", "status":"received"})");
    limit_var_data(64ULL * 1024);
    Json::Value job = json(R"({"jobId":"77", "status":"success"})");
    job["msg"] = std::string(100'000, 'x');

    EXPECT_EQ(write_job_file(job), -1);

    EXPECT_THAT(active_job("77"), IsJson(R"({"jobId":"77", "status":"received"})"));
    EXPECT_THAT(active_jobs(), ListIs("77"));
}

class JobFileExists : public AgentTest {};

TEST_F(JobFileExists, AsksForTheFileOfTheRecordsId) {
    given_active_job(R"({"jobId":"77"})");

    EXPECT_TRUE(job_file_exists(json(R"({"jobId":"77"})")));
    EXPECT_FALSE(job_file_exists(json(R"({"jobId":"78"})")));
    EXPECT_FALSE(job_file_exists(json(R"({"jobId":"7"})")));
}

TEST_F(JobFileExists, DoesNotLookIntoTheArchive) {
    write_text(std::string(ARCHIVE_FOLDER) + "77", R"({"jobId":"77"})");

    EXPECT_FALSE(job_file_exists(json(R"({"jobId":"77"})")));
}

TEST_F(JobFileExists, IsFalseWithoutJobIdAndMakesNone) {
    Json::Value job = json(R"({"status":"received"})");

    EXPECT_FALSE(job_file_exists(job));
    EXPECT_THAT(job, IsJson(R"({"status":"received"})"));
    EXPECT_FALSE(job_file_exists(Json::Value()));
}

class CheckJobFile : public AgentTest {};

TEST_F(CheckJobFile, AcceptsWhatHasIdAndStatus) {
    given_active_job(R"({"jobId":"77", "status":"any text"})");

    EXPECT_EQ(check_job_file("77"), 0);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(CheckJobFile, ReportsAMissingFile) {
    EXPECT_EQ(check_job_file("77"), -1);
    EXPECT_THAT(log_lines(), ListIs(Alert("job file 77 not found")));
}

TEST_F(CheckJobFile, ReportsAFileThatIsNoJson) {
    for (const char *text : {"", "{", "{\"jobId\":\"77\", \"status\":\"rec"}) {
        fakes::reset_log();
        write_text(std::string(ACTIVE_FOLDER) + "77", text);

        EXPECT_EQ(check_job_file("77"), -1) << text;
        EXPECT_THAT(log_lines(), ListIs(Alert("error reading job file 77"))) << text;
    }
}

TEST_F(CheckJobFile, ReportsMissingMembers) {
    for (const char *text : {"{}", R"({"jobId":"77"})", R"({"status":"received"})", "null"}) {
        fakes::reset_log();
        write_text(std::string(ACTIVE_FOLDER) + "77", text);

        EXPECT_EQ(check_job_file("77"), -1) << text;
        EXPECT_THAT(log_lines(), ListIs(Alert("job 77 missing required values jobId and status"))) << text;
    }
}

TEST_F(CheckJobFile, ReportsWhatIsJsonButNoObject) {
    for (const char *text : {"[]", "[1]", "5", "true", "\"text\""}) {
        fakes::reset_log();
        write_text(std::string(ACTIVE_FOLDER) + "77", text);

        EXPECT_EQ(check_job_file("77"), -1) << text;
        EXPECT_THAT(log_lines(), ListIs(Alert("exeception reading job file 77"))) << text;
    }
}

TEST_F(CheckJobFile, ChangesNothing) {
    write_text(std::string(ACTIVE_FOLDER) + "77", "{");

    check_job_file("77");
    check_job_file("78");

    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(active_jobs(), ListIs("77"));
}

class ArchiveJobFile : public AgentTest {};

TEST_F(ArchiveJobFile, MovesTheJobToTheArchive) {
    given_active_job(R"({"jobId":"77", "status":"success"})");
    given_active_job(R"({"jobId":"78", "status":"received"})");

    archive_job_file(json(R"({"jobId":"77", "status":"in memory only"})"));

    EXPECT_THAT(active_jobs(), ListIs("78"));
    EXPECT_THAT(archived_job("77"), IsJson(R"({"jobId":"77", "status":"success"})"));
    EXPECT_THAT(log_lines(), ListIs(Notice("archiving job: 77")));
}

TEST_F(ArchiveJobFile, ReplacesAJobOfThatIdThatWasArchivedEarlier) {
    write_text(std::string(ARCHIVE_FOLDER) + "77", R"({"jobId":"77", "msg":"earlier"})");
    given_active_job(R"({"jobId":"77", "msg":"later"})");

    archive_job_file(json(R"({"jobId":"77"})"));

    EXPECT_THAT(archived_jobs(), ListIs("77"));
    EXPECT_THAT(archived_job("77"), IsJson(R"({"jobId":"77", "msg":"later"})"));
}

TEST_F(ArchiveJobFile, DeletesTheOldArchiveThenRenamesThenDeletesTheMarker) {
    given_active_job(R"({"jobId":"77"})");
    write_text(std::string(ARCHIVE_FOLDER) + "77", R"({"jobId":"77", "msg":"earlier"})");
    write_text(FW_JOBID, "77\n");
    std::vector<std::string> active_before_each_change;
    fakes::before_change = [&](const fakes::call &call) {
        active_before_each_change.push_back(call.text + (active_jobs().empty() ? " moved" : " not moved"));
    };

    archive_job_file(json(R"({"jobId":"77"})"));

    EXPECT_THAT(active_before_each_change, ListIs("/var/data/orv/vantrel_iot/jobs/archive/77 not moved",
                                                  "/var/volatile/orv/FW_JOBID moved"));
    EXPECT_EQ(calls_of({"syslog", "delete_file"}).front(), "syslog archiving job: 77");
}

TEST_F(ArchiveJobFile, RemovesTheFirmwareMarkerOfAnotherJobToo) {
    given_active_job(R"({"jobId":"77"})");
    given_active_job(R"({"jobId":"fw-1", "action":"FW", "status":"executed"})");
    write_text(FW_JOBID, "fw-1\n");

    archive_job_file(json(R"({"jobId":"77"})"));

    EXPECT_FALSE(exists(FW_JOBID));
    EXPECT_THAT(active_jobs(), ListIs("fw-1"));
}

TEST_F(ArchiveJobFile, GoesOnWhenThereIsNoJobFile) {
    write_text(std::string(ARCHIVE_FOLDER) + "77", R"({"jobId":"77"})");
    write_text(FW_JOBID, "77\n");

    archive_job_file(json(R"({"jobId":"77"})"));

    EXPECT_THAT(archived_jobs(), IsEmpty());
    EXPECT_FALSE(exists(FW_JOBID));
    EXPECT_THAT(log_lines(), ListIs(Notice("archiving job: 77")));
}

TEST_F(ArchiveJobFile, GoesOnWhenTheOldArchiveCannotBeDeleted) {
    given_active_job(R"({"jobId":"77", "msg":"later"})");
    write_text(FW_JOBID, "77\n");
    fakes::will_return("delete_file", {-1});

    archive_job_file(json(R"({"jobId":"77"})"));

    EXPECT_THAT(archived_job("77"), HasMembers(R"({"msg":"later"})"));
    EXPECT_FALSE(exists(FW_JOBID));
}

TEST_F(ArchiveJobFile, WithoutJobIdDoesNothing) {
    write_text(FW_JOBID, "77\n");

    archive_job_file(json(R"({"status":"success"})"));

    EXPECT_TRUE(exists(FW_JOBID));
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(log_lines(), IsEmpty());
}

class DeleteJobFile : public AgentTest {};

TEST_F(DeleteJobFile, LeavesTheFirmwareMarkerOfAnotherJob) {
    given_active_job(R"({"jobId":"77"})");
    for (const char *marked : {"78\n", "7\n", "777\n", "77 \n", " 77\n", "\n77\n"}) {
        write_text(FW_JOBID, marked);

        EXPECT_EQ(delete_job_file("77"), 0);

        EXPECT_TRUE(exists(FW_JOBID)) << marked;
    }
    EXPECT_THAT(active_jobs(), IsEmpty());
}

TEST_F(DeleteJobFile, RemovesTheFirmwareMarkerThatNamesIt) {
    for (const char *marked : {"77\n", "77"}) {
        given_active_job(R"({"jobId":"77"})");
        write_text(FW_JOBID, marked);

        EXPECT_EQ(delete_job_file("77"), 0);

        EXPECT_FALSE(exists(FW_JOBID)) << marked;
        EXPECT_THAT(active_jobs(), IsEmpty());
    }
}

TEST_F(DeleteJobFile, IsAlways0) {
    EXPECT_EQ(delete_job_file("77"), 0);
    fakes::always_returns("delete_file", -1);
    EXPECT_EQ(delete_job_file("77"), 0);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(DeleteJobFile, LeavesOtherJobsAndTheArchive) {
    given_active_job(R"({"jobId":"77"})");
    given_active_job(R"({"jobId":"78"})");
    write_text(std::string(ARCHIVE_FOLDER) + "77", R"({"jobId":"77"})");

    delete_job_file("77");

    EXPECT_THAT(active_jobs(), ListIs("78"));
    EXPECT_THAT(archived_jobs(), ListIs("77"));
}

class IsFwJob : public AgentTest {};

TEST_F(IsFwJob, ComparesTheMarkerByteForByte) {
    write_text(FW_JOBID, "fw-1\n");

    EXPECT_TRUE(is_fw_job("fw-1"));
    EXPECT_FALSE(is_fw_job("FW-1"));
    EXPECT_FALSE(is_fw_job("fw-"));
    EXPECT_FALSE(is_fw_job("fw-11"));
    EXPECT_FALSE(is_fw_job(""));
}

TEST_F(IsFwJob, IsFalseWithoutAMarker) {
    EXPECT_FALSE(is_fw_job("fw-1"));
    EXPECT_FALSE(is_fw_job(""));
}

TEST_F(IsFwJob, IsFalseWhenTheMarkerCannotBeRead) {
    write_text(FW_JOBID, "fw-1\n");
    fakes::will_return("read_var_file", {-1});

    EXPECT_FALSE(is_fw_job("fw-1"));
}

class ActiveJob : public AgentTest {};

TEST_F(ActiveJob, IsMarkedByALinkAndKeptInACopy) {
    given_active_job(R"({"jobId":"77", "action":"CFG"})");

    set_active_job(json(R"({"jobId":"77", "status":"in memory only"})"));

    EXPECT_EQ(std::filesystem::read_symlink("/var/run/ACTIVE_JOB"),
              "/var/data/orv/vantrel_iot/jobs/active/77");
    EXPECT_THAT(file_json("/var/data/orv/ACTIVE_JOB"), IsJson(R"({"jobId":"77", "action":"CFG"})"));
    EXPECT_THAT(calls(),
                ListIs("orvsys /bin/ln -s /var/data/orv/vantrel_iot/jobs/active/77 /var/run/ACTIVE_JOB",
                       "copy_file /var/data/orv/vantrel_iot/jobs/active/77 /var/data/orv/ACTIVE_JOB"));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(ActiveJob, IsCopiedWhenTheLinkCannotBeMade) {
    given_active_job(R"({"jobId":"77"})");
    write_text("/var/run/ACTIVE_JOB", "in the way");

    testing::internal::CaptureStderr();
    set_active_job(json(R"({"jobId":"77"})"));
    testing::internal::GetCapturedStderr(); // ln complains

    EXPECT_THAT(file_json("/var/data/orv/ACTIVE_JOB"), IsJson(R"({"jobId":"77"})"));
    EXPECT_EQ(file_text("/var/run/ACTIVE_JOB"), "in the way");
}

TEST_F(ActiveJob, ThatCannotBeCopiedIsNotReported) {
    write_text("/var/data/orv/ACTIVE_JOB", "former");

    set_active_job(json(R"({"jobId":"77"})")); // no job file

    EXPECT_EQ(file_text("/var/data/orv/ACTIVE_JOB"), "former");
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(ActiveJob, IsClearedByDeletingTheLinkAlone) {
    given_active_job(R"({"jobId":"77"})");
    set_active_job(json(R"({"jobId":"77"})"));

    EXPECT_EQ(clear_active_job(), 0);

    EXPECT_FALSE(exists("/var/run/ACTIVE_JOB"));
    EXPECT_TRUE(exists("/var/data/orv/ACTIVE_JOB"));
    EXPECT_THAT(active_jobs(), ListIs("77"));
}

TEST_F(ActiveJob, HandsOnTheResultOfClearingIt) {
    EXPECT_EQ(clear_active_job(), 0); // nothing to clear is no error
    fakes::will_return("delete_file", {-1});
    EXPECT_EQ(clear_active_job(), -1);
}
