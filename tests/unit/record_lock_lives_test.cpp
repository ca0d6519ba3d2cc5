// Whole lives of jobs: what happens while the record's lock is held is work on files and nothing else. No publish, no
// pause and no command waits behind it, nor the other thread behind one of these.
#include "tests/unit/record_lock_bed.h"
#include "tests/unit/whole_jobs_bed.h"

#include <algorithm>

class RecordLockLives : public WholeJobs {
protected:
    RecordLockLives() {
        answer_command("/bin/sh", 0);
        answer_command("/sbin/reboot", 0);
        answer_command("orv-upgradefw", 0);
        answer_command("qtel-dfota", 0);
        fakes::config().database_texts["SYS_FW_VER"] = "1.0";
        given_changes(R"([{"path":"network", "cmd_apply":["/usr/bin/cmd_any apply"]}])");
    }

    void TearDown() override { expect_files_alone_under_the_lock(); }

    static Json::Value script_job(const std::string &params = "{}") {
        Json::Value sent = json(R"({"jobId":"77", "action":"CMD", "value":"SCRIPT"})");
        sent["params"] = json(params);
        sent["params"]["script"] = "true";
        return sent;
    }

    static Json::Value config_job() {
        const Json::Value config = json(
            new_config(R"("system":{"failsafe":{"enable":true, "timer":1, "destination_ip":"192.0.2.1"}})"));
        Json::Value sent = json(R"({"jobId":"77", "action":"CFG", "params":{"configLevel":0}})");
        sent["value"] = config;
        sent["params"]["configHash"] = fakes::hash_of(config);
        return sent;
    }

    static Json::Value firmware_job() {
        Json::Value sent = json(R"({"jobId":"77", "action":"FW", "value":"http://host/a.img"})");
        sent["params"]["cfg"] = json(new_config());
        sent["params"]["hashAtFwVer"] = fakes::hash_of(json(new_config()));
        return sent;
    }

    // From its message to its archive.
    void live(const Json::Value &sent) {
        send_job(sent);
        passes(1);
        acknowledge("77");
        passes(1);
        EXPECT_THAT(archived_jobs(), ListIs("77"));
    }

    // The installed firmware boots, in its slot.
    void live_in_new_firmware(const Json::Value &sent) {
        send_job(sent);
        passes(1);
        acknowledge("77");
        set_fw_job_executing(0);
        write_text(FIRMWARE_UPDATED_FILE, "");
        write_text("/var/data/orv/ROOTFS2", "");
        passes(1);
        acknowledge("77");
        passes(1);
        EXPECT_THAT(archived_jobs(), ListIs("77"));
    }

private:
    static bool works_on_files(const std::string &function) {
        static const std::vector<std::string> those = {"lock",       "read_json_file", "write_json_file",
                                                       "sync_to_fs", "delete_file",    "syslog"};
        return std::find(those.begin(), those.end(), function) != those.end();
    }

    static void expect_files_alone_under_the_lock() {
        int locked = 0;
        bool held = false;
        for (const fakes::call &each : all_calls()) {
            if (each.function == "lock" || each.function == "unlock") {
                held = each.function == "lock";
                locked += held ? 1 : 0;
            } else if (held) {
                EXPECT_TRUE(works_on_files(each.function)) << each.function << " " << each.text;
            }
        }
        EXPECT_FALSE(held);
        EXPECT_GT(locked, 0);
    }
};

TEST_F(RecordLockLives, OfAScript) {
    live(script_job());
}

TEST_F(RecordLockLives, OfAScriptWithAReboot) {
    live(script_job(R"({"reboot":true})"));
}

TEST_F(RecordLockLives, OfAJobOfAnUnknownAction) {
    live(json(R"({"jobId":"77", "action":"NONE"})"));
}

TEST_F(RecordLockLives, OfACriticalScript) {
    Json::Value sent = script_job();
    sent["params"]["script"] = "# JOB PRIORITY CRITICAL\ntrue";
    send_job(sent);
    EXPECT_THAT(archived_jobs(), ListIs("77"));
}

TEST_F(RecordLockLives, OfAConfigurationThatIsVerified) {
    live(config_job());
    EXPECT_EQ(archived_job("77")["status"], "success");
}

TEST_F(RecordLockLives, OfAConfigurationThatIsTakenBack) {
    fakes::always_returns("ping_test", -1, "192.0.2.1");
    live(config_job());
    EXPECT_EQ(archived_job("77")["status"], "failed");
}

TEST_F(RecordLockLives, OfAFirmwareThatStays) {
    live_in_new_firmware(firmware_job());
    EXPECT_EQ(archived_job("77")["status"], "success");
}

TEST_F(RecordLockLives, OfAFirmwareWhoseConfigurationCannotBeStaged) {
    Json::Value sent = firmware_job();
    sent["params"]["hashAtFwVer"] = "of another one";
    live_in_new_firmware(sent);
    EXPECT_EQ(archived_job("77")["status"], "failed");
}

TEST_F(RecordLockLives, OfAJobThatIsNoFirmwareUnderAnUnverifiedOne) {
    write_text(FIRMWARE_UPDATED_FILE, "");
    live(script_job());
    EXPECT_EQ(archived_job("77")["status"], "failed");
}

TEST_F(RecordLockLives, OfAJobThatAServiceEnds) {
    send_job(json(R"({"jobId":"77", "action":"XTRA", "params":{"fileUrl":"http://host/x"}})"));
    passes(1);
    Json::Value answer = json(R"({"jobId":"77", "rc":200})");
    answer["session"] = active_job("77")["ackId"];
    arrives("v1/device/cmd/filepull/ack", answer);
    acknowledge("77");
    passes(1);
    EXPECT_EQ(archived_job("77")["status"], "success");
}

TEST_F(RecordLockLives, OfAJobThatAnUpdateEnds) {
    given_active_job(R"({"jobId":"77", "action":"fw_put", "status":"executed", "ack":true, "ackId":1})");
    arrives("v1/device/job/77/update", json(R"({"jobId":"77", "rc":0})"));
    acknowledge("77");
    arrives("v1/device/job/all/update", json(R"({"connected":true})"));
    EXPECT_EQ(archived_job("77")["status"], "success");
}

TEST_F(RecordLockLives, OfAJobThatIsRefusedTooOften) {
    given_active_job(R"({"jobId":"77", "status":"failed", "ack":false, "ackId":1, "ack_attempts":100})");
    arrives("v1/device/job/77/pub_ack", json(R"({"jobId":"77", "session":1, "rc":500})"));
    EXPECT_THAT(archived_jobs(), ListIs("77"));
}

TEST_F(RecordLockLives, OfJobsThatAreCleared) {
    send_job(script_job());
    arrives("v1/device/job/CLEAR_RUNNING_JOB/apply");
    send_job(script_job());
    arrives("v1/device/job/CLEAR_ACTIVE_JOBS/apply");
    EXPECT_THAT(active_jobs(), testing::IsEmpty());
}

TEST_F(RecordLockLives, OfACorruptJob) {
    write_text(std::string(ACTIVE_FOLDER) + "77", "{");
    passes(1);
    acknowledge("77");
    passes(1);
    EXPECT_EQ(archived_job("77")["status"], "failed");
}

TEST_F(RecordLockLives, OfACorruptJobOfAnUnverifiedFirmware) {
    write_text(FIRMWARE_UPDATED_FILE, "");
    write_text(std::string(ACTIVE_FOLDER) + "77", "{");
    passes(1);
    EXPECT_THAT(reboots(), ListIs("switch_firmware_partition"));
}

TEST_F(RecordLockLives, OfAnUpgradeAtTheDevice) {
    write_text(FIRMWARE_UPDATED_FILE, "");
    write_text(LOCAL_FW_UPGRADE_FILE, "");
    given_config(STAGED, STAGED_HASH, new_config());
    run_for(30, [this] { job_mgr_main(client); });
    EXPECT_THAT(reboots(), ListIs("request_reboot_blocking"));
}
