#include "actions/firmware_job.h"

#include "actions/command_job.h"
#include "config/post_upgrade.h"
#include "jobs/job_record.h"
#include "jobs/job_status.h"
#include "jobs/job_store.h"
#include "jobs/markers.h"
#include "platform/sysdb.h"
#include "platform/vantrel.h"
#include "platform/vtrsec.h"

#include <cstdlib>
#include <utility>

#include <syslog.h>

namespace {

constexpr int TOKEN_SIZE = 128;
constexpr int SYSDB_TEXT_SIZE = 32;
constexpr size_t LONGEST_URL = 256;
constexpr char FW_ERR_CODE_FILE[] = "/var/run/FW_ERR_CODE";

// The upgrade tool's error codes, from 100 on.
constexpr int FIRST_ERROR_CODE = 100;
constexpr const char *ERROR_TEXTS[] = {
    "invalid firmware version (major)",
    "invalid firmware version (minor)",
    "invalid firmare version (rev)", // sic
    "python3 not installed on device",
    "config migration failed",
    "cannot upgrade to firmware version",
    "detected invalid uBoot environment",
    "no firmware specified in download URL",
    "firmware download failed",
    "firmware image checksum mismatch",
    "incompatible firmware for device",
    "firmware signature mismatch",
    "kernel signature mismatch",
    "install script signature mismatch",
    "app platform signature mismatch",
    "python3 package signature mismatch",
    "cannot determine rootfs partition",
    "firmware install failed",
    "hw config install/verification failed", // sic: 118 is beyond the bound below
};
constexpr int LAST_ERROR_OFFSET = 17;

bool device_takes_upgrades() {
    const int type = get_vantrel_dev_type_as_enum();
    return type == 1 || type == 2 || type == 5;
}

void store_sysdb_text(Json::Value &job, const char *record_key, const char *sysdb_key) {
    char text[SYSDB_TEXT_SIZE] = "";
    if (sysdb_read_str(0, sysdb_key, text, SYSDB_TEXT_SIZE - 1) == 0)
        job[record_key] = text;
}

void fail_upgrade(Json::Value &job) {
    delete_file(FIRMWARE_UPDATED_FILE);
    set_fw_job_executing(false);
    job[KEY_STATUS] = STATUS_FAILED;
    if (job.isMember(KEY_MSG))
        syslog(LOG_ALERT, "firmware update failed: %s", text_of(job, KEY_MSG).c_str());
    else
        syslog(LOG_ALERT, "firmware update failed");
    update_job_status(job, POST_STATUS);
}

void take_error_code(Json::Value &job) {
    if (!file_exists(FW_ERR_CODE_FILE))
        return;
    char text[VAR_FILE_SIZE] = "";
    if (read_var_file(FW_ERR_CODE_FILE, text) == 0) {
        const int code = static_cast<int>(strtol(text, nullptr, 10));
        syslog(LOG_NOTICE, "FW upgrade error code: %d", code);
        if (code >= FIRST_ERROR_CODE && code - FIRST_ERROR_CODE <= LAST_ERROR_OFFSET)
            job[KEY_MSG] = ERROR_TEXTS[code - FIRST_ERROR_CODE];
    }
    delete_file(FW_ERR_CODE_FILE);
}

// "<image name> <base URL>" of the tool's command line; a URL that cannot be cut stands for both.
std::string tool_arguments(const std::string &url) {
    const size_t slash = url.rfind('/');
    if (slash == url.npos || slash == 0)
        return url + " " + url;
    return url.substr(slash + 1) + " " + url.substr(0, slash);
}

void run_upgrade_tool(Json::Value &job, const char *token) {
    const std::string url = text_of(job, KEY_VALUE).substr(0, LONGEST_URL);
    syslog(LOG_ALERT, "start FW upgrade jobId: %s", job_id_of(job).c_str());
    const std::string command = "/usr/bin/orv-upgradefw " + tool_arguments(url) + " " + token;
    if (system(command.c_str()) == 0)
        return; // the tool reboots the device: the job stays "executed", the flag set
    take_error_code(job);
    fail_upgrade(job);
}

void run_fw_upgrade(Json::Value &job) {
    store_sysdb_text(job, KEY_FW_LABEL, "SYS_FW_LABEL");
    store_sysdb_text(job, KEY_OLD_FW_VER, "SYS_FW_VER");
    if (!device_takes_upgrades()) {
        syslog(LOG_NOTICE, "Unsupported device type");
        fail_upgrade(job);
        return;
    }
    job[KEY_PARTITION2] = is_rootfs2();
    job[KEY_STATUS] = STATUS_EXECUTED;
    update_job_status(job, POST_STATUS);

    char token[TOKEN_SIZE] = "";
    if (get_device_token(TOKEN_SIZE, token) != 0) {
        syslog(LOG_ALERT, "FW upgrade requires vantrel-iot access token");
        fail_upgrade(job);
        return;
    }
    set_fw_job_executing(true);
    run_upgrade_tool(job, token);
}

void start_dfota(Json::Value &job) {
    const std::string job_id = job_id_of(job);
    set_radiofw_job_executing(true);
    job[KEY_STATUS] = STATUS_EXECUTED;
    syslog(LOG_ALERT, "FW:execute qtel dfota: %s", job_id.c_str());
    const std::string url = text_of(job, KEY_VALUE);
    if (orvsys("/usr/bin/qtel-dfota -i %s -j %s &", url.c_str(), job_id.c_str()) != 0) {
        job[KEY_STATUS] = STATUS_FAILED;
        set_radiofw_job_executing(false);
    }
    update_job_status(job, POST_STATUS);
}

// Once more with the status as it stands: the job manager had to force it back to "executed".
void report_overridden(Json::Value &job) {
    if (job.isMember(KEY_OVERRIDE_STATUS))
        update_job_status(job, POST_STATUS);
}

void boot_former_firmware(Json::Value &job) {
    job[KEY_STATUS] = STATUS_FAILED;
    finalise_fw_install(job, SWITCH_PARTITION);
}

void revert_upgrade(Json::Value &job) {
    report_overridden(job);
    boot_former_firmware(job);
}

// The configuration could not be staged. The report of an overridden job stores that end, else nothing has yet.
void revert_unstaged(Json::Value &job) {
    job[KEY_SWITCH_PARTITION] = true;
    if (!job.isMember(KEY_OVERRIDE_STATUS))
        stamp_status(job);
    revert_upgrade(job);
}

// An apply that failed has stored the end. A verification that ended before its apply, or after it had succeeded,
// has not.
void revert_unverified(Json::Value &job) {
    job[KEY_SWITCH_PARTITION] = true;
    const bool is_stored = text_of(job, KEY_STATUS) == STATUS_FAILED;
    report_overridden(job);
    if (!is_stored)
        stamp_status(job);
    boot_former_firmware(job);
}

void complete_upgrade(Json::Value &job) {
    report_overridden(job);
    char version[SYSDB_TEXT_SIZE] = "";
    if (sysdb_read_str(0, "SYS_FW_VER", version, SYSDB_TEXT_SIZE - 1) == 0) {
        const std::string msg = "FW upgrade " + text_of(job, KEY_OLD_FW_VER) + " to " + version;
        job[KEY_MSG] = msg;
        syslog(LOG_ALERT, "FW upgrade completed %s %s", msg.c_str(), text_of(job, KEY_STATUS).c_str());
    }
    job[KEY_STATUS] = STATUS_SUCCESS;
    finalise_fw_install(job, KEEP_PARTITION);
}

} // namespace

void execute_action_fw_install(Json::Value &job) {
    const std::string job_id = job_id_of(job);
    syslog(LOG_DEBUG, "execute_action_fw_install: %s", job_id.c_str());
    set_jobid_flag(job_id.c_str());
    if (!job.isMember(KEY_VALUE)) {
        job[KEY_STATUS] = STATUS_FAILED;
        job[KEY_MSG] = "missing required value=<url>'"; // sic: the stray quote
        update_job_status(job, POST_STATUS);
        // goes on after the failure: the upgrade is still tried
    }
    if (is_true(std::as_const(job)[KEY_PARAMS], KEY_RADIO))
        qtel_dfota(job);
    else
        fw_upgrade(job);
    delete_file(FW_JOBID_FILE);
}

void qtel_dfota(Json::Value &job) try {
    syslog(LOG_DEBUG, "execute qtel dfota\n");
    if (is_radiofw_job_executing()) {
        syslog(LOG_DEBUG, "dfota job is already executing, not starting this one");
        return;
    }
    start_dfota(job);
} catch (...) {
    syslog(LOG_DEBUG, "qtel_dfota: exception handler");
    set_radiofw_job_executing(false); // no tool runs that would report, and clear it
}

void fw_upgrade(Json::Value &job) try {
    if (is_fw_job_executing()) {
        syslog(LOG_DEBUG, "FW upgrade already in progress");
        return;
    }
    run_fw_upgrade(job);
} catch (...) {
    syslog(LOG_NOTICE, "fw_upgrade: exception handler");
    set_fw_job_executing(false); // a flag that stuck would stop all jobs until the next boot
}

void check_fw_upgrade_result(tessard &client, Json::Value &job) {
    if (is_true(job, KEY_RADIO))
        return;
    if (!device_takes_upgrades()) {
        syslog(LOG_ALERT, "Error, could not detect device type");
        revert_upgrade(job);
        return;
    }
    if (!job.isMember(KEY_PARTITION2) || !job[KEY_PARTITION2].isConvertibleTo(Json::booleanValue)) {
        syslog(LOG_ALERT, "FW upgrade failed, job missing partition property.");
        revert_upgrade(job);
        return;
    }
    if (is_rootfs2() == job[KEY_PARTITION2].asBool()) {
        syslog(LOG_ALERT, "FW upgrade failed current partition has not changed.");
        job[KEY_STATUS] = STATUS_FAILED;
        stamp_status(job);
        finalise_fw_install(job, KEEP_PARTITION); // the former partition is the running one
        return;
    }
    if (stage_upgrade_config(job) != 0) {
        revert_unstaged(job);
        return;
    }
    if (verify_upgrade_config(client, job) != 0) {
        revert_unverified(job);
        return;
    }
    complete_upgrade(job);
}
