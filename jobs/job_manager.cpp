#include "jobs/job_manager.h"

#include "actions/dispatch.h"
#include "agent/checkin.h"
#include "jobs/job_record.h"
#include "jobs/job_status.h"
#include "jobs/job_store.h"
#include "jobs/markers.h"
#include "jobs/reset_button.h"
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

// The cloud then learns "failed" when a later pass finds the job finished and unacknowledged.
void repair_job(const std::string &job_id, int32_t now) {
    Json::Value job;
    job[KEY_JOB_ID] = job_id;
    job[KEY_STATUS] = STATUS_FAILED;
    job[KEY_ACK] = false;
    syslog(LOG_ALERT, "repairing and failing corrupt or missing job %s", job_id.c_str());
    job[KEY_ACK_TS] = now;
    job[KEY_ACK_ID] = now;
    write_job_file(job);
}

void process_job_list(tessard &client, const Json::Value &job_ids) {
    const auto now = static_cast<int32_t>(time(nullptr));
    for (const Json::Value &entry : job_ids) {
        const std::string job_id = entry.asString();
        if (check_job_file(job_id) != 0) {
            repair_job(job_id, now);
        } else if (process_completed_job(client, job_id) != 0) {
            process_active_job(client, job_id);
            return;
        }
    }
}

void archive_and_check_in(tessard &client, const Json::Value &job, const std::string &job_id) {
    syslog(LOG_ALERT, "archiving job file %s", job_id.c_str());
    archive_job_file(job);
    if (job_id == ID_FAILSAFE_CONFIG)
        return;
    syslog(LOG_DEBUG, "job mgr initiating sequential IOT checkin");
    sleep(PAUSE_BEFORE_CHECKIN_S);
    send_checkin(client);
}

// A job that was under way when the agent last stopped, normally by a reboot that the job itself caused.
void resume_executed_job(Json::Value &job, const std::string &job_id) {
    if (job.get(KEY_FAIL_ON_REBOOT, false).asBool()) {
        syslog(LOG_ALERT, "job: %s was interrupted by reboot, setting status to FAILED", job_id.c_str());
        job[KEY_STATUS] = STATUS_FAILED;
        update_job_status(job, 1);
    }
}

} // namespace

void job_mgr_main(tessard &client) {
    openlog("iot", 0, LOG_LOCAL0);
    syslog(LOG_NOTICE, "starting job_mgr_main");
    const bool has_reset_button = get_vantrel_dev_type_as_enum() == DEVICE_WITH_RESET_BUTTON;
    iot_client = &client;

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
    Json::Value job_ids(Json::arrayValue);
    if (get_active_job_list(job_ids) != 0) {
        syslog(LOG_NOTICE, "%s: get_active_job_list failed", "process_jobs");
        return -1;
    }
    process_job_list(client, job_ids);
    return 0;
} catch (...) {
    syslog(LOG_NOTICE, "process_jobs: exception handler");
    return 0;
}

int process_completed_job(tessard &client, const std::string &job_id) try {
    const std::lock_guard lock(job_manager_mutex);
    syslog(LOG_NOTICE, "processing job: %s", job_id.c_str());
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
        update_job_status(job, 1);
        return 0;
    }
    archive_and_check_in(client, job, job_id);
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
    const std::string status = job.get(KEY_STATUS, "").asString();
    syslog(LOG_NOTICE, "%s job: %s status: %s", "process_active_job", job_id.c_str(), status.c_str());

    if (status == STATUS_RECEIVED) {
        update_job_status(job, 1);
        execute_job_action(client, job);
    } else if (status == STATUS_EXECUTED) {
        resume_executed_job(job, job_id);
    }
}
