// What a boot tries again is bounded.
#include "tests/unit/boot_bed.h"

#include "tests/fakes/device.h"

using testing::IsEmpty;

class BoundedAttempts : public BootTest {
protected:
    // Selecting the other slot has no effect: this one runs again.
    BoundedAttempts() { given_running_slot(2); }

    static void boot_again() {
        fakes::reset_device();
        fakes::reset_log();
        boot();
    }

    static void expect_switches(int count) {
        for (int i = 0; i < count; ++i) {
            boot_again();
            EXPECT_THAT(reboots(), ListIs("switch_firmware_partition")) << i;
        }
        boot_again();
        EXPECT_THAT(reboots(), IsEmpty());
    }
};

TEST_F(BoundedAttempts, AtTheOtherSlotAreThree) {
    given_firmware_job(firmware_job("failed"));

    expect_switches(3);

    EXPECT_THAT(log_lines(), ListIs(Error("job 66: booting the other slot was tried 3 times: given up")));
    EXPECT_THAT(active_job("66"), HasMembers(R"({"status":"failed"})"));
}

TEST_F(BoundedAttempts, AreNotedBeforeAnythingIsDone) {
    given_firmware_job(firmware_job("failed"));
    write_text(UPDATED, "");

    boot();

    EXPECT_THAT(file_json(ATTEMPTS), IsJson(R"({"tried":"booting the other slot", "job":"66",
                                                "installed":"1500 66", "count":1})"));
    ASSERT_GE(calls().size(), 2U);
    EXPECT_EQ(calls()[0], "write_json_file /var/data/boot/attempts");
    EXPECT_EQ(calls()[1], "sync_to_fs 2");
}

TEST_F(BoundedAttempts, CountWhatWasCutAfterItsNote) {
    given_firmware_job(firmware_job("failed"));
    write_text(ATTEMPTS,
               R"({"tried":"booting the other slot", "job":"66", "installed":"1500 66", "count":1})");
    expect_switches(2);
}

TEST_F(BoundedAttempts, AreAsManyForAnotherJob) {
    given_firmware_job(firmware_job("failed"));
    expect_switches(3);
    unlink("/var/data/orv/vantrel_iot/jobs/active/66");
    job = firmware_job("failed");
    job["jobId"] = "67";
    given_firmware_job(job);
    write_text(INSTALLED, "1500 67\n");
    expect_switches(3);
}

TEST_F(BoundedAttempts, AreAsManyForAnotherInstallation) {
    given_firmware_job(firmware_job("failed"));
    expect_switches(3);
    write_text(INSTALLED, "1600 66\n");
    expect_switches(3);
}

TEST_F(BoundedAttempts, AreAsManyAfterANoteThatIsNone) {
    given_firmware_job(firmware_job("failed"));
    for (const char *note :
         {"", "{", "[]", "3", R"({"count":3})",
          R"({"tried":"booting the other slot", "job":"66", "installed":"1500 66", "count":"3"})",
          R"({"tried":"booting the other slot", "job":"66", "installed":"1500 66", "count":-3})"}) {
        write_text(ATTEMPTS, note);
        expect_switches(3);
    }
}

TEST_F(BoundedAttempts, AreNoneWithoutANote) {
    given_firmware_job(firmware_job("failed"));
    write_text(UPDATED, "");
    given_staged(new_config());
    fakes::always_returns("write_json_file", -1, "attempts");

    boot();

    EXPECT_THAT(reboots(), IsEmpty());
    EXPECT_TRUE(exists(UPDATED) && exists(STAGED) && exists(STAGED_HASH));
    EXPECT_THAT(log_lines(), ListIs(Error("job 66: booting the other slot is not tried: "
                                          "/var/data/boot/attempts cannot be written")));
}

// Its mark would make the next upgrade of the cloud a local one.
TEST_F(BoundedAttempts, ThatAreOverEndALocalUpgrade) {
    given_record_of_local_upgrade("failed");
    write_text(LOCAL, "slot 2\n");
    write_text(INSTALLED, "1500 -\n");

    expect_switches(3);

    EXPECT_FALSE(exists(LOCAL));
    EXPECT_THAT(active_jobs(), IsEmpty());
    EXPECT_THAT(log_lines(),
                ListIs(Error("job LOCAL_FW_UPGRADE: booting the other slot was tried 3 times: given up")));
    fakes::reset_log();
    fakes::reset_calls();
    expect_boot_changes_nothing();
}

TEST_F(BoundedAttempts, AtALocalUpgradeAreNoneWithoutANote) {
    given_record_of_local_upgrade("failed");
    write_text(LOCAL, "slot 2\n");
    fakes::always_returns("write_json_file", -1, "attempts");

    boot();

    EXPECT_THAT(reboots(), IsEmpty());
    EXPECT_TRUE(exists(LOCAL));
    EXPECT_THAT(active_jobs(), ListIs("LOCAL_FW_UPGRADE"));
}

// --- a commit that kills the agent each time

class BoundedReopening : public BoundedAttempts {
protected:
    BoundedReopening() {
        write_text(UPDATED, "");
        given_staged(new_config());
        given_saved(old_config());
        given_firmware_job(firmware_job("success"));
    }
};

TEST_F(BoundedReopening, IsThreeTimes) {
    for (int i = 0; i < 3; ++i) {
        boot_again();
        EXPECT_THAT(active_job("66"), HasMembers(R"({"status":"executed"})")) << i;
        given_firmware_job(firmware_job("success")); // stored again by the agent, and cut again
    }

    boot_again();

    EXPECT_THAT(active_job("66"), HasMembers(R"({"status":"success"})"));
    EXPECT_TRUE(exists(UPDATED) && exists(STAGED) && exists(STAGED_HASH));
    EXPECT_THAT(log_lines(),
                ListIs(Error("job 66: verifying its firmware again was tried 3 times: given up")));
}

TEST_F(BoundedReopening, IsNotTriedWithoutANote) {
    fakes::always_returns("write_json_file", -1, "attempts");
    boot();
    EXPECT_THAT(active_job("66"), HasMembers(R"({"status":"success"})"));
    EXPECT_THAT(log_lines(), ListIs(Error("job 66: verifying its firmware again is not tried: "
                                          "/var/data/boot/attempts cannot be written")));
}

TEST_F(BoundedReopening, LeavesTheOtherSlotAllItsAttempts) {
    for (int i = 0; i < 3; ++i) {
        boot_again();
        given_firmware_job(firmware_job("success"));
    }
    given_firmware_job(firmware_job("failed"));
    expect_switches(3);
}
