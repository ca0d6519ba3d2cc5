#include "actions/device_commands.h"

#include "actions/requests/device_requests.h"
#include "jobs/job_record.h"
#include "jobs/job_status.h"
#include "jobs/job_store.h"
#include "jobs/markers.h"
#include "platform/vantrel.h"

#include <ctime>

#include <syslog.h>

namespace {

void fail_xtra(Json::Value &job, const char *msg) {
    job[KEY_MSG] = msg;
    job[KEY_STATUS] = STATUS_FAILED;
    update_job_status(job, POST_STATUS);
    delete_file(FW_JOBID_FILE);
}

void request_xtra(Json::Value &job) {
    job[KEY_ACK_ID] = static_cast<Json::Int>(time(nullptr));
    job[KEY_STATUS] = STATUS_EXECUTED;
    write_job_file(job);

    Json::Value command;
    command["url"] = job[KEY_PARAMS][PARAM_FILE_URL];
    command["filepath"] = "/var/data/xtra/vantrel_xtra.bin";
    command[KEY_JOB_ID] = job[KEY_JOB_ID];
    command["session"] = job[KEY_ACK_ID];
    const std::string payload = command_text(command);
    syslog(LOG_DEBUG, "send filepull command: %s", payload.c_str());
    publish_command(&cmd_message_id, FILEPULL_TOPIC, payload);
    delete_file(FW_JOBID_FILE);
}

} // namespace

void execute_action_cfgpush(Json::Value &job) {
    if (!job.isMember(KEY_VALUE)) {
        constexpr char NO_VALUE_MSG[] = "expected value property";
        job[KEY_STATUS] = STATUS_FAILED;
        job[KEY_MSG] = NO_VALUE_MSG;
        syslog(LOG_DEBUG, "%s", NO_VALUE_MSG);
        update_job_status(job, POST_STATUS);
        return;
    }
    job[KEY_STATUS] = STATUS_EXECUTED;
    update_job_status(job, POST_STATUS);

    Json::Value command;
    command[KEY_VALUE] = job[KEY_VALUE];
    command["session"] = job.get(KEY_ACK_ID, Json::Value());
    command[KEY_JOB_ID] = job.get(KEY_JOB_ID, Json::Value());
    publish_command(nullptr, CFGPUSH_TOPIC, command_text(command));
}

void job_action_xtra(Json::Value &job) {
    syslog(LOG_NOTICE, "job_action_xtra");
    if (!job.isMember(KEY_ACTION) || job[KEY_ACTION].asString() != ACTION_XTRA)
        fail_xtra(job, "expecting job action XTRA");
    else if (!job.isMember(KEY_PARAMS))
        fail_xtra(job, "expecting params property");
    else if (!job[KEY_PARAMS].isObject() || !job[KEY_PARAMS].isMember(PARAM_FILE_URL))
        fail_xtra(job, "expecting fileUrl property");
    else
        request_xtra(job);
}
