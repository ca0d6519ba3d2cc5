#include "config/boot_recovery.h"

#include "config/apply.h"
#include "config/config_files.h"
#include "config/post_upgrade.h"
#include "jobs/job_record.h"
#include "jobs/job_store.h"
#include "platform/vantrel.h"

#include <syslog.h>

namespace {

Json::Value local_upgrade_job() {
    Json::Value job;
    job[KEY_ACTION] = ACTION_FAILSAFE_CONFIG;
    job[KEY_JOB_ID] = ID_LOCAL_FW_UPGRADE;
    job[KEY_TIMESTAMP] = 0;
    job[KEY_SOURCE] = "local_fwupgrade";
    job[KEY_STATUS] = STATUS_EXECUTED;
    return job;
}

int verify_locked(tessard &client, Json::Value &job) {
    const std::lock_guard lock(job_manager_mutex);
    return verify_upgrade_config(client, job);
}

} // namespace

void recover_local_fw_upgrade(tessard &client) {
    if (!file_exists(STAGED_CONFIG.config) || !file_exists(STAGED_CONFIG.hash)) {
        syslog(LOG_DEBUG, "No staged config found");
        return;
    }
    syslog(LOG_ALERT,
           "Booting from local FW upgrade: staged configs are available, verifying config changes");
    Json::Value job = local_upgrade_job();
    const int verified = verify_locked(client, job);
    delete_upgrade_files();
    if (verified != 0)
        switch_firmware_partition();
    else
        reboot_after_fw_upgrade();
}

void recover_config_job(tessard &client) {
    if (!file_exists(ACTIVE_JOB_COPY) || !file_exists(NEW_CONFIG_COPY)) {
        syslog(LOG_DEBUG, "No remnant config and active config job found");
        return;
    }
    syslog(
        LOG_NOTICE,
        "Found remnant active config job and new config, so still need to finish config verification/cmd_apply");
    const std::lock_guard lock(job_manager_mutex);
    Json::Value job;
    if (read_json_file(ACTIVE_JOB_COPY, job) != 0)
        return; // nobody to report to; boot removes a candidate whose job cannot be read
    cmd_apply(client, job, WITHOUT_FW_UPGRADE);
}
