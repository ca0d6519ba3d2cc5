// An apply that was cut, before the agent's first start.
#include "tests/unit/boot_bed.h"

#include "config/boot_recovery.h"

#include <stdexcept>

#include <sys/stat.h>

using testing::IsEmpty;

namespace {

const std::vector<const char *> REMNANTS = {JOB_COPY, NEW_COPY, TIMER};

} // namespace

class CutApply : public BootTest {};

TEST_F(CutApply, ThatHadFailedIsNotResumed) {
    given_cut_apply("failed");
    const Json::Value job_before = active_job("77");

    boot();

    EXPECT_FALSE(any_exists(REMNANTS));
    EXPECT_EQ(active_job("77"), job_before);
    EXPECT_THAT(file_json(SAVED), IsJson(old_config()));
    EXPECT_THAT(log_lines(), ListIs(Notice("the apply of job 77 had ended as failed: it is not resumed")));
}

TEST_F(CutApply, ThatHadFailedAndWasTakenBackIsNotResumed) {
    given_cut_apply("failed");
    given_saved(R"({"name":"failsafe"})");

    boot();

    EXPECT_FALSE(any_exists(REMNANTS));
}

TEST_F(CutApply, ThatIsASuccessAndCommittedIsNotResumed) {
    given_cut_apply("success");
    given_saved(new_config());

    boot();

    EXPECT_FALSE(any_exists(REMNANTS));
    EXPECT_THAT(log_lines(), ListIs(Notice("the apply of job 77 had ended as success: it is not resumed")));
}

TEST_F(CutApply, OfTheDeviceItselfIsJudgedAlike) {
    given_cut_apply("failed", "FAILSAFE_CONFIG");

    boot();

    EXPECT_FALSE(any_exists(REMNANTS));
}

TEST_F(CutApply, ThatIsASuccessWithoutItsCommitIsResumed) {
    given_cut_apply("success");
    expect_boot_changes_nothing();
}

// A device that ran another configuration was sent the one that its failsafe copy holds, and took that back.
TEST_F(CutApply, ThatHadFailedWithTheFailsafeConfigurationIsNotResumed) {
    given_cut_apply("failed");
    given_saved(new_config());
    given_config(FAILSAFE, FAILSAFE_HASH, new_config());

    boot();

    EXPECT_FALSE(any_exists(REMNANTS));
    EXPECT_THAT(file_json(SAVED), IsJson(new_config()));
}

// Whatever has made it persistent, the record does not tell of it.
TEST_F(CutApply, ThatHadFailedWithItsCandidatePersistentIsResumed) {
    given_cut_apply("failed");
    given_saved(new_config());
    expect_boot_changes_nothing();
    given_config(FAILSAFE, FAILSAFE_HASH, old_config());
    expect_boot_changes_nothing();
}

TEST_F(CutApply, ThatIsASuccessWithTheFailsafeConfigurationPersistentIsResumed) {
    given_cut_apply("success");
    given_config(FAILSAFE, FAILSAFE_HASH, old_config());
    expect_boot_changes_nothing();
}

TEST_F(CutApply, ThatHasNotEndedIsResumed) {
    for (const char *status : {"received", "executed", "verifying"}) {
        given_cut_apply(status);
        expect_boot_changes_nothing();
    }
}

TEST_F(CutApply, WhoseJobWasClearedIsResumed) {
    given_cut_apply("failed");
    unlink("/var/data/orv/vantrel_iot/jobs/active/77");
    expect_boot_changes_nothing();
}

TEST_F(CutApply, IsResumedWhereNobodyKnowsWhatIsPersistent) {
    for (const char *broken : {"", "{", "[]"}) {
        given_cut_apply("failed");
        write_text(SAVED, broken);
        expect_boot_changes_nothing();
    }
}

TEST_F(CutApply, IsResumedWhenItsRecordIsNone) {
    for (const char *record : {"", "{", "[]", "7", R"({"jobId":"78", "status":"failed"})",
                               R"({"jobId":77, "status":{"failed":1}})", R"({"status":"failed"})"}) {
        given_cut_apply("failed");
        write_text("/var/data/orv/vantrel_iot/jobs/active/77", record);
        expect_boot_changes_nothing();
    }
}

TEST_F(CutApply, IsResumedWhenAFolderOrAPipeStandsWhereItsRecordDoes) {
    const char *path = "/var/data/orv/vantrel_iot/jobs/active/77";
    given_cut_apply("failed");
    unlink(path);
    mkdir(path, 0755);
    expect_boot_changes_nothing();
    rmdir(path);
    mkfifo(path, 0644);
    expect_boot_changes_nothing();
}

TEST_F(CutApply, TakesTheRecordOfALocalUpgradeWithIt) {
    given_cut_apply("failed");
    given_record_of_local_upgrade("executed");

    boot();

    EXPECT_THAT(active_jobs(), ListIs("77"));
}

TEST_F(CutApply, LeavesARecordThatIsNotTheDevicesOwn) {
    given_active_job(R"({"jobId":"LOCAL_FW_UPGRADE", "action":"CMD", "status":"received"})");
    expect_boot_changes_nothing();
}

TEST_F(CutApply, OfALocalUpgradeThatIsResumedKeepsItsRecord) {
    given_cut_apply("executed", "LOCAL_FW_UPGRADE");
    given_record_of_local_upgrade("executed");
    expect_boot_changes_nothing();
}

TEST_F(CutApply, LeavesTheRecordOfALocalUpgradeThatIsUnderWay) {
    given_cut_apply("failed");
    given_record_of_local_upgrade("executed");
    write_text(LOCAL, "slot 1\n");
    write_text(UPDATED, "slot 1\n");

    boot();

    EXPECT_FALSE(any_exists(REMNANTS));
    EXPECT_THAT(active_jobs(), ListIs("77", "LOCAL_FW_UPGRADE"));
}

TEST_F(CutApply, WithoutAReadableJobIsForgotten) {
    for (const char *copy : {"", "{", "[]"}) {
        fakes::reset_log();
        write_text(JOB_COPY, copy);
        write_text(NEW_COPY, new_config());
        write_text(TIMER, "{}");

        boot();

        EXPECT_FALSE(any_exists(REMNANTS)) << copy;
        EXPECT_THAT(log_lines(),
                    ListIs(Notice("an unfinished apply has no readable job: what is left of it is deleted")));
    }
}

TEST_F(CutApply, WithoutItsJobIsForgotten) {
    for (const char *left : {NEW_COPY, TIMER}) {
        write_text(left, new_config());
        boot();
        EXPECT_FALSE(any_exists(REMNANTS)) << left;
    }
}

TEST_F(CutApply, WithoutItsCandidateIsForgotten) {
    given_cut_apply("executed");
    unlink(NEW_COPY);

    boot();

    EXPECT_FALSE(any_exists(REMNANTS));
    EXPECT_THAT(active_jobs(), ListIs("77"));
    EXPECT_THAT(log_lines(),
                ListIs(Notice("an unfinished apply has no candidate: what is left of it is deleted")));
}

TEST_F(CutApply, ThatCannotBeDeletedIsTold) {
    given_cut_apply("failed");
    fakes::always_returns("delete_file", -1, "FAILSAFE_TIMER");

    boot();

    EXPECT_THAT(log_lines(), testing::Contains(Error("/var/data/orv/FAILSAFE_TIMER cannot be deleted")));
    EXPECT_FALSE(any_exists({JOB_COPY, NEW_COPY}));
}

// --- with the agent after it

TEST_F(CutApply, ThatHadEndedIsLeftAloneByTheAgent) {
    given_cut_apply("failed");

    boot();
    recover_config_job(client);

    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"failed"})"));
    EXPECT_THAT(progress(), IsEmpty());
}

// --- a failure that nobody would tell

class UntoldFailure : public BootTest {};

TEST_F(UntoldFailure, IsStampedSoThatItIsTold) {
    given_active_job(R"({"jobId":"66", "action":"FW", "status":"failed", "ack":false})");

    boot();

    Json::Value stamped = json(R"({"jobId":"66", "action":"FW", "status":"failed", "ack":false})");
    stamped["ackId"] = stamped["ackTs"] = Json::Int(START_TIME);
    EXPECT_EQ(active_job("66"), stamped);
    EXPECT_THAT(log_lines(),
                ListIs(Notice("job 66 failed without a session: it gets one, and will be told")));
    EXPECT_THAT(calls().back(), testing::StrEq("sync_to_fs 2"));
}

TEST_F(UntoldFailure, IsToldWhateverItSaysOfItsAcknowledgement) {
    given_active_job(R"({"jobId":"66", "status":"failed", "ack":true})"); // nobody can have answered it
    boot();
    EXPECT_THAT(active_job("66"), HasMembers(R"({"ack":false})"));
}

TEST_F(UntoldFailure, IsStampedOnce) {
    given_active_job(R"({"jobId":"66", "status":"failed", "ack":false})");
    boot();
    fakes::reset_log();
    fakes::reset_calls();
    set_time(START_TIME + 100);
    expect_boot_changes_nothing();
}

TEST_F(UntoldFailure, IsNoneWithASessionOrAnotherStatus) {
    given_active_job(R"({"jobId":"1", "status":"failed", "ack":false, "ackId":9})");
    given_active_job(R"({"jobId":"2", "status":"success", "ack":false})");
    given_active_job(R"({"jobId":"3", "status":"received"})");
    given_active_job(R"({"jobId":"4", "status":7})");
    expect_boot_changes_nothing();
}

TEST_F(UntoldFailure, IsNoneInAFileOfAnotherName) {
    write_text("/var/data/orv/vantrel_iot/jobs/active/5", R"({"jobId":"6", "status":"failed"})");
    expect_boot_changes_nothing();
}

TEST_F(UntoldFailure, ThatCannotBeStoredIsSaid) {
    given_active_job(R"({"jobId":"66", "status":"failed"})");
    fakes::always_returns("write_json_file", -1);

    boot();

    EXPECT_THAT(log_lines(), testing::Contains(Error("job 66 cannot be stored")));
}

// --- what nobody foresaw

class StepThatThrows : public BootTest {
protected:
    static void throws_at(const std::string &entry) {
        before(entry, [] { throw std::runtime_error("unforeseen"); });
    }
};

TEST_F(StepThatThrows, KeepsNoOtherFromBeingDone) {
    given_cut_apply("failed");
    given_active_job(R"({"jobId":"66", "status":"failed"})");
    write_text(LOCAL, "slot 1\n");
    throws_at("delete_file /var/data/orv/FAILSAFE_TIMER");

    boot();

    EXPECT_THAT(log_lines(), testing::Contains(Error("finish_apply: exception handler")));
    EXPECT_TRUE(active_job("66").isMember("ackId"));
    EXPECT_FALSE(exists(LOCAL));
}

TEST_F(StepThatThrows, IsTold) {
    write_text(LOCAL, "slot 1\n");
    throws_at("delete_file /var/data/orv/LOCAL_FW_UPGRADE");
    boot();
    EXPECT_THAT(log_lines(), testing::Contains(Error("finish_upgrade: exception handler")));

    given_active_job(R"({"jobId":"66", "status":"failed"})");
    throws_at("write_json_file");
    boot();
    EXPECT_THAT(log_lines(), testing::Contains(Error("stamp_untold_failures: exception handler")));

    write_text(FW_JOBID, "66\n");
    throws_at("delete_file /var/volatile/orv/FW_JOBID");
    clear_what_a_kill_has_left();
    EXPECT_THAT(log_lines(), testing::Contains(Error("clear_leftovers: exception handler")));
}

// --- a device with nothing to mend

class HealthyDevice : public BootTest {};

TEST_F(HealthyDevice, IsNotChanged) {
    expect_boot_changes_nothing();
}

TEST_F(HealthyDevice, IsNotChangedWithJobsThatWait) {
    given_active_job(
        R"({"jobId":"1", "action":"CMD", "status":"executed", "fail_on_reboot":true, "ackId":5})");
    given_active_job(R"({"jobId":"2", "action":"CFG", "status":"received", "ackId":6})");
    given_active_job(R"({"jobId":"3", "action":"CMD", "status":"failed", "ack":false, "ackId":7})");
    given_active_job(R"({"jobId":"4", "action":"XTRA", "status":"success", "ack":true, "ackId":8})");
    expect_boot_changes_nothing();
}

TEST_F(HealthyDevice, IsNotChangedWithForeignFilesAmongItsJobs) {
    const std::string folder = "/var/data/orv/vantrel_iot/jobs/active/";
    mkdir((folder + "folder").c_str(), 0755);
    mkfifo((folder + "pipe").c_str(), 0644);
    ASSERT_EQ(symlink("/nowhere", (folder + "link").c_str()), 0);
    for (const char *text : {"", "{", "null", "[1]", "\"failed\"", R"({"jobId":{}, "status":[]})",
                             R"({"jobId":null, "status":null, "action":{}, "partition2":7})"})
        write_text(folder + "file " + std::to_string(names_in(folder).size()), text);
    write_text(folder + "deep", std::string(100'000, '['));
    expect_boot_changes_nothing();
}
