// A device that has rebooted into a new firmware, with the job that asked for it.
#pragma once

#include "tests/unit/config_bed.h"

#include "jobs/job_store.h"

#include <mutex>

constexpr const char *UPDATED = "/var/data/orv/FIRMWARE_UPDATED";
constexpr const char *ROOTFS2 = "/var/data/orv/ROOTFS2";

class UpgradeTest : public ConfigTest {
protected:
    UpgradeTest() {
        job = json(R"({"jobId":"77", "action":"FW", "status":"executed", "partition2":false, "fw_ver":"1.0",
                       "params":{}})");
        job["params"]["cfg"] = json(new_config());
        job["params"]["hashAtFwVer"] = fakes::hash_of(json(new_config()));
        given_active_job(job.toStyledString());
        fakes::config().database_texts["SYS_FW_VER"] = "2.0";
        given_device_as_new();
        write_text(ROOTFS2, "");
        write_text(UPDATED, "");
    }

    // Nothing run and not rebooted yet; reboots return.
    static void given_device_as_new() {
        fakes::reset_device();
        fakes::device().reboots = fakes::reboot_mode::RETURNS;
        answer_command("/usr/bin/cmd_", 0);
        answer_command("systemctl", 0);
    }

    static void given_staged(const std::string &config_text) {
        given_config(STAGED, STAGED_HASH, config_text);
    }

    static void expect_nothing_staged() {
        for (const char *path : {STAGED, STAGED_HASH, UPDATED})
            EXPECT_FALSE(exists(path)) << path;
    }
};
