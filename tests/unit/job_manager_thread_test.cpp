// The thread of the job manager: the checks after a boot, then the button and the passes for ever.
#include "tests/unit/job_manager_fixture.h"

#include <syslog.h>

#include <stdexcept>

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

class ManagerThread : public JobManagerTest {
protected:
    ManagerThread() {
        fakes::device().reboots = fakes::reboot_mode::RETURNS;
        iot_client = nullptr;
    }

    void run(time_t seconds) {
        run_for(seconds, [this] { job_mgr_main(client); });
    }

    static void given_job_to_start() { given_active_job(R"({"jobId":"1", "status":"received"})"); }

    // What a configuration apply cut short by a reboot leaves.
    static void given_interrupted_apply() {
        write_text("/var/data/orv/ACTIVE_JOB", R"({"jobId":"9", "status":"executed", "action":"CFG"})");
        write_text("/var/data/orv/config.new", "{}");
    }

    static void given_staged_config() {
        write_text("/var/data/orv/config.staged", "{}");
        write_text("/var/data/orv/config.staged.hash", "h");
    }

    static log_line nothing_to_recover() {
        return {LOG_DEBUG, "No remnant config and active config job found"};
    }
};

TEST_F(ManagerThread, OpensTheLogAndSaysThatItStarts) {
    run(0);

    EXPECT_THAT(opened_logs(), ElementsAre(opened_log{"iot", 0, LOG_LOCAL0}));
    EXPECT_THAT(log_lines(), ListIs(Notice("starting job_mgr_main"), nothing_to_recover()));
    EXPECT_THAT(all_calls()[0].function, "openlog");
}

TEST_F(ManagerThread, MakesItsClientTheOneThatEveryonePublishesThrough) {
    run(0);
    EXPECT_EQ(iot_client, &client);
}

TEST_F(ManagerThread, HasTheClientSetBeforeItRecovers) {
    given_interrupted_apply();
    const tessard *found = nullptr;
    neighbours::inside = [&](Json::Value &) { found = iot_client; };
    run(0);

    EXPECT_EQ(found, &client);
    EXPECT_EQ(neighbours::client, &client);
}

// --- the loop

TEST_F(ManagerThread, RunsAPassEveryThirdSecond) {
    given_job_to_start();
    run(12);

    EXPECT_THAT(neighbours::called_at, ElementsAre(2, 5, 8, 11));
    EXPECT_THAT(sleeps(), Each(1U));
}

TEST_F(ManagerThread, PollsTheButtonEverySecondOnTheModelThatHasOne) {
    fakes::device().device_type = 5;
    run(6);

    EXPECT_THAT(neighbours::called, Each("poll_reset_button"));
    EXPECT_THAT(neighbours::called_at, ElementsAre(0, 1, 2, 3, 4, 5, 6));
}

TEST_F(ManagerThread, NeverPollsTheButtonOfAnotherModel) {
    for (const int type : {-1, 0, 1, 2, 3, 4, 6}) {
        fakes::device().device_type = type;
        run(10);
        EXPECT_THAT(neighbours::called, IsEmpty()) << type;
    }
}

TEST_F(ManagerThread, ReadsTheModelOnceAtItsStart) {
    fakes::device().device_type = 5;
    neighbours::inside = [](Json::Value &) { fakes::device().device_type = 1; };
    run(3);

    EXPECT_THAT(neighbours::called, SizeIs(4));
}

TEST_F(ManagerThread, PollsTheButtonBeforeThePassOfTheSameSecond) {
    fakes::device().device_type = 5;
    given_job_to_start();
    run(2);

    EXPECT_THAT(neighbours::called, ListIs("poll_reset_button", "poll_reset_button", "poll_reset_button",
                                           "execute_job_action 1"));
}

TEST_F(ManagerThread, GoesOnWhenThePollThrows) {
    fakes::device().device_type = 5;
    given_job_to_start();
    neighbours::inside = [](Json::Value &job) {
        if (job.isNull())
            throw std::runtime_error("lock");
    };
    run(2);

    EXPECT_THAT(neighbours::called, SizeIs(4));
    EXPECT_EQ(neighbours::called.back(), "execute_job_action 1");
    EXPECT_THAT(log_lines(), Contains(Notice("job_mgr_main: exception handler")).Times(3));
}

TEST_F(ManagerThread, GoesOnWhenAPassThrows) {
    given_job_to_start();
    neighbours::inside = [](Json::Value &) { throw 1; };
    run(8);

    EXPECT_THAT(neighbours::called_at, ElementsAre(2, 5, 8));
    EXPECT_THAT(log_lines(), Contains(Notice("process_jobs: exception handler")).Times(3));
    EXPECT_THAT(log_lines(), Not(Contains(Notice("job_mgr_main: exception handler"))));
}

TEST_F(ManagerThread, GoesOnWhenAPassFails) {
    empty_directory("/var/data");
    run(8);
    EXPECT_THAT(log_lines(), Contains(Notice("process_jobs: get_active_job_list failed")).Times(3));
}

// --- after an ordinary boot

TEST_F(ManagerThread, FinishesAnInterruptedApplyBeforeAnythingElse) {
    fakes::device().device_type = 5;
    given_interrupted_apply();
    bool free = true;
    neighbours::inside = [&](Json::Value &job) {
        if (!job.isNull())
            free = manager_mutex_is_free();
    };
    run(0);

    EXPECT_THAT(neighbours::called, ListIs("cmd_apply 9", "poll_reset_button"));
    EXPECT_FALSE(free);
    EXPECT_TRUE(manager_mutex_is_free());
}

TEST_F(ManagerThread, ChecksForAnInterruptedApplyOnce) {
    run(30);
    EXPECT_THAT(log_lines(), Contains(nothing_to_recover()).Times(1));
}

TEST_F(ManagerThread, GoesOnWhenTheRecoveryThrows) {
    given_interrupted_apply();
    given_job_to_start();
    neighbours::inside = [](Json::Value &job) {
        if (job[KEY_JOB_ID] == "9")
            throw 1;
    };
    run(2);

    EXPECT_THAT(log_lines(), Contains(Notice("job_mgr_main: exception handler")).Times(1));
    EXPECT_THAT(neighbours::called, ListIs("cmd_apply 9", "execute_job_action 1"));
    EXPECT_TRUE(manager_mutex_is_free());
}

TEST_F(ManagerThread, TakesALocalUpgradeForNoneWithoutAnInstalledFirmware) {
    write_text(LOCAL_FW_UPGRADE_FILE, "");
    run(0);

    EXPECT_THAT(log_lines(), ListIs(Notice("starting job_mgr_main"), nothing_to_recover()));
    EXPECT_TRUE(exists(LOCAL_FW_UPGRADE_FILE));
}

// --- after a firmware upgrade that the cloud asked for

TEST_F(ManagerThread, LeavesTheCloudsFirmwareToThePasses) {
    given_unverified_firmware();
    given_interrupted_apply();
    run(0);

    EXPECT_THAT(log_lines(), ListIs(Notice("starting job_mgr_main"), Alert("job_mgr detects firmware update"),
                                    Alert("job_mgr detects IOT firmware update")));
    EXPECT_TRUE(exists(FIRMWARE_UPDATED_FILE));
    EXPECT_THAT(neighbours::called, IsEmpty());
    EXPECT_THAT(calls(), ListIs("sleep 1"));
}

TEST_F(ManagerThread, VerifiesTheCloudsFirmwareInItsFirstPass) {
    given_unverified_firmware();
    given_active_job(R"({"jobId":"1", "status":"executed", "action":"FW"})");
    run(2);

    EXPECT_THAT(neighbours::called, ListIs("check_fw_upgrade_result 1"));
    EXPECT_THAT(neighbours::called_at, ElementsAre(2));
}

// --- after a firmware upgrade that was started on the device

class ManagerThreadAfterALocalUpgrade : public ManagerThread {
protected:
    ManagerThreadAfterALocalUpgrade() {
        given_unverified_firmware();
        write_text(LOCAL_FW_UPGRADE_FILE, "");
    }

    static void expect_marks_deleted() {
        EXPECT_FALSE(exists(FIRMWARE_UPDATED_FILE));
        EXPECT_FALSE(exists(LOCAL_FW_UPGRADE_FILE));
    }
};

TEST_F(ManagerThreadAfterALocalUpgrade, RecoversDeletesBothMarksAndMakesTheOrdinaryCheck) {
    run(0);

    EXPECT_THAT(log_lines(), ListIs(Notice("starting job_mgr_main"), Alert("job_mgr detects firmware update"),
                                    Alert("job_mgr detects local firmware update"),
                                    Debug("No staged config found"), nothing_to_recover()));
    EXPECT_THAT(calls(), ListIs("delete_file /var/data/orv/LOCAL_FW_UPGRADE",
                                "delete_file /var/data/orv/FIRMWARE_UPDATED", "sleep 1"));
    expect_marks_deleted();
}

TEST_F(ManagerThreadAfterALocalUpgrade, VerifiesTheStagedConfigurationWhileBothMarksExist) {
    given_staged_config();
    bool local = false;
    bool updated = false;
    neighbours::inside = [&](Json::Value &) {
        local = exists(LOCAL_FW_UPGRADE_FILE);
        updated = exists(FIRMWARE_UPDATED_FILE);
    };
    run(0);

    EXPECT_THAT(neighbours::called, ListIs("cmd_apply LOCAL_FW_UPGRADE after an upgrade"));
    EXPECT_EQ(neighbours::client, &client);
    EXPECT_TRUE(local);
    EXPECT_TRUE(updated);
    expect_marks_deleted();
    EXPECT_THAT(reboots(), ListIs("request_reboot_blocking"));
}

TEST_F(ManagerThreadAfterALocalUpgrade, StillFinishesAnInterruptedApply) {
    given_interrupted_apply();
    run(0);
    EXPECT_THAT(neighbours::called, ListIs("cmd_apply 9"));
}

TEST_F(ManagerThreadAfterALocalUpgrade, GoesBackWhenTheVerificationThrows) {
    given_staged_config();
    neighbours::inside = [](Json::Value &) { throw 1; };
    run(0);

    expect_marks_deleted();
    EXPECT_THAT(log_lines(), Contains(Notice("verify_upgrade_config: exception handler")).Times(1));
    EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
}

TEST_F(ManagerThreadAfterALocalUpgrade, DeletesBothMarksAndGoesOnWhenTheRecoveryThrows) {
    given_staged_config();
    given_job_to_start();
    fakes::before_change = [](const fakes::call &change) {
        if (change.function == "request_reboot_blocking")
            throw 1;
    };
    run(2);

    fakes::before_change = nullptr;
    expect_marks_deleted();
    EXPECT_THAT(log_lines(), Contains(Notice("job_mgr_main: exception handler")).Times(1));
    EXPECT_THAT(log_lines(), Contains(nothing_to_recover()));
    EXPECT_THAT(neighbours::called,
                ListIs("cmd_apply LOCAL_FW_UPGRADE after an upgrade", "execute_job_action 1"));
}

TEST_F(ManagerThreadAfterALocalUpgrade, MakesNoOrdinaryCheckWhileTheMarkOfTheFirmwareStays) {
    given_interrupted_apply();
    fakes::always_returns("delete_file", -1, "FIRMWARE_UPDATED");
    run(0);

    EXPECT_TRUE(exists(FIRMWARE_UPDATED_FILE));
    EXPECT_FALSE(exists(LOCAL_FW_UPGRADE_FILE));
    EXPECT_THAT(neighbours::called, IsEmpty());
}
