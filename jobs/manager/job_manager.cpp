#include "jobs/manager/job_manager.h"

#include "actions/dispatch.h"
#include "actions/firmware_job.h"
#include "agent/requests/checkin.h"
#include "config/apply.h"
#include "config/boot_recovery.h"
#include "config/post_upgrade.h"
#include "jobs/job_record.h"
#include "jobs/job_status.h"
#include "jobs/job_store.h"
#include "jobs/manager/reset_button.h"
#include "jobs/markers.h"
#include "platform/vantrel.h"

#include <ctime>

#include <syslog.h>
#include <unistd.h>

namespace {

constexpr int DEVICE_WITH_RESET_BUTTON = 5;
constexpr int SECONDS_PER_PASS = 3;
constexpr unsigned PAUSE_BEFORE_CHECKIN_S = 5;

void guarded(auto routine) {
    try {
        routine();
    } catch (...) {
        syslog(LOG_NOTICE, "job_mgr_main: exception handler");
    }
}

bool is_fw_action(const Json::Value &action) {
    return action == ACTION_FW || action == ACTION_FW_LOWER || action == ACTION_FW_PUT ||
           action == ACTION_FW_PUT_LOWER;
}

std::string as_text(const Json::Value &value) {
    return value.isConvertibleTo(Json::stringValue) ? value.asString() : value.toStyledString();
}

// The cloud's firmware job has installed a firmware, and the device has rebooted into it.
bool iot_firmware_is_unverified() {
    return file_exists(FIRMWARE_UPDATED_FILE) && !file_exists(LOCAL_FW_UPGRADE_FILE);
}

// Runs once, before the first pass.
void recover_after_boot(tessard &client) {
    if (file_exists(FIRMWARE_UPDATED_FILE)) {
        syslog(LOG_ALERT, "job_mgr detects firmware update");
        if (file_exists(LOCAL_FW_UPGRADE_FILE)) {
            syslog(LOG_ALERT, "job_mgr detects local firmware update");
            guarded([&] { recover_local_fw_upgrade(client); });
            delete_file(LOCAL_FW_UPGRADE_FILE);
            delete_file(FIRMWARE_UPDATED_FILE);
        } else {
            syslog(LOG_ALERT, "job_mgr detects IOT firmware update"); // verified by the passes
        }
    }
    if (!file_exists(FIRMWARE_UPDATED_FILE))
        guarded([&] { recover_config_job(client); });
}

bool any_job_is_busy() {
    if (is_fw_job_executing()) {
        syslog(LOG_ALERT, "FW job in progress");
        return true;
    }
    if (is_config_job_executing()) {
        syslog(LOG_ALERT, "Config apply job in progress");
        return true;
    }
    if (is_critical_job_executing()) {
        syslog(LOG_NOTICE, "Critical job execution in progress");
        return true;
    }
    return false;
}

void revert_lost_upgrade() {
    delete_upgrade_files();
    syslog(LOG_ALERT, "FW upgrade aborted due to missing job file, reverting to previous FW.");
    switch_firmware_partition();
}

// The cloud learns "failed" when a later pass finds the job finished and unacknowledged.
void repair_job(const std::string &job_id, int32_t now, bool fw_pending) {
    Json::Value job;
    job[KEY_JOB_ID] = job_id;
    job[KEY_STATUS] = STATUS_FAILED;
    job[KEY_ACK] = false;
    if (fw_pending) {
        syslog(LOG_ALERT, "FW job corrupted, reverting to previous FW");
        job[KEY_ACTION] = ACTION_FW;
        finalise_fw_install(job, SWITCH_PARTITION);
        return;
    }
    syslog(LOG_ALERT, "repairing and failing corrupt or missing job %s", job_id.c_str());
    job[KEY_ACK_TS] = now;
    job[KEY_ACK_ID] = now;
    write_job_file(job);
}

void process_job_list(tessard &client, const Json::Value &job_ids, bool fw_pending) {
    const auto now = static_cast<int32_t>(time(nullptr));
    for (const Json::Value &entry : job_ids) {
        const std::string job_id = entry.asString();
        if (check_job_file(job_id) != 0) {
            repair_job(job_id, now, fw_pending);
        } else if (process_completed_job(client, job_id) != 0) {
            process_active_job(client, job_id);
            return;
        }
    }
}

void archive_and_check_in(tessard &client, const Json::Value &job, const std::string &job_id,
                          record_lock &record) {
    syslog(LOG_ALERT, "archiving job file %s", job_id.c_str());
    archive_job_file(job, record);
    record.unlock();
    if (job_id == ID_FAILSAFE_CONFIG)
        return;
    syslog(LOG_DEBUG, "job mgr initiating sequential IOT checkin");
    sleep(PAUSE_BEFORE_CHECKIN_S);
    send_checkin(client);
}

// An installed firmware waits for its verification, so the oldest unfinished job should be its job.
void check_job_of_unverified_firmware(Json::Value &job) {
    const Json::Value action = job.get(KEY_ACTION, "");
    if (is_fw_action(action)) {
        const std::string status = job.get(KEY_STATUS, "").asString();
        if (status == STATUS_EXECUTED)
            return;
        syslog(LOG_ALERT, "override FW job status '%s' with 'executed'", status.c_str());
        job[KEY_STATUS] = STATUS_EXECUTED;
        job[KEY_OVERRIDE_STATUS] = true;
        update_job_status(job, POST_STATUS);
        return;
    }
    if (!job.isMember(KEY_ACTION) || !job.isMember(KEY_JOB_ID))
        syslog(LOG_ALERT,
               "firmware update in progress, but active job is not a FW job, reverting to previous FW");
    else
        syslog(LOG_ALERT, "firmware update in progress, but active job %s action is %s",
               job_id_of(job).c_str(), as_text(action).c_str());
    job[KEY_STATUS] = STATUS_FAILED;
    stamp_status(job); // reported after the reboot
    finalise_fw_install(job, SWITCH_PARTITION);
}

void verify_firmware(tessard &client, Json::Value &job) {
    syslog(LOG_ALERT, "start FW post install verification");
    const busy_mark mark(set_fw_job_executing);
    check_fw_upgrade_result(client, job);
}

// A job that was under way when the agent last stopped, normally by a reboot that the job itself caused.
void resume_executed_job(tessard &client, Json::Value &job, const std::string &job_id) {
    if (is_true(job, KEY_FAIL_ON_REBOOT)) {
        syslog(LOG_ALERT, "job: %s was interrupted by reboot, setting status to FAILED", job_id.c_str());
        job[KEY_STATUS] = STATUS_FAILED;
        update_job_status(job, POST_STATUS);
    }
    const Json::Value action = job.get(KEY_ACTION, "");
    if (is_fw_action(action)) {
        if (job[KEY_STATUS].asString() == STATUS_EXECUTED)
            verify_firmware(client, job);
    } else if (action == ACTION_CFG) {
        if (job.isMember(KEY_CFG_VERIFIED) && !job[KEY_CFG_VERIFIED].asBool())
            cmd_apply(client, job, WITHOUT_FW_UPGRADE);
    }
}

} // namespace

void job_mgr_main(tessard &client) {
    openlog("iot", 0, LOG_LOCAL0);
    syslog(LOG_NOTICE, "starting job_mgr_main");
    const bool has_reset_button = get_vantrel_dev_type_as_enum() == DEVICE_WITH_RESET_BUTTON;
    iot_client = &client;
    recover_after_boot(client);

    for (int seconds = 0;;) {
        ++seconds;
        if (has_reset_button)
            guarded(poll_reset_button);
        if (seconds >= SECONDS_PER_PASS) {
            seconds = 0;
            process_jobs(client);
        }
        sleep(1);
    }
}

int process_jobs(tessard &client) try {
    if (any_job_is_busy())
        return 0;
    const bool fw_pending = iot_firmware_is_unverified();
    Json::Value job_ids(Json::arrayValue);
    if (get_active_job_list(job_ids) != 0) {
        syslog(LOG_NOTICE, "%s: get_active_job_list failed", "process_jobs");
        return -1;
    }
    if (fw_pending && job_ids.empty())
        revert_lost_upgrade();
    process_job_list(client, job_ids, fw_pending);
    return 0;
} catch (...) {
    syslog(LOG_NOTICE, "process_jobs: exception handler");
    return 0;
}

int process_completed_job(tessard &client, const std::string &job_id) try {
    const std::lock_guard lock(job_manager_mutex);
    syslog(LOG_NOTICE, "processing job: %s", job_id.c_str());
    record_lock record(job_record_mutex);
    Json::Value job;
    if (read_json_file(active_job_path(job_id).c_str(), job) != 0)
        return 1;
    if (!job.isMember(KEY_STATUS)) {
        syslog(LOG_ALERT, "job: %s does not specify current status, setting status to FAILED",
               job_id.c_str());
        job[KEY_STATUS] = STATUS_FAILED;
    }
    const std::string status = job[KEY_STATUS].asString();
    syslog(LOG_NOTICE, "job: %s status: %s", job_id.c_str(), status.c_str());
    if (status != STATUS_SUCCESS && status != STATUS_FAILED)
        return 1;

    const bool archived_unacknowledged = job_id == ID_FAILSAFE_CONFIG || job_id == ID_POST_CONFIG;
    if (!archived_unacknowledged && !job.get(KEY_ACK, false).asBool()) {
        update_job_status(job, POST_STATUS, record);
        return 0;
    }
    archive_and_check_in(client, job, job_id, record);
    return 0;
} catch (...) {
    syslog(LOG_NOTICE, "%s: exception handler", "process_completed_job");
    return 1;
}

void process_active_job(tessard &client, const std::string &job_id) {
    const std::lock_guard lock(job_manager_mutex);
    syslog(LOG_NOTICE, "%s %s", "process_active_job", job_id.c_str());
    Json::Value job;
    if (read_json_file(active_job_path(job_id).c_str(), job) != 0)
        return;
    syslog(LOG_NOTICE, "%s job: %s status: %s", "process_active_job", job_id.c_str(),
           job.get(KEY_STATUS, "").asString().c_str());
    if (iot_firmware_is_unverified())
        check_job_of_unverified_firmware(job);

    const std::string status = job.get(KEY_STATUS, "").asString();
    if (status == STATUS_RECEIVED) {
        update_job_status(job, POST_STATUS);
        execute_job_action(client, job);
    } else if (status == STATUS_EXECUTED) {
        resume_executed_job(client, job, job_id);
    }
}
