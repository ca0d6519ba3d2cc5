#include "agent/acknowledgements.h"

#include "jobs/job_record.h"
#include "jobs/job_status.h"
#include "jobs/job_store.h"
#include "jobs/manager/job_manager.h"
#include "jobs/markers.h"
#include "platform/vantrel.h"

#include <cstring>

#include <syslog.h>

namespace {

constexpr int UPDATE_SUCCESS = 0;
constexpr int MAX_REFUSED_ACKS = 100;
constexpr char REFUSED_TOO_OFTEN[] =
    "exceeded max attempts to update with IOT. job will be FAILED and archived";

bool answers_last_report(const Json::Value &answer, const Json::Value &job) {
    return job.isMember(KEY_ACK_ID) && job[KEY_ACK_ID].asInt() == answer["session"].asInt();
}

void accept_ack(Json::Value &job, const std::string &path, const record_lock &record) {
    job[KEY_ACK] = true;
    job[KEY_ACK_ATTEMPTS] = 0;
    syslog(LOG_ALERT, "job: %s set ACK: true for job status:%s", path.c_str(),
           job.get(KEY_STATUS, "").asString().c_str());
    write_job_file(job, record);
}

void refuse_ack(Json::Value &job, const std::string &job_id, const record_lock &record) {
    const int attempts = job.get(KEY_ACK_ATTEMPTS, 0).asInt() + 1;
    job[KEY_ACK_ATTEMPTS] = attempts;
    if (attempts <= MAX_REFUSED_ACKS)
        return; // not stored on purpose: only the count that fails the job is
    job[KEY_MSG] = REFUSED_TOO_OFTEN;
    syslog(LOG_ALERT, "job: %s %s ", job_id.c_str(), REFUSED_TOO_OFTEN); // sic: the trailing blank
    job[KEY_STATUS] = STATUS_FAILED;
    job[KEY_ACK] = true;
    write_job_file(job, record);
    archive_job_file(job, record);
}

// The end of a job whose work another service does. False when this job takes no updates.
bool take_update(Json::Value &job, const Json::Value &update) {
    const auto set_success_on_0 = [&](int rc) {
        if (rc == UPDATE_SUCCESS)
            job[KEY_STATUS] = STATUS_SUCCESS;
    };
    if (job.isMember(KEY_ACTION) && job[KEY_ACTION].asString() == ACTION_FW_PUT_LOWER) {
        const int rc = update["rc"].asInt();
        if (is_true(job, KEY_RADIO)) {
            set_success_on_0(rc);
            set_radiofw_job_executing(false);
            return true;
        }
        syslog(LOG_DEBUG, "set fw_put status %d", rc);
        set_success_on_0(rc);
        set_fw_job_executing(false);
        return true;
    }
    if (job.isMember(KEY_METHOD) && job[KEY_METHOD].asString() == "getConfig") {
        set_success_on_0(update["rc"].asInt());
        return true;
    }
    return false;
}

} // namespace

void job_pub_ack(tessard &client, const mosquitto_message *message) try {
    Json::Value answer;
    if (!client.deserialize(static_cast<const char *>(message->payload), answer))
        return;
    if (!answer.isMember(KEY_JOB_ID))
        return;
    syslog(LOG_DEBUG, "received pub ack message: %s", answer.toStyledString().c_str());
    if (!answer.isMember("session") || !answer.isMember("rc"))
        return;

    const std::string job_id = answer[KEY_JOB_ID].asString();
    const std::string path = active_job_path(job_id);
    const record_lock record(job_record_mutex);
    Json::Value job;
    if (read_json_file(path.c_str(), job) != 0 || !answers_last_report(answer, job))
        return;

    if (answer["rc"].asInt() == ORV_MQTT_RC_SUCCESS)
        accept_ack(job, path, record);
    else
        refuse_ack(job, job_id, record);
} catch (...) {
    syslog(LOG_DEBUG, "job_pub_ack: exception handler");
}

void cmd_ack(tessard &client, const mosquitto_message *message) {
    const char *payload = static_cast<const char *>(message->payload);
    syslog(LOG_NOTICE, "iot-client received ACK to job status: %s [payload: %s]", message->topic, payload);
    Json::Value answer;
    if (!client.deserialize(payload, answer))
        return;
    if (!answer.isMember(KEY_JOB_ID) || !answer.isMember("session") || !answer.isMember("rc"))
        return;

    const std::string job_id = answer[KEY_JOB_ID].asString();
    const Json::Value &rc = answer["rc"]; // may be text, which is only logged as 0 and is no success
    syslog(LOG_DEBUG, "cmd ack for job:%s session:%d rc:%d", job_id.c_str(), answer["session"].asInt(),
           rc.isInt() ? rc.asInt() : 0);
    if (!job_file_exists(answer)) {
        syslog(LOG_NOTICE, "no job file for ack %s", job_id.c_str());
        return;
    }

    record_lock record(job_record_mutex);
    Json::Value job;
    if (read_json_file(active_job_path(job_id).c_str(), job) != 0 || !answers_last_report(answer, job))
        return;

    if (rc == ORV_MQTT_RC_SUCCESS) {
        job[KEY_STATUS] = STATUS_SUCCESS;
    } else if (strstr(message->topic, "/checkin/") && job.get(KEY_ACTION, "").asString() == ACTION_CFG) {
        syslog(LOG_DEBUG, "ignore failed cmd/checkin/apply response during CFG verify attempts");
        return;
    } else {
        job[KEY_STATUS] = STATUS_FAILED;
    }
    syslog(LOG_DEBUG, "cmd_ack update_job_status %s", job[KEY_STATUS].asString().c_str());
    update_job_status(job, POST_STATUS, record);
}

void job_update(tessard &client, const mosquitto_message *message) try {
    Json::Value update;
    if (!client.deserialize(static_cast<const char *>(message->payload), update))
        return;
    if (strstr(message->topic, "/all/")) {
        if (update.isMember("connected") && update["connected"].asBool()) {
            client.cloud_connected = true;
            process_jobs(client);
        }
        return;
    }

    if (!update.isMember(KEY_JOB_ID))
        return;
    record_lock record(job_record_mutex);
    Json::Value job;
    if (read_json_file(active_job_path(update[KEY_JOB_ID].asString()).c_str(), job) != 0)
        return;
    if (!update.isMember("rc"))
        return;
    if (take_update(job, update))
        update_job_status(job, POST_STATUS, record);
} catch (...) {
    syslog(LOG_DEBUG, "job_update: exception handler");
}
