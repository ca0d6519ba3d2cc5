// What a reboot may have cut short.
#include "tests/unit/upgrade_bed.h"

#include "config/boot_recovery.h"

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class BootRecovery : public UpgradeTest {
protected:
    // Looks at job_manager_mutex just before this entry.
    void watch_mutex_at(const std::string &entry) {
        before(entry, [this] { free_then = free_for_another_thread(job_manager_mutex); });
    }

    bool free_then = true;
};

// --- an upgrade that was started on the device

class LocalUpgrade : public BootRecovery {};

TEST_F(LocalUpgrade, AWorkingConfigurationKeepsTheFirmwareAndReboots) {
    given_staged(new_config());

    recover_local_fw_upgrade(client);

    EXPECT_EQ(
        log_lines().front(),
        (log_line{LOG_ALERT,
                  "Booting from local FW upgrade: staged configs are available, verifying config changes"}));
    EXPECT_THAT(file_json(SAVED), IsJson(new_config()));
    EXPECT_THAT(progress(), Contains("network restart"));
    EXPECT_THAT(reboots(), ListIs("request_reboot_blocking"));
    EXPECT_THAT(log_lines(), Contains(Alert("rebooting after successful FW upgrade")));
    EXPECT_THAT(active_jobs(), ListIs("77"));
    expect_nothing_staged();
}

TEST_F(LocalUpgrade, AConfigurationThatDoesNotWorkGoesBackToTheFormerFirmware) {
    given_staged(new_config());
    fakes::config().validator_status = -1;

    recover_local_fw_upgrade(client);

    EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
    EXPECT_THAT(log_lines(), Not(Contains(Alert("rebooting after successful FW upgrade"))));
    expect_nothing_staged();
}

TEST_F(LocalUpgrade, EverythingIsDeletedBeforeTheReboot) {
    given_staged(new_config());

    recover_local_fw_upgrade(client);

    const std::vector<std::string> all = calls();
    EXPECT_THAT(std::vector(all.end() - 4, all.end()),
                ListIs("delete_file /var/data/orv/config.staged",
                       "delete_file /var/data/orv/config.staged.hash",
                       "delete_file /var/data/orv/FIRMWARE_UPDATED", "request_reboot_blocking"));
}

TEST_F(LocalUpgrade, ItsJobIsMadeForIt) {
    given_staged(new_config());
    Json::Value made;
    before("delete_file /var/data/orv/vantrel_iot/jobs/active/LOCAL_FW_UPGRADE",
           [&] { made = active_job("LOCAL_FW_UPGRADE"); });

    recover_local_fw_upgrade(client);

    EXPECT_THAT(made, HasMembers(R"({"action":"FAILSAFE_CONFIG", "jobId":"LOCAL_FW_UPGRADE", "timestamp":0,
                                     "source":"local_fwupgrade", "status":"success"})"));
}

TEST_F(LocalUpgrade, AnApplyThatThrowsGoesBack) {
    given_staged(new_config());
    given_changes(R"(["no object"])");

    recover_local_fw_upgrade(client);

    EXPECT_THAT(log_lines(), Contains(Notice("cmd_apply: exception handler")));
    EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
}

TEST_F(LocalUpgrade, AnyAbortRequestAbortsIt) {
    given_staged(new_config());
    client.abort_request_time = 1; // later than its time of 0

    recover_local_fw_upgrade(client);

    EXPECT_THAT(log_lines(), Contains(Debug("Need to abort (job time:0 abort request time:1)")));
    EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
}

TEST_F(LocalUpgrade, HoldsTheJobMutexForTheVerificationAlone) {
    given_staged(new_config());
    watch_mutex_at("encode_encrypt_fields_config_file");
    recover_local_fw_upgrade(client);
    EXPECT_FALSE(free_then);

    given_staged(new_config());
    watch_mutex_at("delete_file /var/data/orv/config.staged");
    recover_local_fw_upgrade(client);
    EXPECT_TRUE(free_then);
}

TEST_F(LocalUpgrade, WithOneOfTheTwoStagedFilesNothingHappens) {
    for (const char *missing : {STAGED, STAGED_HASH}) {
        fakes::reset_log();
        given_staged(new_config());
        std::remove(missing);

        recover_local_fw_upgrade(client);

        EXPECT_THAT(log_lines(), ListIs(Debug("No staged config found"))) << missing;
    }
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_TRUE(exists(UPDATED));
}

TEST_F(LocalUpgrade, WithoutStagedFilesNothingHappens) {
    recover_local_fw_upgrade(client);

    EXPECT_THAT(log_lines(), ListIs(Debug("No staged config found")));
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(LocalUpgrade, MayReturnFromItsSwitch) {
    given_staged(new_config());
    fakes::config().validator_status = -1;
    fakes::will_return("switch_firmware_partition", {-1});

    recover_local_fw_upgrade(client);

    EXPECT_THAT(reboots(), IsEmpty());
    expect_nothing_staged();
}

// --- an apply that a reboot cut short

class ConfigRecovery : public BootRecovery {
protected:
    ConfigRecovery() {
        std::remove(UPDATED);
        const char *text = R"({"jobId":"77", "action":"CFG", "status":"executed", "cfg_verified":false})";
        given_active_job(text);
        write_text(JOB_COPY, text);
        write_text(NEW_COPY, new_config());
    }
};

TEST_F(ConfigRecovery, IsFinishedFromWhatOutlivedTheReboot) {
    recover_config_job(client);

    EXPECT_EQ(log_lines().front(),
              (log_line{LOG_NOTICE, "Found remnant active config job and new config, so still "
                                    "need to finish config verification/cmd_apply"}));
    EXPECT_THAT(file_json(SAVED), IsJson(new_config()));
    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"success"})"));
    EXPECT_THAT(reported(), ListIs("success"));
    for (const char *path : {JOB_COPY, NEW_COPY, NEW, JOB_LINK})
        EXPECT_FALSE(exists(path)) << path;
}

TEST_F(ConfigRecovery, IsAnApplyLikeAnyOther) {
    write_text(NEW_COPY, old_config());

    recover_config_job(client);

    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"success", "msg":"no config changes to apply"})"));
}

TEST_F(ConfigRecovery, TakesTheJobFromItsCopy) {
    write_text(JOB_COPY, R"({"jobId":"78", "action":"CFG", "status":"executed"})");

    recover_config_job(client);

    EXPECT_THAT(reported("78"), ListIs("success"));
    EXPECT_THAT(reported("77"), IsEmpty());
}

TEST_F(ConfigRecovery, HoldsTheJobMutex) {
    watch_mutex_at("encode_encrypt_fields_config_file");

    recover_config_job(client);

    EXPECT_FALSE(free_then);
    EXPECT_TRUE(free_for_another_thread(job_manager_mutex));
}

TEST_F(ConfigRecovery, WithoutOneOfTheTwoNothingIsResumed) {
    for (const char *missing : {JOB_COPY, NEW_COPY}) {
        fakes::reset_log();
        write_text(JOB_COPY, R"({"jobId":"77"})");
        write_text(NEW_COPY, new_config());
        std::remove(missing);

        recover_config_job(client);

        EXPECT_THAT(log_lines(), ListIs(Debug("No remnant config and active config job found"))) << missing;
    }
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_TRUE(exists(JOB_COPY));
}

TEST_F(ConfigRecovery, AnUnreadableCopyOfTheJobSkipsTheApply) {
    write_text(JOB_COPY, "{");

    recover_config_job(client);

    EXPECT_THAT(log_lines(), ListIs(Notice(HasSubstr("Found remnant active config job"))));
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_TRUE(free_for_another_thread(job_manager_mutex));
}

TEST_F(ConfigRecovery, ACopyThatIsNoRecordEndsItToo) {
    write_text(JOB_COPY, "[]");

    recover_config_job(client);

    EXPECT_FALSE(exists(NEW_COPY));
    EXPECT_FALSE(exists(JOB_COPY));
    EXPECT_TRUE(free_for_another_thread(job_manager_mutex));
}
