// After the reboot of a firmware job: did the firmware change, and does its configuration work?
#include "tests/unit/upgrade_bed.h"

#include "actions/firmware_job.h"

#include <stdexcept>

using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

class FirmwareCheck : public UpgradeTest {
protected:
    void check() { check_fw_upgrade_result(client, job); }

    // Back to the former firmware, with the result in the job file alone.
    void expect_reverted() {
        EXPECT_EQ(job["status"], "failed");
        EXPECT_EQ(active_job("77")["status"], "failed");
        EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
        EXPECT_THAT(log_lines(), Contains(Alert("finalise FW install, job status: failed")));
        EXPECT_THAT(reported(), IsEmpty());
        expect_nothing_staged();
    }

    void expect_no_configuration_step() {
        EXPECT_THAT(calls(), Not(Contains(HasSubstr("config.staged "))));
        EXPECT_THAT(log_lines(), Not(Contains(Debug("executing config apply"))));
    }

    static std::vector<std::string> updates() {
        std::vector<std::string> lines;
        for (const log_line &line : log_lines())
            if (line.text.find(" post_status: ") != std::string::npos)
                lines.push_back(line.text);
        return lines;
    }
};

TEST_F(FirmwareCheck, AWorkingUpgradeIsASuccessAndRebootsOnceMore) {
    check();

    EXPECT_THAT(job, HasMembers(R"({"status":"success", "msg":"FW upgrade 1.0 to 2.0"})"));
    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"success", "msg":"FW upgrade 1.0 to 2.0"})"));
    EXPECT_FALSE(job.isMember("switch_partition"));
    EXPECT_THAT(log_lines(), AllOf(Contains(Alert("FW upgrade job: verified hash of staged config")),
                                   Contains(Alert("Config verification after FW upgrade successful")),
                                   Contains(Alert("FW upgrade completed FW upgrade 1.0 to 2.0 success")),
                                   Contains(Alert("finalise FW install, job status: success"))));
    EXPECT_THAT(reboots(), ListIs("request_reboot_blocking"));
    EXPECT_THAT(file_json(SAVED), IsJson(new_config()));
    EXPECT_THAT(reported(), IsEmpty());
    expect_nothing_staged();
}

TEST_F(FirmwareCheck, TheOtherWayRoundIsAChangeToo) {
    std::remove(ROOTFS2);
    job["partition2"] = true;
    check();
    EXPECT_EQ(job["status"], "success");
}

TEST_F(FirmwareCheck, TheConfigurationIsStagedOnlyNowAndThenApplied) {
    check();

    EXPECT_THAT(
        calls_of({"write_json_file", "copy_file", "config_validator"}),
        testing::IsSupersetOf({"write_json_file /var/data/orv/config.staged",
                               "copy_file /var/data/orv/config.staged /var/volatile/config/config.new",
                               "config_validator /var/volatile/config/config.new"}));
}

TEST_F(FirmwareCheck, WithoutTheNewVersionItIsASuccessThatSaysLess) {
    fakes::config().database_texts.clear();

    check();

    EXPECT_EQ(job["status"], "success");
    EXPECT_EQ(job["msg"], "config has been applied (no failsafe)");
    EXPECT_THAT(log_lines(), Not(Contains(Alert(StartsWith("FW upgrade completed")))));
}

TEST_F(FirmwareCheck, TheNewVersionIsReadUpTo31Characters) {
    fakes::config().database_texts["SYS_FW_VER"] = std::string(40, 'v');
    check();
    EXPECT_EQ(job["msg"], "FW upgrade 1.0 to " + std::string(31, 'v'));
}

TEST_F(FirmwareCheck, AnUnknownFormerVersionIsLeftOut) {
    for (const char *version : {"null", "{}", "[]"}) {
        job["fw_ver"] = json(version);
        check();
        EXPECT_EQ(job["msg"], "FW upgrade  to 2.0");
    }
    job.removeMember("fw_ver");
    check();
    EXPECT_EQ(job["msg"], "FW upgrade  to 2.0");
}

// --- what is left alone

TEST_F(FirmwareCheck, AModemJobIsLeftAlone) {
    job["radio"] = true;
    const Json::Value before_it = job;

    check();

    EXPECT_EQ(job, before_it);
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(FirmwareCheck, ARadioThatDoesNotReadTrueIsNone) {
    for (const char *radio : {"false", "0", "\"true\"", "{}", "null"}) {
        given_device_as_new();
        job["radio"] = json(radio);
        check();
        EXPECT_EQ(reboots().size(), 1U) << radio;
    }
}

TEST_F(FirmwareCheck, OnlyTheTopLevelRadioCounts) {
    job["params"]["radio"] = true;
    check();
    EXPECT_EQ(job["status"], "success");
}

// --- what fails it

TEST_F(FirmwareCheck, AnUnknownDeviceTypeReverts) {
    for (const int type : {0, 3, 4, 6}) {
        given_device_as_new();
        fakes::device().device_type = type;
        write_text(UPDATED, "");
        check();
        EXPECT_THAT(log_lines(), Contains(Alert("Error, could not detect device type")));
        EXPECT_FALSE(job.isMember("msg"));
        EXPECT_FALSE(job.isMember("switch_partition"));
        expect_reverted();
    }
    expect_no_configuration_step();
}

TEST_F(FirmwareCheck, AJobWithoutItsFormerPartitionReverts) {
    job.removeMember("partition2");

    check();

    EXPECT_THAT(log_lines(), Contains(Alert("FW upgrade failed, job missing partition property.")));
    EXPECT_FALSE(job.isMember("partition2"));
    expect_reverted();
    expect_no_configuration_step();
}

TEST_F(FirmwareCheck, AFormerPartitionThatIsNoTruthValueReverts) {
    job["partition2"] = "no";

    check();

    EXPECT_THAT(log_lines(), Contains(Alert("FW upgrade failed, job missing partition property.")));
    expect_reverted();
}

TEST_F(FirmwareCheck, AnUnchangedPartitionFailsItWithoutASwitch) {
    job["partition2"] = true;
    job["override_status"] = true;

    check();

    EXPECT_EQ(job["status"], "failed");
    EXPECT_FALSE(job.isMember("msg"));
    EXPECT_EQ(active_job("77")["status"], "failed");
    EXPECT_THAT(log_lines(), AllOf(Contains(Alert("FW upgrade failed current partition has not changed.")),
                                   Contains(Alert("finalise FW install, job status: failed"))));
    EXPECT_THAT(reboots(), ListIs("request_reboot_blocking"));
    EXPECT_THAT(updates(), IsEmpty());
    expect_nothing_staged();
    expect_no_configuration_step();
}

TEST_F(FirmwareCheck, AConfigurationThatCannotBeStagedReverts) {
    job["params"]["hashAtFwVer"] = "another";

    check();

    EXPECT_EQ(job["switch_partition"], true);
    EXPECT_THAT(job["msg"].asString(), StartsWith("Error hash mismatch for staged config."));
    EXPECT_THAT(log_lines(), Not(Contains(Debug("executing config apply"))));
    EXPECT_THAT(file_json(RUNNING), IsJson(old_config()));
    expect_reverted();
}

TEST_F(FirmwareCheck, AConfigurationThatDoesNotWorkReverts) {
    fakes::config().validator_status = -1;

    check();

    EXPECT_EQ(job["switch_partition"], true);
    EXPECT_EQ(job["msg"], "FW upgrade config verification failed. Reverting to previous FW");
    EXPECT_EQ(active_job("77")["switch_partition"], true);
    expect_reverted();
}

// --- in which session it is told, after the reboot

class FirmwareCheckOfAnAcknowledgedJob : public FirmwareCheck {
protected:
    FirmwareCheckOfAnAcknowledgedJob() {
        job["ack"] = true;
        job["ackId"] = 1000;
        job["ackTs"] = 1000;
        given_active_job(job.toStyledString());
    }

    static void expect_stored(bool ack, time_t session) {
        EXPECT_EQ(active_job("77")["ack"], ack);
        EXPECT_EQ(active_job("77")["ackId"].asInt64(), session);
        EXPECT_EQ(active_job("77")["ackTs"].asInt64(), session);
    }
};

TEST_F(FirmwareCheckOfAnAcknowledgedJob, AnUnchangedPartitionBeginsASession) {
    job["partition2"] = true;
    check();
    EXPECT_EQ(active_job("77")["status"], "failed");
    expect_stored(false, START_TIME);
}

TEST_F(FirmwareCheckOfAnAcknowledgedJob, AConfigurationThatCannotBeStagedBeginsASession) {
    job["params"]["hashAtFwVer"] = "another";
    check();
    EXPECT_EQ(active_job("77")["status"], "failed");
    expect_stored(false, START_TIME);
    EXPECT_THAT(updates(), IsEmpty());
}

TEST_F(FirmwareCheckOfAnAcknowledgedJob, OneThatWasForcedKeepsTheSessionOfItsReport) {
    job["params"]["hashAtFwVer"] = "another";
    job["override_status"] = true;
    check();
    ASSERT_THAT(reported(), ListIs("failed"));
    EXPECT_EQ(published_on("v1/device/job/77/ack")[0].json["session"].asInt64(), START_TIME);
    EXPECT_EQ(fakes::now(), START_TIME + 2); // the pause after it
    expect_stored(false, START_TIME);
}

TEST_F(FirmwareCheckOfAnAcknowledgedJob, AConfigurationThatDoesNotWorkKeepsTheSessionOfItsApply) {
    fakes::config().validator_status = -1;
    check();
    EXPECT_EQ(active_job("77")["status"], "failed");
    EXPECT_EQ(fakes::now(), START_TIME + 2); // the pause at the end of the apply
    expect_stored(false, START_TIME);
}

TEST_F(FirmwareCheckOfAnAcknowledgedJob, AVerificationThatThrowsBeforeItsApplyBeginsASession) {
    before("copy_file /var/data/orv/config.staged ", [] { throw std::runtime_error("unforeseen"); });
    check();
    EXPECT_THAT(log_lines(), Contains(Notice("verify_upgrade_config: exception handler")));
    EXPECT_EQ(active_job("77")["status"], "failed");
    expect_stored(false, START_TIME);
}

TEST_F(FirmwareCheckOfAnAcknowledgedJob, AForcedOneWhoseVerificationThrowsBeginsASessionAfterItsReport) {
    job["override_status"] = true;
    before("copy_file /var/data/orv/config.staged ", [] { throw std::runtime_error("unforeseen"); });
    check();
    EXPECT_EQ(updates(), std::vector<std::string>{"update_job_status: 77 executed post_status: 1"});
    EXPECT_EQ(active_job("77")["status"], "failed");
    expect_stored(false, START_TIME);
}

TEST_F(FirmwareCheckOfAnAcknowledgedJob, AWorkingUpgradeKeepsTheSessionOfItsApply) {
    check();
    EXPECT_EQ(active_job("77")["status"], "success");
    EXPECT_EQ(fakes::now(), START_TIME + 2);
    expect_stored(false, START_TIME);
}

TEST_F(FirmwareCheckOfAnAcknowledgedJob, OfAnUnknownDeviceTypeItKeepsTheSessionOfExecuted) {
    fakes::device().device_type = 0;
    check();
    EXPECT_EQ(active_job("77")["status"], "failed");
    expect_stored(true, 1000);
}

TEST_F(FirmwareCheckOfAnAcknowledgedJob, WithoutItsFormerPartitionItKeepsTheSessionOfExecuted) {
    job.removeMember("partition2");
    check();
    EXPECT_EQ(active_job("77")["status"], "failed");
    expect_stored(true, 1000);
}

// --- a status that had to be forced is reported once more

TEST_F(FirmwareCheck, WithoutAForcedStatusTheCheckReportsNothing) {
    job.removeMember("partition2");
    check();
    EXPECT_THAT(updates(), IsEmpty());
}

TEST_F(FirmwareCheck, AForcedStatusIsReportedAsItStandsBeforeASuccess) {
    let_repeats_be_due();
    job["override_status"] = true;

    check();

    EXPECT_EQ(updates().back(), "update_job_status: 77 success post_status: 1");
    ASSERT_THAT(reported(), ListIs("success"));
    EXPECT_EQ(published_on("v1/device/job/77/ack").front().json["params"]["msg"],
              "config has been applied (no failsafe)");
    EXPECT_EQ(active_job("77")["msg"], "FW upgrade 1.0 to 2.0");
}

TEST_F(FirmwareCheck, AForcedStatusIsReportedAsItStandsBeforeARevert) {
    job["override_status"] = false; // its presence counts
    job.removeMember("partition2");

    check();

    EXPECT_THAT(updates(), ListIs("update_job_status: 77 executed post_status: 1"));
    EXPECT_EQ(active_job("77")["status"], "failed");
}

TEST_F(FirmwareCheck, ASwitchThatDoesNotReturnLeavesEverythingDone) {
    job.removeMember("partition2");
    fakes::device().partition_switch = fakes::reboot_mode::THROWS;

    EXPECT_THROW(check(), fake_reboot);

    expect_reverted();
}
