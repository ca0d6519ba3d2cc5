// The configuration that comes with a firmware, and the end of an installation.
#include "tests/unit/upgrade_bed.h"

#include "config/post_upgrade.h"

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class PostUpgrade : public UpgradeTest {
protected:
    void expect_not_staged(const std::string &msg) {
        EXPECT_EQ(stage_upgrade_config(job), -1);
        EXPECT_EQ(job["status"], "failed");
        EXPECT_EQ(job["msg"], msg);
        EXPECT_THAT(log_lines(), ListIs(Alert(msg)));
        EXPECT_THAT(published(), IsEmpty());
    }
};

// --- staging

TEST_F(PostUpgrade, StagesTheConfigurationOfTheJobWithItsHash) {
    const Json::Value before_it = job;

    EXPECT_EQ(stage_upgrade_config(job), 0);

    EXPECT_EQ(job, before_it);
    EXPECT_THAT(file_json(STAGED), IsJson(new_config()));
    EXPECT_EQ(file_text(STAGED_HASH), fakes::hash_of(json(new_config())));
    EXPECT_THAT(log_lines(), ListIs(Alert("FW upgrade job: verified hash of staged config")));
    EXPECT_THAT(calls_of({"write_json_file", "calculate_and_write_config_hash", "read_hash"}),
                ListIs("write_json_file /var/data/orv/config.staged",
                       "calculate_and_write_config_hash /var/data/orv/config.staged "
                       "/var/data/orv/config.staged.hash",
                       "read_hash /var/data/orv/config.staged.hash"));
}

TEST_F(PostUpgrade, WithoutParamsThereIsNothingToStage) {
    job.removeMember("params");
    expect_not_staged("Error, FW upgrade job missing required cfg. Reverting to previous FW");
}

TEST_F(PostUpgrade, ParamsThatAreNoObjectHaveNoConfiguration) {
    for (const char *params : {"\"cfg\"", "[]", "7", "null"}) {
        fakes::reset_log();
        job["params"] = json(params);
        expect_not_staged("Error, FW upgrade job missing required cfg. Reverting to previous FW");
    }
}

TEST_F(PostUpgrade, WithoutAConfigurationThereIsNothingToStage) {
    job["params"].removeMember("cfg");
    job["params"].removeMember("hashAtFwVer");
    expect_not_staged("Error, FW upgrade job missing required cfg. Reverting to previous FW");
    EXPECT_FALSE(exists(STAGED));
}

TEST_F(PostUpgrade, AConfigurationThatCannotBeWrittenIsNotStaged) {
    fakes::will_return("write_json_file", {-1});
    expect_not_staged("Error extracting config from FW upgrade job. Reverting to previous FW");
}

TEST_F(PostUpgrade, AHashThatCannotBeCalculatedFailsTheStaging) {
    fakes::will_return("calculate_and_write_config_hash", {-1});
    expect_not_staged("Error calculating hash of staged config. Reverting to previous FW");
}

TEST_F(PostUpgrade, AHashThatCannotBeReadFailsTheStaging) {
    fakes::will_return("read_hash", {-1});
    expect_not_staged("Error reading hash of staged config. Reverting to previous FW");
}

TEST_F(PostUpgrade, WithoutAnExpectedHashTheStagingFails) {
    job["params"].removeMember("hashAtFwVer");
    expect_not_staged("Error FW upgrade job is missing required hashAtFwVer value. Reverting to previous FW");
    EXPECT_TRUE(exists(STAGED));
}

TEST_F(PostUpgrade, AnotherHashIsAMismatch) {
    const std::string hash = fakes::hash_of(json(new_config()));
    for (const std::string &expected : {std::string("abc"), hash + "0", hash.substr(1), std::string()}) {
        fakes::reset_log();
        job["params"]["hashAtFwVer"] = expected;
        expect_not_staged("Error hash mismatch for staged config. Expecting: " + expected +
                          " but calculated: " + hash + ". Reverting to previous FW");
    }
}

TEST_F(PostUpgrade, AnExpectedHashThatIsNoTextIsAMismatch) {
    for (const char *expected : {"null", "{}", "[]"}) {
        fakes::reset_log();
        job["params"]["hashAtFwVer"] = json(expected);
        expect_not_staged("Error hash mismatch for staged config. Expecting:  but calculated: " +
                          fakes::hash_of(json(new_config())) + ". Reverting to previous FW");
    }
}

// --- verification

TEST_F(PostUpgrade, TheStagedConfigurationIsAppliedWithEverythingRestarted) {
    given_staged(new_config());

    EXPECT_EQ(verify_upgrade_config(client, job), 0);

    EXPECT_EQ(log_lines().front(), (log_line{LOG_NOTICE, "Copying staged config to new config"}));
    EXPECT_EQ(log_lines().back(), (log_line{LOG_ALERT, "Config verification after FW upgrade successful"}));
    EXPECT_THAT(progress(), AllOf(Contains("network restart"), Contains("apps restart")));
    EXPECT_THAT(file_json(SAVED), IsJson(new_config()));
    EXPECT_EQ(job["status"], "success");
    EXPECT_TRUE(exists(STAGED));
}

TEST_F(PostUpgrade, TheCandidateIsPreparedBeforeItIsApplied) {
    given_staged(new_config());
    std::vector<std::string> built;
    before("set_config_apply_in_progress", [&] { built = fakes::config().metas_built; });

    verify_upgrade_config(client, job);

    EXPECT_THAT(built, ListIs("true /var/volatile/config/config.new "));
    std::vector<std::string> first = calls();
    first.resize(3);
    EXPECT_THAT(first,
                ListIs("copy_file /var/data/orv/config.staged /var/volatile/config/config.new",
                       "copy_file /var/data/orv/config.staged.hash /var/volatile/config/config.new.hash",
                       "orvsys echo 1 > /var/volatile/orv/CONFIG_JOB_EXECUTING"));
}

TEST_F(PostUpgrade, AStagedConfigurationThatRunsAlreadyIsAppliedAllTheSame) {
    given_staged(old_config());

    EXPECT_EQ(verify_upgrade_config(client, job), 0);

    EXPECT_THAT(calls_of({"config_validator"}), testing::SizeIs(1));
}

TEST_F(PostUpgrade, AnApplyThatFailsIsToldInTheUpgradesWords) {
    given_staged(new_config());
    fakes::config().validator_status = -1;

    EXPECT_EQ(verify_upgrade_config(client, job), -1);

    EXPECT_THAT(job, HasMembers(R"({"status":"failed",
        "msg":"FW upgrade config verification failed. Reverting to previous FW"})"));
    EXPECT_EQ(log_lines().back(),
              (log_line{LOG_NOTICE, "FW upgrade config verification failed. Reverting to previous FW"}));
    EXPECT_THAT(log_lines(), Not(Contains(Alert("Config verification after FW upgrade successful"))));
}

TEST_F(PostUpgrade, FailsafeVerifiesAnUpgradeAsWell) {
    given_staged(new_config(R"("system":{"failsafe":{"enable":true, "timer":1}})"));
    fakes::always_returns("ping_test", -1, "3 ");

    EXPECT_EQ(verify_upgrade_config(client, job), -1);

    EXPECT_THAT(file_json(RUNNING), IsJson(old_config()));
    EXPECT_THAT(reported(), IsEmpty());
}

TEST_F(PostUpgrade, WithoutAStagedConfigurationItFails) {
    EXPECT_EQ(verify_upgrade_config(client, job), -1);
}

TEST_F(PostUpgrade, AnExceptionCountsAsAFailure) {
    given_staged(new_config());
    job = json("[]");

    EXPECT_EQ(verify_upgrade_config(client, job), -1);

    EXPECT_THAT(log_lines(), Contains(Notice("verify_upgrade_config: exception handler")));
}

// --- the end of an installation

TEST_F(PostUpgrade, TheEndStoresTheJobBeforeItClearsAndReboots) {
    given_staged(new_config());
    job["status"] = "success";

    finalise_fw_install(job, false);

    EXPECT_THAT(calls(), ListIs("write_json_file /var/data/orv/vantrel_iot/jobs/active/77", "sync_to_fs 2",
                                "delete_file /var/data/orv/config.staged",
                                "delete_file /var/data/orv/config.staged.hash",
                                "delete_file /var/data/orv/FIRMWARE_UPDATED", "request_reboot_blocking"));
    EXPECT_THAT(log_lines(),
                ListIs(Debug("write job file: 77"), Alert("finalise FW install, job status: success"),
                       Alert("rebooting after successful FW upgrade")));
    EXPECT_EQ(active_job("77")["status"], "success");
    EXPECT_THAT(published(), IsEmpty());
    expect_nothing_staged();
}

TEST_F(PostUpgrade, TheEndOfARevertSwitchesThePartition) {
    job["status"] = "failed";

    finalise_fw_install(job, true);

    EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
    EXPECT_EQ(calls().back(), "switch_firmware_partition");
    EXPECT_EQ(log_lines().back(), (log_line{LOG_ALERT, "finalise FW install, job status: failed"}));
    expect_nothing_staged();
}

TEST_F(PostUpgrade, AfterAMigrationItsMarkIsDeletedBeforeTheReboot) {
    write_text("/var/volatile/config/CONFIG_MIGRATED", "");
    write_text("/var/data/orv/MIGRATE", "");

    reboot_after_fw_upgrade();

    EXPECT_THAT(log_lines(), ListIs(Alert("rebooting after successful FW upgrade and config migration")));
    EXPECT_THAT(calls(),
                ListIs("sync_to_fs 2", "delete_file /var/data/orv/MIGRATE", "request_reboot_blocking"));
    EXPECT_FALSE(exists("/var/data/orv/MIGRATE"));
}

TEST_F(PostUpgrade, AMigrationWithoutItsMarkRebootsWithoutADeletion) {
    write_text("/var/volatile/config/CONFIG_MIGRATED", "");

    reboot_after_fw_upgrade();

    EXPECT_THAT(calls(), ListIs("sync_to_fs 2", "request_reboot_blocking"));
}

TEST_F(PostUpgrade, WithoutAMigrationItsMarkStays) {
    write_text("/var/data/orv/MIGRATE", "");

    reboot_after_fw_upgrade();

    EXPECT_THAT(log_lines(), ListIs(Alert("rebooting after successful FW upgrade")));
    EXPECT_THAT(calls(), ListIs("request_reboot_blocking"));
    EXPECT_TRUE(exists("/var/data/orv/MIGRATE"));
}
