// A firmware upgrade of the cloud that was cut, before the agent's first start.
#include "tests/unit/boot_bed.h"

#include "jobs/job_store.h"
#include "tests/fakes/device.h"

#include <sys/stat.h>

using testing::Contains;
using testing::IsEmpty;

class CloudUpgrade : public BootTest {
protected:
    // The new firmware runs, installed and not verified.
    CloudUpgrade() {
        given_running_slot(2);
        write_text(UPDATED, "slot 2\n");
        given_staged(new_config());
        write_text(MIGRATE, "1.1.0\n");
    }

    static bool marks_are_there() { return exists(UPDATED) && exists(STAGED) && exists(STAGED_HASH); }
    static bool any_mark_is_left() { return any_exists({UPDATED, STAGED, STAGED_HASH}); }
};

TEST_F(CloudUpgrade, ThatIsNotVerifiedIsLeftToTheAgent) {
    for (const char *status : {"executed", "received"}) {
        given_firmware_job(firmware_job(status));
        expect_boot_changes_nothing();
    }
}

TEST_F(CloudUpgrade, WithoutAJobIsLeftToTheAgent) {
    expect_boot_changes_nothing();
}

// --- a success

class SuccessfulUpgrade : public CloudUpgrade {
protected:
    SuccessfulUpgrade() {
        given_firmware_job(firmware_job("success"));
        given_saved(new_config());
    }
};

TEST_F(SuccessfulUpgrade, LosesItsMarks) {
    const Json::Value job_before = active_job("66");

    boot();

    EXPECT_FALSE(any_mark_is_left());
    EXPECT_FALSE(exists(MIGRATE));
    EXPECT_EQ(active_job("66"), job_before);
    EXPECT_THAT(log_lines(), ListIs(Notice("the upgrade of job 66 is a success: its marks are deleted")));
    EXPECT_THAT(reboots(), IsEmpty());
}

TEST_F(SuccessfulUpgrade, LosesTheMigrationThatWasLeftAfterTheMarks) {
    for (const char *path : {UPDATED, STAGED, STAGED_HASH})
        unlink(path);

    boot();

    EXPECT_FALSE(exists(MIGRATE));
    EXPECT_THAT(log_lines(), ListIs(Notice("the upgrade of job 66 is a success: its marks are deleted")));
}

TEST_F(SuccessfulUpgrade, ThatWaitsForItsAcknowledgementAloneIsHealthy) {
    for (const char *path : {UPDATED, STAGED, STAGED_HASH, MIGRATE})
        unlink(path);
    expect_boot_changes_nothing();
}

TEST_F(SuccessfulUpgrade, KeepsTheMigrationThatItStillNeeds) {
    for (const char *path : {UPDATED, STAGED, STAGED_HASH})
        unlink(path);
    given_saved(old_config());
    expect_boot_changes_nothing();
}

TEST_F(SuccessfulUpgrade, KeepsThemInTheFormerSlot) {
    given_running_slot(1);
    write_text(UPDATED, "1.1.0\n"); // of a tool that does not tell the slot
    expect_boot_changes_nothing();
}

TEST_F(SuccessfulUpgrade, KeepsThemWithoutAWordOfItsSlot) {
    job = firmware_job("success");
    for (const char *slot : {R"("2")", "1", "null"}) {
        job["partition2"] = json(slot);
        given_firmware_job(job);
        expect_boot_changes_nothing();
    }
}

TEST_F(SuccessfulUpgrade, KeepsThemWhenTheConfigurationCannotBeCompared) {
    job = firmware_job("success");
    for (const char *params : {"{}", R"({"cfg":"text"})", "[]", "7"}) {
        job["params"] = json(params);
        given_firmware_job(job);
        expect_boot_changes_nothing();
    }
}

TEST_F(SuccessfulUpgrade, KeepsThemForAnotherOneThatIsNotVerified) {
    Json::Value other = firmware_job("executed");
    other["jobId"] = "67";
    given_firmware_job(other);
    expect_boot_changes_nothing();
}

TEST_F(SuccessfulUpgrade, LosesThemThoughAnotherOneWaits) {
    Json::Value other = firmware_job("received");
    other["jobId"] = "67";
    other.removeMember("partition2");
    given_firmware_job(other);

    boot();

    EXPECT_FALSE(any_mark_is_left());
}

TEST_F(SuccessfulUpgrade, OfTheModemSaysNothingOfTheSystem) {
    job = firmware_job("success");
    job["radio"] = true;
    given_firmware_job(job);
    expect_boot_changes_nothing();
}

// A verification stores its success first.
TEST_F(SuccessfulUpgrade, ThatWasNotCommittedIsVerifiedAgain) {
    given_saved(old_config());

    boot();

    EXPECT_THAT(active_job("66"), HasMembers(R"({"status":"executed"})"));
    EXPECT_TRUE(marks_are_there());
    EXPECT_THAT(log_lines(),
                ListIs(Notice("the success of job 66 was not committed: its firmware is verified again")));
}

TEST_F(SuccessfulUpgrade, ThatWasNotCommittedIsBeforeTheJobsThatCameAfterItAgain) {
    given_saved(old_config());
    given_active_job(R"({"jobId":"77", "status":"received", "action":"CMD"})",
                     active_job("66")["timestamp"].asInt64() + 10);

    boot();

    Json::Value names(Json::arrayValue);
    get_active_job_list(names);
    EXPECT_EQ(names[0].asString(), "66");
    EXPECT_THAT(active_job("66"), HasMembers(R"({"status":"executed"})"));
    EXPECT_FALSE(exists("/var/data/orv/.reopened"));
}

TEST_F(SuccessfulUpgrade, ThatWasNotCommittedStaysWhenSomethingElseWasInstalledSince) {
    given_saved(old_config());
    write_text(INSTALLED, "1500 68\n");
    expect_boot_changes_nothing();
}

// --- a failure

class FailedUpgrade : public CloudUpgrade {
protected:
    FailedUpgrade() {
        given_firmware_job(firmware_job("failed"));
        for (const char *path : {UPDATED, STAGED, STAGED_HASH, MIGRATE})
            unlink(path);
    }

    static void expect_it_stays() {
        expect_boot_changes_nothing();
        EXPECT_THAT(reboots(), IsEmpty());
    }
};

TEST_F(FailedUpgrade, WhoseSlotRunsBootsTheOtherOne) {
    const Json::Value job_before = active_job("66");

    boot();

    EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
    EXPECT_EQ(active_job("66"), job_before);
    EXPECT_THAT(log_lines(),
                ListIs(Alert("job 66 failed and its firmware still runs: booting the other one")));
}

TEST_F(FailedUpgrade, WithItsMarksBootsTheOtherOneWithoutThem) {
    write_text(UPDATED, "slot 2\n");
    given_staged(new_config());

    boot();

    EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
    EXPECT_FALSE(any_mark_is_left());
}

TEST_F(FailedUpgrade, IsOverInTheOtherSlot) {
    given_running_slot(1);
    expect_it_stays();
}

TEST_F(FailedUpgrade, FromTheSecondSlotBootsTheSecondOne) {
    job = firmware_job("failed");
    job["partition2"] = true;
    given_firmware_job(job);
    expect_it_stays();
    given_running_slot(1);
    boot();
    EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
}

TEST_F(FailedUpgrade, WithoutAWordOfItsSlotStays) {
    job = firmware_job("failed");
    for (const char *slot : {R"("false")", "0", "null"}) {
        job["partition2"] = json(slot);
        given_firmware_job(job);
        expect_it_stays();
    }
}

TEST_F(FailedUpgrade, StaysWhenSomethingElseWasInstalledSince) {
    for (const char *stamp : {"2500 -\n", "1500 -\n", "2500 68\n", "1500 6\n", "1500 66 \n"}) {
        write_text(INSTALLED, stamp);
        expect_it_stays();
    }
}

TEST_F(FailedUpgrade, IsKnownByItsStampWhateverTheClockDid) {
    write_text(INSTALLED, "2500 66\n");
    boot();
    EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
}

TEST_F(FailedUpgrade, GoesByTheTimeWhereTheToolStampsNoJob) {
    for (const char *stamp : {"2500\n", "2000\n"}) { // at the earliest a boot after the installation
        write_text(INSTALLED, stamp);
        expect_it_stays();
    }
    write_text(INSTALLED, "1999\n");
    boot();
    EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
}

TEST_F(FailedUpgrade, StaysWithoutATimeToGoBy) {
    job = firmware_job("failed");
    for (const char *time : {R"("2000")", "null", "2.5"}) {
        job["ackTs"] = json(time);
        given_firmware_job(job);
        write_text(INSTALLED, "1500\n");
        expect_it_stays();
    }
}

TEST_F(FailedUpgrade, StaysWithoutAStamp) {
    for (const char *stamp : {"", "today\n", "-\n"}) {
        write_text(INSTALLED, stamp);
        expect_it_stays();
    }
    unlink(INSTALLED);
    expect_it_stays();
}

TEST_F(FailedUpgrade, StaysWithAYoungerFirmwareJob) {
    for (const char *younger : {R"({"jobId":"67", "action":"FW", "status":"received", "timestamp":1001})",
                                R"({"jobId":"67", "action":"FW", "status":"received", "timestamp":1000})",
                                R"({"jobId":"67", "action":"fw_put", "status":"executed"})",
                                R"({"jobId":"67", "action":"FW", "status":"executed", "timestamp":"999"})"}) {
        given_active_job(younger);
        expect_it_stays();
    }
}

TEST_F(FailedUpgrade, DoesNotStayForAnOlderFirmwareJob) {
    given_active_job(R"({"jobId":"65", "action":"FW", "status":"failed", "ackId":4, "timestamp":999})");
    given_active_job(R"({"jobId":"70", "action":"CMD", "status":"received", "timestamp":2000})");
    boot();
    EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
}

TEST_F(FailedUpgrade, DoesNotStayForAYoungerJobOfTheModem) {
    given_active_job(R"({"jobId":"67", "action":"FW", "status":"received", "timestamp":1001,
                         "params":{"radio":true}})");
    boot();
    EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
}

TEST_F(FailedUpgrade, StaysWithAYoungerJobWhoseRadioDoesNotReadTrue) {
    for (const char *params : {R"({"radio":"true"})", R"({"radio":false})", R"([true])", R"("radio")"}) {
        given_active_job(R"({"jobId":"67", "action":"FW", "status":"received", "timestamp":1001,
                             "params":)" +
                         std::string(params) + "}");
        expect_it_stays();
    }
}

TEST_F(FailedUpgrade, StaysWhileALocalUpgradeIsUnderWay) {
    write_text(LOCAL, "slot 2\n");
    write_text(UPDATED, "slot 2\n");
    given_staged(new_config());
    expect_it_stays();
}

// The cloud has not heard of it yet, and somebody has put things right on the device meanwhile.
TEST_F(FailedUpgrade, StaysAfterALocalUpgradeThatSucceededTwoBootsLater) {
    given_running_slot(1); // it had gone back
    boot();
    write_text(LOCAL, "slot 2\n");
    write_text(INSTALLED, "3000 -\n");
    write_text(UPDATED, "slot 2\n");
    given_staged(new_config());
    given_running_slot(2);
    boot();
    for (const char *path : {UPDATED, STAGED, STAGED_HASH}) // the agent has verified it
        unlink(path);
    boot();
    EXPECT_FALSE(exists(LOCAL));
    boot();
    EXPECT_THAT(reboots(), IsEmpty());
    EXPECT_THAT(active_job("66"), HasMembers(R"({"status":"failed"})"));
}

TEST_F(FailedUpgrade, ThatCannotGoBackIsTold) {
    fakes::will_return("switch_firmware_partition", {-1});
    boot();
    EXPECT_THAT(log_lines(), Contains(Error("the other firmware cannot be selected")));
}

TEST_F(FailedUpgrade, OfTheModemSaysNothingOfTheSystem) {
    job = firmware_job("failed");
    job["radio"] = true;
    given_firmware_job(job);
    expect_it_stays();
}

// --- a record that could not be read, and was repaired: nothing but its failure

class RepairedUpgrade : public FailedUpgrade {
protected:
    RepairedUpgrade() {
        given_firmware_job(
            json(R"({"jobId":"66", "action":"FW", "status":"failed", "ack":false, "ackId":7})"));
        write_text(TRIAL, "2 2\n");
    }
};

TEST_F(RepairedUpgrade, WhoseSlotRunsBootsTheOtherOne) {
    boot();
    EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
    EXPECT_THAT(log_lines(),
                ListIs(Alert("job 66 failed and its firmware still runs: booting the other one")));
}

TEST_F(RepairedUpgrade, IsOverInTheOtherSlot) {
    given_running_slot(1);
    expect_it_stays();
}

TEST_F(RepairedUpgrade, StaysInASlotThatIsNotOnTrial) {
    write_text(TRIAL, "1 2\n");
    expect_it_stays();
    unlink(TRIAL);
    expect_it_stays();
}

TEST_F(RepairedUpgrade, StaysWhenTheInstallationDoesNotNameIt) {
    for (const char *stamp : {"1500 -\n", "1500 67\n", "1500\n", "1500 \n", ""}) {
        write_text(INSTALLED, stamp);
        expect_it_stays();
    }
}

TEST_F(RepairedUpgrade, StaysWhenItTellsAnotherSlotOrNone) {
    for (const char *slot : {"true", "null", "7"}) {
        Json::Value told = active_job("66");
        told["partition2"] = json(slot);
        given_firmware_job(told);
        expect_it_stays();
    }
}

TEST_F(RepairedUpgrade, StaysWithAnotherFirmwareJob) {
    given_active_job(R"({"jobId":"67", "action":"FW", "status":"received", "timestamp":1001})");
    expect_it_stays();
}

TEST_F(RepairedUpgrade, IsNoneThatHasNotEnded) {
    for (const char *status : {"received", "executed", "success"}) {
        Json::Value other = active_job("66");
        other["status"] = status;
        given_firmware_job(other);
        expect_it_stays();
    }
}

// --- the tool was cut

class CutTool : public CloudUpgrade {
protected:
    CutTool() {
        for (const char *path : {UPDATED, STAGED, STAGED_HASH, MIGRATE})
            unlink(path);
        given_firmware_job(firmware_job("executed"));
        write_text(TRIAL, "2 2\n");
    }
};

TEST_F(CutTool, WhoseSlotWasChosenIsCompleted) {
    boot();

    EXPECT_EQ(file_text(UPDATED), "slot 2\n");
    EXPECT_THAT(log_lines(),
                ListIs(Notice("slot 2 was chosen by an upgrade that was cut: FIRMWARE_UPDATED is set")));
    EXPECT_THAT(calls().back(), testing::StrEq("sync_to_fs 2"));
}

TEST_F(CutTool, WhoseSlotWasNotChosenIsNot) {
    given_running_slot(1);
    unlink(TRIAL);
    expect_boot_changes_nothing();
    write_text(TRIAL, "2 3\n"); // the cut came before the slot itself
    expect_boot_changes_nothing();
}

TEST_F(CutTool, IsNotCompletedWithoutATrial) {
    unlink(TRIAL);
    expect_boot_changes_nothing();
    for (const char *trial : {"", "1 2\n", "two\n", "22 1\n"}) {
        write_text(TRIAL, trial);
        expect_boot_changes_nothing();
    }
}

TEST_F(CutTool, IsNotCompletedForAJobThatHasEnded) {
    write_text(INSTALLED, "1500 -\n");
    for (const char *status : {"success", "failed"}) {
        job = firmware_job(status);
        write_text(INSTALLED, "1500 -\n");
        given_firmware_job(job);
        expect_boot_changes_nothing();
    }
}

TEST_F(CutTool, ThatCannotBeCompletedIsTold) {
    mkdir("/var/data/orv/.FIRMWARE_UPDATED", 0755); // where it is written first
    boot();
    EXPECT_FALSE(exists(UPDATED));
    EXPECT_THAT(log_lines(), Contains(Error("/var/data/orv/FIRMWARE_UPDATED cannot be written")));
}

TEST_F(CutTool, IsCompletedOverWhatACutHasLeftOfThat) {
    write_text("/var/data/orv/.FIRMWARE_UPDATED", "slot 2 and more");
    boot();
    EXPECT_EQ(file_text(UPDATED), "slot 2\n");
    EXPECT_FALSE(exists("/var/data/orv/.FIRMWARE_UPDATED"));
}

TEST_F(CutTool, LeavesNoStagedConfigurationWithoutAFirmware) {
    given_running_slot(1);
    given_staged(new_config());
    boot();
    EXPECT_FALSE(any_mark_is_left());
    EXPECT_THAT(log_lines(),
                ListIs(Notice("no firmware is installed for the staged configuration: it is deleted")));
}

// --- the boot loader has given the slot up

class GivenUpSlot : public CloudUpgrade {
protected:
    GivenUpSlot() {
        given_running_slot(1);
        given_firmware_job(firmware_job("executed"));
    }
};

TEST_F(GivenUpSlot, TakesTheMarksOfItsUpgradeWithIt) {
    boot();

    EXPECT_FALSE(any_mark_is_left());
    EXPECT_FALSE(exists(MIGRATE));
    EXPECT_THAT(active_job("66"),
                HasMembers(R"({"status":"executed"})")); // the agent finds the slot unchanged
    EXPECT_THAT(log_lines(), ListIs(Notice("slot 2 of the upgrade does not run: its marks are deleted")));
}

TEST_F(GivenUpSlot, IsNotKnownFromAMarkThatDoesNotTellIt) {
    for (const char *mark : {"", "1\n", "2\n", "1.1.0\n", "3\n", "slot\n", "slot 3\n", "slot 21\n",
                             "slot 2 3\n", "slot  2\n", "\"slot 2\"\n"}) {
        write_text(UPDATED, mark);
        expect_boot_changes_nothing();
    }
}
