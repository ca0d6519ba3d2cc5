#include "actions/command_job.h"

#include "actions/requests/device_requests.h"
#include "actions/results_upload.h"
#include "actions/script_file.h"
#include "jobs/job_record.h"
#include "jobs/job_status.h"
#include "jobs/job_store.h"
#include "jobs/markers.h"
#include "platform/vantrel.h"

#include <cstdlib>
#include <ctime>

#include <syslog.h>
#include <unistd.h>

namespace {

constexpr int DEFAULT_JOB_TIME_S = 600;
constexpr int LONGEST_JOB_TIME_S = 14400;
constexpr size_t MARKER_SEARCH_LENGTH = 255;
constexpr unsigned PAUSE_BEFORE_REBOOT_S = 8;

int max_cmd_job_time = DEFAULT_JOB_TIME_S;

void fail_job(Json::Value &job, const char *msg) {
    job[KEY_STATUS] = STATUS_FAILED;
    job[KEY_MSG] = msg;
}

bool is_text_of(const std::string &value, const char *upper, const char *lower) {
    return value == upper || value == lower;
}

// The status stays as it was: the service that does the work answers later.
void request_file_transfer(Json::Value &job, const std::string &value) {
    Json::Value command = job[KEY_PARAMS];
    command["session"] = static_cast<Json::Int>(time(nullptr));
    command[KEY_JOB_ID] = job.get(KEY_JOB_ID, Json::Value());
    if (is_text_of(value, "FILEPUSH", "filepush")) {
        const std::string payload = command_text(command);
        syslog(LOG_DEBUG, "send filepush command: %s", payload.c_str());
        publish_command(&cmd_message_id, FILEPUSH_TOPIC, payload);
    } else if (is_text_of(value, "FILEPULL", "filepull")) {
        const std::string payload = command_text(command);
        syslog(LOG_DEBUG, "send filepull command: %s", payload.c_str());
        publish_command(&cmd_message_id, FILEPULL_TOPIC, payload);
    } else {
        fail_job(job, "command not supported");
    }
}

void report_cmd(Json::Value &job) {
    syslog(LOG_DEBUG, "execute_action_cmd update_job_status %s", job.get(KEY_STATUS, "").asString().c_str());
    update_job_status(job, POST_STATUS);
    delete_file(FW_JOBID_FILE);
}

void run_cmd(Json::Value &job) {
    const std::string job_id = job_id_of(job);
    syslog(LOG_DEBUG, "execute cmd jobId:%s", job_id.c_str());
    set_jobid_flag(job_id.c_str());

    if (!job.isMember(KEY_ACTION) || job[KEY_ACTION].asString() != ACTION_CMD) {
        fail_job(job, "not a valid command job");
    } else if (!job.isMember(KEY_VALUE)) {
        fail_job(job, "job requires 'value' property");
    } else if (!job.isMember(KEY_PARAMS)) {
        fail_job(job, "job requires 'params' property");
    } else {
        const std::string value = job[KEY_VALUE].asString();
        if (is_text_of(value, "SCRIPT", "script")) {
            execute_action_cli_script(job);
            delete_file(FW_JOBID_FILE);
            return; // the script runner has reported
        }
        request_file_transfer(job, value);
    }
    report_cmd(job);
}

void fail_script_job(Json::Value &job) {
    job[KEY_STATUS] = STATUS_FAILED;
    update_job_status(job, POST_STATUS);
}

void reboot_if_requested(Json::Value &job) {
    if (!job[KEY_PARAMS].get(PARAM_REBOOT, false).asBool())
        return;
    syslog(LOG_INFO, "reboot requested - delaying for 8 seconds");
    stamp_status(job); // reported after the reboot
    write_job_file(job);
    sleep(PAUSE_BEFORE_REBOOT_S);
    (void)system("/sbin/reboot -f");
}

void run_script(Json::Value &job, const std::string &script_path, const std::string &output_path) {
    syslog(LOG_ALERT, "CMD:execute cmd job script jobId: %s", job[KEY_JOB_ID].asString().c_str());
    const int rc = orvsys("timeout %d /bin/sh %s", max_cmd_job_time, script_path.c_str());
    syslog(LOG_NOTICE, "execute command job script rc:%d", rc);
    if (rc != 0) {
        job[KEY_STATUS] = STATUS_FAILED;
        post_job_results(job, output_path);
    } else {
        post_job_results(job, output_path);
        job[KEY_STATUS] = STATUS_SUCCESS;
        reboot_if_requested(job);
    }
    update_job_status(job, POST_STATUS);
    clear_job_cli_script(job);
}

void run_script_job(Json::Value &job) {
    if (!job.isMember(KEY_JOB_ID)) {
        fail_script_job(job);
        return;
    }
    if (!job.isMember(KEY_PARAMS) || !job[KEY_PARAMS].isMember(PARAM_SCRIPT)) {
        job[KEY_MSG] = "params.script property required";
        fail_script_job(job);
        return;
    }

    job[KEY_STATUS] = STATUS_EXECUTED;
    job[KEY_FAIL_ON_REBOOT] = true; // a reboot from here on fails the job
    update_job_status(job, POST_STATUS);

    std::string script_path;
    std::string output_path;
    std::string error;
    if (generate_cli_script(job, script_path, output_path, error) != 0)
        return; // stays "executed", the error is not reported
    set_max_job_time(job);
    run_script(job, script_path, output_path);
}

void send_status_directly(Json::Value &job, const char *status) {
    job[KEY_STATUS] = status;
    if (tessard *client = iot_client)
        send_job_status(*client, job);
}

int run_critical_script(Json::Value &job) {
    send_status_directly(job, STATUS_RECEIVED);
    std::string script_path;
    std::string output_path;
    std::string error;
    if (generate_cli_script(job, script_path, output_path, error) != 0)
        return -1;

    const int rc = orvsys("/bin/sh %s", script_path.c_str());
    syslog(LOG_NOTICE, "execute command job script rc:%d", rc);
    send_status_directly(job, STATUS_EXECUTED);
    send_status_directly(job, rc == 0 ? STATUS_SUCCESS : STATUS_FAILED);

    // the bare id, without the script file's time: the script itself stays
    delete_file(("/var/volatile/orv/" + job[KEY_JOB_ID].asString()).c_str());
    archive_job_file(job);
    syslog(LOG_DEBUG, "send critical cmd job %s", job[KEY_STATUS].asString().c_str());
    return rc;
}

} // namespace

void execute_action_cmd(Json::Value &job) try { run_cmd(job); } catch (...) {
    job[KEY_STATUS] = STATUS_FAILED;
    update_job_status(job, POST_STATUS);
    delete_file(FW_JOBID_FILE);
    syslog(LOG_DEBUG, "execute cmd: exception handler");
}

void execute_action_cli_script(Json::Value &job) {
    run_script_job(job);
    syslog(LOG_DEBUG, "execute_action_cli_script update_job_status %s", job[KEY_STATUS].asString().c_str());
}

void set_max_job_time(const Json::Value &job) {
    constexpr char MARKER[] = "# MAX JOB TIME";
    constexpr size_t NUMBER_OFFSET = sizeof MARKER; // one past its 14 characters: a blank, or an equals sign
    max_cmd_job_time = DEFAULT_JOB_TIME_S;
    const std::string head = job[KEY_PARAMS][PARAM_SCRIPT].asString().substr(0, MARKER_SEARCH_LENGTH);
    const size_t marker = head.find(MARKER);
    if (marker != head.npos && marker + NUMBER_OFFSET < head.size()) {
        const long seconds = strtol(head.c_str() + marker + NUMBER_OFFSET, nullptr, 10); // 0: no number
        if (seconds >= 1 && seconds <= LONGEST_JOB_TIME_S)
            max_cmd_job_time = static_cast<int>(seconds);
    }
    syslog(LOG_DEBUG, "max cmd job execution time is %d secs", max_cmd_job_time);
}

int execute_critical_cmd_job(Json::Value &job) {
    const busy_mark mark(set_critical_job_executing);
    return run_critical_script(job);
}

void set_jobid_flag(const char *job_id) {
    delete_file(FW_JOBID_FILE);
    if (!job_id)
        return;
    const std::string command = std::string("/bin/echo '") + job_id + "' > " + FW_JOBID_FILE;
    syslog(LOG_DEBUG, "set_jobid_flag %s", command.c_str());
    (void)system(command.c_str());
}
