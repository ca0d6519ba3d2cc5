#include "config/post_upgrade.h"

#include "config/apply.h"
#include "config/config_files.h"
#include "jobs/job_record.h"
#include "jobs/job_store.h"
#include "jobs/markers.h"
#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <syslog.h>

namespace {

// Empty when the configuration is staged and its hash verified; else what is wrong.
std::string stage_and_check(const Json::Value &job) {
    const Json::Value &params = job[KEY_PARAMS];
    if (!params.isObject() || !params.isMember(PARAM_CFG))
        return "Error, FW upgrade job missing required cfg. Reverting to previous FW";
    if (write_json_file(STAGED_CONFIG.config, params[PARAM_CFG]) != 0)
        return "Error extracting config from FW upgrade job. Reverting to previous FW";
    if (calculate_and_write_config_hash(STAGED_CONFIG.config, STAGED_CONFIG.hash) != 0)
        return "Error calculating hash of staged config. Reverting to previous FW";
    char hash[HASH_SIZE] = "";
    if (read_hash(STAGED_CONFIG.hash, hash) != 0)
        return "Error reading hash of staged config. Reverting to previous FW";
    if (!params.isMember(PARAM_HASH_AT_FW_VER))
        return "Error FW upgrade job is missing required hashAtFwVer value. Reverting to previous FW";
    std::string expected; // what is no text matches no hash
    config_get_string(params, &expected, PARAM_HASH_AT_FW_VER);
    if (expected != hash)
        return "Error hash mismatch for staged config. Expecting: " + expected + " but calculated: " + hash +
               ". Reverting to previous FW";
    return "";
}

} // namespace

int stage_upgrade_config(Json::Value &job) {
    const std::string error = stage_and_check(job);
    if (error.empty()) {
        syslog(LOG_ALERT, "FW upgrade job: verified hash of staged config");
        return 0;
    }
    job[KEY_MSG] = error;
    job[KEY_STATUS] = STATUS_FAILED;
    syslog(LOG_ALERT, "%s", error.c_str());
    return -1;
}

int verify_upgrade_config(tessard &client, Json::Value &job) try {
    syslog(LOG_NOTICE, "Copying staged config to new config");
    copy_file(STAGED_CONFIG.config, NEW_CONFIG.config);
    copy_file(STAGED_CONFIG.hash, NEW_CONFIG.hash);
    {
        const metaConfig prepared(true, NEW_CONFIG.config, nullptr); // prepares the candidate's meta data
    }
    cmd_apply(client, job, AFTER_FW_UPGRADE);
    if (job.get(KEY_STATUS, "").asString() == STATUS_FAILED) {
        constexpr char FAILED_MSG[] = "FW upgrade config verification failed. Reverting to previous FW";
        job[KEY_MSG] = FAILED_MSG;
        syslog(LOG_NOTICE, "%s", FAILED_MSG);
        return -1;
    }
    syslog(LOG_ALERT, "Config verification after FW upgrade successful");
    return 0;
} catch (...) {
    syslog(LOG_NOTICE, "verify_upgrade_config: exception handler");
    return -1;
}

void finalise_fw_install(const Json::Value &job, bool switch_partition) {
    write_job_file(job);
    delete_upgrade_files();
    syslog(LOG_ALERT, "finalise FW install, job status: %s", job.get(KEY_STATUS, "").asString().c_str());
    if (switch_partition)
        switch_firmware_partition();
    else
        reboot_after_fw_upgrade();
}

void reboot_after_fw_upgrade() {
    constexpr char MIGRATE_FILE[] = "/var/data/orv/MIGRATE";
    if (file_exists("/var/volatile/config//CONFIG_MIGRATED")) {
        syslog(LOG_ALERT, "rebooting after successful FW upgrade and config migration");
        sync_to_fs(SYNC_PERSISTENT);
        if (file_exists(MIGRATE_FILE))
            delete_file(MIGRATE_FILE);
    } else {
        syslog(LOG_ALERT, "rebooting after successful FW upgrade");
    }
    request_reboot_blocking();
}

void delete_upgrade_files() {
    delete_file(STAGED_CONFIG.config);
    delete_file(STAGED_CONFIG.hash);
    delete_file(FIRMWARE_UPDATED_FILE);
}
