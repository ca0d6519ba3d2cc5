// An upgrade that was started on the device and cut, before the agent's first start.
#include "tests/unit/boot_bed.h"

#include "tests/fakes/device.h"

using testing::IsEmpty;

class CutLocalUpgrade : public BootTest {
protected:
    // From slot 1 to slot 2, which runs; installed and not verified.
    CutLocalUpgrade() {
        given_running_slot(2);
        write_text(LOCAL, "slot 2\n");
        write_text(UPDATED, "slot 2\n");
        write_text(TRIAL, "2 2\n");
        write_text(INSTALLED, "1500 -\n");
        given_staged(old_config());
        given_saved(old_config());
    }

    static void expect_all_gone() {
        EXPECT_FALSE(any_exists({LOCAL, UPDATED, STAGED, STAGED_HASH}));
        EXPECT_THAT(active_jobs(), IsEmpty());
        EXPECT_THAT(reboots(), IsEmpty());
    }
};

TEST_F(CutLocalUpgrade, ThatIsNotVerifiedIsLeftToTheAgent) {
    expect_boot_changes_nothing();
    given_record_of_local_upgrade("executed");
    expect_boot_changes_nothing();
}

TEST_F(CutLocalUpgrade, OfAToolThatTellsNoSlotIsLeftToTheAgent) {
    for (const char *mark : {"", "yes\n", "1\n", "2\n"}) {
        for (const char *status : {"executed", "success", "failed"}) {
            write_text(LOCAL, mark);
            given_record_of_local_upgrade(status);
            expect_boot_changes_nothing();
        }
    }
}

// --- cut before the slot was chosen, and given up by the boot loader

TEST_F(CutLocalUpgrade, WhoseSlotDoesNotRunLosesItsMarks) {
    given_running_slot(1);
    write_text(MIGRATE, "1.1.0\n");
    given_record_of_local_upgrade("executed"); // would hold up the queue

    boot();

    expect_all_gone();
    EXPECT_FALSE(exists(MIGRATE));
    EXPECT_THAT(log_lines(),
                ListIs(Notice("slot 2 of the local upgrade does not run: its marks are deleted")));
}

TEST_F(CutLocalUpgrade, WhoseSlotWasNotChosenLosesItsMarks) {
    given_running_slot(1);
    unlink(UPDATED);
    unlink(TRIAL);
    boot();
    expect_all_gone();
}

TEST_F(CutLocalUpgrade, OfAToolThatTellsNoSlotLosesItsMarksWithoutATrial) {
    given_running_slot(1);
    write_text(LOCAL, "");
    unlink(UPDATED);
    boot();
    expect_all_gone();
}

// The running firmware is the cloud's and is being verified; the local one was to replace the former firmware.
TEST_F(CutLocalUpgrade, DoesNotTakeTheMarksOfAnUpgradeOfTheCloudWithIt) {
    write_text(LOCAL, "slot 1\n");
    write_text(MIGRATE, "1.1.0\n");
    given_firmware_job(firmware_job("executed"));
    given_record_of_local_upgrade("executed");

    boot();

    EXPECT_FALSE(exists(LOCAL));
    EXPECT_TRUE(exists(UPDATED) && exists(STAGED) && exists(STAGED_HASH) && exists(MIGRATE));
    EXPECT_THAT(active_jobs(), ListIs("66"));
    EXPECT_THAT(reboots(), IsEmpty());
    EXPECT_THAT(log_lines(), ListIs(Notice("slot 1 of the local upgrade does not run: its mark is deleted")));
}

TEST_F(CutLocalUpgrade, TakesAMarkOfNoSlotForItsOwn) {
    given_running_slot(1);
    for (const char *mark : {"1.1.0\n", "1\n", ""}) {
        write_text(LOCAL, "slot 2\n");
        write_text(UPDATED, mark);
        boot();
        expect_all_gone();
    }
}

TEST_F(CutLocalUpgrade, IsNoReasonToLeaveAnUpgradeOfTheCloudUnfinished) {
    write_text(LOCAL, "slot 1\n");
    given_firmware_job(firmware_job("failed"));

    boot();

    EXPECT_FALSE(any_exists({LOCAL, UPDATED, STAGED, STAGED_HASH}));
    EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
}

// --- cut between the slot and the last mark

TEST_F(CutLocalUpgrade, WhoseSlotWasChosenIsCompleted) {
    for (const char *mark : {"slot 2\n", ""}) {
        fakes::reset_log();
        write_text(LOCAL, mark);
        unlink(UPDATED);

        boot();

        EXPECT_EQ(file_text(UPDATED), "slot 2\n");
        EXPECT_TRUE(exists(LOCAL) && exists(STAGED) && exists(STAGED_HASH));
        EXPECT_THAT(log_lines(),
                    ListIs(Notice("slot 2 was chosen by an upgrade that was cut: FIRMWARE_UPDATED is set")));
    }
}

// --- the agent was cut at the end

TEST_F(CutLocalUpgrade, ThatIsOverLosesItsMark) {
    for (const char *path : {UPDATED, STAGED, STAGED_HASH})
        unlink(path);

    boot();

    expect_all_gone();
    EXPECT_THAT(log_lines(), ListIs(Notice("the local upgrade is over: its mark is deleted")));
}

TEST_F(CutLocalUpgrade, ThatIsOverLosesItsMarkWithHalfOfTheStagedFiles) {
    unlink(UPDATED);
    unlink(STAGED);
    boot();
    expect_all_gone();
}

TEST_F(CutLocalUpgrade, ThatIsASuccessLosesItsMarks) {
    given_record_of_local_upgrade("success");
    write_text(MIGRATE, "1.1.0\n");

    boot();

    expect_all_gone();
    EXPECT_FALSE(exists(MIGRATE));
    EXPECT_THAT(log_lines(), ListIs(Notice("the local upgrade is a success: its marks are deleted")));
}

TEST_F(CutLocalUpgrade, ThatIsASuccessWithoutItsCommitIsLeftToTheAgent) {
    given_record_of_local_upgrade("success");
    given_staged(new_config()); // migrated
    expect_boot_changes_nothing();
}

TEST_F(CutLocalUpgrade, ThatFailedBootsTheOtherSlotAndIsOverThere) {
    given_record_of_local_upgrade("failed");

    boot();

    EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
    EXPECT_FALSE(any_exists({UPDATED, STAGED, STAGED_HASH}));
    EXPECT_THAT(
        log_lines(),
        ListIs(Alert("job LOCAL_FW_UPGRADE failed and its firmware still runs: booting the other one")));

    fakes::reset_device();
    given_running_slot(1);
    boot();
    expect_all_gone();
}

TEST_F(CutLocalUpgrade, GoesBackByARecordOnly) {
    for (const char *record : {"", "{", "[]", R"({"jobId":"LOCAL_FW_UPGRADE", "status":["failed"]})",
                               R"({"jobId":"other", "status":"failed"})"}) {
        write_text("/var/data/orv/vantrel_iot/jobs/active/LOCAL_FW_UPGRADE", record);
        expect_boot_changes_nothing();
    }
}
