#include "agent/job_intake.h"

#include "actions/command_job.h"
#include "actions/script_file.h"
#include "jobs/job_record.h"
#include "jobs/job_status.h"
#include "jobs/job_store.h"
#include "jobs/markers.h"
#include "platform/vantrel.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>

#include <dirent.h>
#include <syslog.h>

namespace {

constexpr char CLEAR_ACTIVE_JOBS[] = "CLEAR_ACTIVE_JOBS";
constexpr char CLEAR_RUNNING_JOB[] = "CLEAR_RUNNING_JOB";
constexpr char CRITICAL_MARKER[] = "# JOB PRIORITY CRITICAL";

void take_job(const char *topic_id, Json::Value &job) {
    const bool critical = check_cmd_job_priority_is_critical(job);
    if (!has_usable_job_id(job))
        return;
    if (critical) {
        execute_critical_cmd_job(job);
        syslog(LOG_DEBUG, "executed critical command job");
        return;
    }
    if (job_file_exists(job)) {
        syslog(LOG_ALERT, "job %s received from IOT already exists and is active", topic_id);
        return;
    }
    new_job_file(job);
}

} // namespace

int job_apply(tessard &client, const mosquitto_message *message) {
    syslog(LOG_DEBUG, "incoming job %s", message->topic);
    char id[64];
    if (sscanf(message->topic, "v1/device/job/%63[^/]apply", id) != 1) {
        syslog(LOG_NOTICE, "invalid topic: %s", message->topic);
        return 0;
    }
    syslog(LOG_DEBUG, "job id: %s", id);

    if (strcmp(id, CLEAR_ACTIVE_JOBS) == 0) {
        clear_active_jobs();
        return 0;
    }
    if (strcmp(id, CLEAR_RUNNING_JOB) == 0) {
        clear_running_job();
        return 0;
    }

    Json::Value job;
    if (client.deserialize(static_cast<const char *>(message->payload), job))
        take_job(id, job);
    return 0;
}

int new_job_file(Json::Value &job) try {
    if (!has_usable_job_id(job))
        return -1;
    job[KEY_STATUS] = STATUS_RECEIVED;
    job[KEY_ACK] = false;
    job[KEY_ACK_ATTEMPTS] = 0;
    const auto now = static_cast<Json::Int>(time(nullptr));
    job[KEY_ACK_ID] = now;
    job[KEY_TIMESTAMP] = now;
    write_job_file(job);
    syslog(LOG_ALERT, "write new job file: %s", job[KEY_JOB_ID].asString().c_str());
    return -1;
} catch (const std::exception &error) {
    std::cerr << error.what() << '\n';
    return -1;
} catch (...) {
    syslog(LOG_DEBUG, "new_job_file: exception handler");
    return -1;
}

bool is_script_cmd_job(const Json::Value &job) {
    return job.isObject() && job[KEY_ACTION] == ACTION_CMD && job[KEY_VALUE] == "SCRIPT" &&
           job[KEY_PARAMS].isObject() && job[KEY_PARAMS].isMember(PARAM_SCRIPT);
}

bool check_cmd_job_priority_is_critical(const Json::Value &job) {
    syslog(LOG_DEBUG, "check_cmd_job_priority_is_critical");
    if (!is_script_cmd_job(job))
        return false;
    const Json::Value &script = job[KEY_PARAMS][PARAM_SCRIPT];
    if (!script.isString() || script.asString().rfind(CRITICAL_MARKER, 0) != 0)
        return false; // a script that is no text is stored, and failed by the command job
    syslog(LOG_DEBUG, "confirmed command job has priority CRITICAL");
    return true;
}

void clear_active_jobs() {
    syslog(LOG_ALERT, "received command to clear active jobs");
    // stays open on purpose: a fixed habit of this command that costs one descriptor a call
    if (DIR *directory = opendir(ACTIVE_JOB_DIR)) {
        while (const dirent *entry = readdir(directory)) {
            const std::string name = entry->d_name;
            syslog(LOG_DEBUG, "clear_active_jobs name: %s", name.c_str());
            if (name != "." && name != "..")
                force_fail_job(ACTIVE_JOB_DIR + name);
        }
        sync_to_fs(SYNC_PERSISTENT);
    }
    syslog(LOG_DEBUG, "clear_active_jobs exit");
}

void clear_running_job() {
    constexpr char SELECTED_JOB_FILE[] = "/tmp/.jobfile_select";
    syslog(LOG_ALERT, "received command to clear running job");
    delete_file(SELECTED_JOB_FILE);
    orvsys("/bin/ls -ltd $(find %s -type f) | tail -1|awk -Factive/ '{print $2}' > %s", ACTIVE_JOB_DIR,
           SELECTED_JOB_FILE);

    char name[VAR_FILE_SIZE] = "";
    if (read_var_file(SELECTED_JOB_FILE, name) == 0 && strlen(name) > 2) {
        const std::string path = active_job_path(name);
        syslog(LOG_DEBUG, "active job is: %s", path.c_str());
        force_fail_job(path);
        sync_to_fs(SYNC_PERSISTENT);
    }
    syslog(LOG_DEBUG, "clear_running_job exit");
}

void force_fail_job(const std::string &path) {
    Json::Value job;
    if (read_json_file(path.c_str(), job) != 0 || !job.isObject())
        return;
    if (is_script_cmd_job(job))
        clear_job_cli_script(job);

    job[KEY_STATUS] = STATUS_FAILED;
    const auto now = static_cast<Json::Int>(time(nullptr));
    job[KEY_ACK_TS] = now;
    job[KEY_ACK_ID] = now;
    if (tessard *client = iot_client)
        send_job_status(*client, job);

    {
        const record_lock record(job_record_mutex);
        delete_file(path.c_str());
    }
    delete_file(FW_JOBID_FILE);
    syslog(LOG_ALERT, "deleted active job %s, forced fail", path.c_str());
}
