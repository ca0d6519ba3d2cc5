#include "jobs/job_status.h"

#include "jobs/job_record.h"
#include "jobs/job_store.h"
#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <ctime>
#include <mutex>
#include <string_view>

#include <syslog.h>
#include <unistd.h>

std::atomic<tessard *> iot_client{nullptr};
int status_message_id = 1000;

namespace {

constexpr int REPEAT_INTERVAL_S = 20;
constexpr unsigned PAUSE_AFTER_PUBLISH_S = 2;

// Before it no report is repeated: one for all jobs and both threads.
std::atomic<int32_t> next_repeat_time{0};

// The first call of update_job_status, whatever it is about, says from when on reports are repeated.
void begin_repeats(int32_t now) {
    static std::once_flag begun;
    std::call_once(begun, [now] { next_repeat_time = now; });
}

bool needs_ack(std::string_view status) {
    return status == STATUS_RECEIVED || status == STATUS_FAILED || status == STATUS_SUCCESS ||
           status == STATUS_EXECUTED;
}

bool is_stored_already(const Json::Value &job, const std::string &job_id, const std::string &status) {
    Json::Value prev;
    if (read_json_file(active_job_path(job_id).c_str(), prev) != 0)
        return false;
    if (!prev.isObject() || !prev.isMember(KEY_JOB_ID) || prev[KEY_JOB_ID] != job[KEY_JOB_ID])
        return false;
    syslog(LOG_NOTICE, "prev job status: %s current job status: %s",
           prev.get(KEY_STATUS, "").asString().c_str(), status.c_str());
    return prev.isMember(KEY_STATUS) && prev[KEY_STATUS] == job[KEY_STATUS];
}

bool repeat_is_due(const Json::Value &job, int32_t now) {
    if (!job.isMember(KEY_ACK) || job[KEY_ACK].asBool() || next_repeat_time >= now)
        return false;
    next_repeat_time = now + REPEAT_INTERVAL_S;
    syslog(LOG_DEBUG, "%s: sending repeat job status, next:%d now:%d", "update_job_status",
           now + REPEAT_INTERVAL_S, now);
    return true;
}

void begin_status(Json::Value &job, const std::string &job_id, const std::string &status, int32_t now) {
    if (!needs_ack(status)) {
        syslog(LOG_DEBUG, "set job ACK true");
        job[KEY_ACK] = true;
        job[KEY_ACK_ID] = 0;
        return;
    }
    if (job_id == ID_FAILSAFE_CONFIG) {
        bool ack = false;
        config_get_bool(job, &ack, KEY_ACK);
        stamp_status(job, now);
        job[KEY_ACK] = ack;
        return;
    }
    syslog(LOG_DEBUG, "job status %s setting ACK to false", status.c_str());
    stamp_status(job, now);
}

// The job file bears the record's status afterwards. True when that is to be reported: it is new, or waits for its
// acknowledgement and its next repeat is due.
bool record_status(Json::Value &job, const std::string &job_id, const std::string &status, int32_t now,
                   const record_lock &record) {
    if (is_stored_already(job, job_id, status))
        return repeat_is_due(job, now);
    begin_status(job, job_id, status, now);
    write_job_file(job, record);
    return true;
}

void post_job_status(const Json::Value &job, const std::string &job_id, const std::string &status) {
    // compared over the reserved id's length only, so longer ids that begin with it are silent too
    if (job_id.rfind(ID_FAILSAFE_CONFIG, 0) == 0)
        return;
    const bool waits_for_ack = job.isMember(KEY_ACK_ID) && job.isMember(KEY_ACK) && !job[KEY_ACK].asBool();
    if (!waits_for_ack) {
        syslog(LOG_DEBUG, "did not post status %s to IOT: ackid:%d ack:%d", status.c_str(),
               job.get(KEY_ACK_ID, 0).asInt(), job.get(KEY_ACK, false).asBool() ? 1 : 0);
        return;
    }
    syslog(LOG_DEBUG, "send job status:%s to IOT, ack_id:%d", status.c_str(), job[KEY_ACK_ID].asInt());
    if (tessard *client = iot_client)
        send_job_status(*client, job);
    sleep(PAUSE_AFTER_PUBLISH_S);
}

} // namespace

int *next_status_message_id() {
    std::atomic_ref<int>(status_message_id).fetch_add(1);
    return &status_message_id;
}

void update_job_status(Json::Value &job, int post_status) {
    record_lock record(job_record_mutex, std::defer_lock);
    update_job_status(job, post_status, record);
}

void update_job_status(Json::Value &job, int post_status, record_lock &record) try {
    const auto now = static_cast<int32_t>(time(nullptr));
    begin_repeats(now);
    if (!job.isMember(KEY_JOB_ID) || !job.isMember(KEY_STATUS)) {
        syslog(LOG_NOTICE, "job object must contain jobid and status");
        return;
    }
    const std::string job_id = job[KEY_JOB_ID].asString();
    const std::string status = job[KEY_STATUS].asString();
    syslog(LOG_NOTICE, "%s: %s %s post_status: %d", "update_job_status", job_id.c_str(), status.c_str(),
           post_status);

    if (!record)
        record.lock();
    const bool to_be_reported = record_status(job, job_id, status, now, record);
    record.unlock();
    if (to_be_reported && post_status != 0)
        post_job_status(job, job_id, status);
} catch (...) {
    syslog(LOG_NOTICE, "update_job_status: exception handler");
}

void stamp_status(Json::Value &job, time_t now) {
    job[KEY_ACK_TS] = static_cast<Json::Int>(now);
    job[KEY_ACK_ID] = static_cast<Json::Int>(now);
    job[KEY_ACK] = false;
}

void send_job_status(tessard &client, const Json::Value &job) {
    if (!iot_network_check())
        return;
    const std::string job_id = job[KEY_JOB_ID].asString();
    const std::string status = job[KEY_STATUS].asString();
    Json::Value report;
    report["method"] = "updateJob";
    report["session"] = job[KEY_ACK_ID];
    Json::Value &params = report["params"];
    params[KEY_JOB_ID] = job_id;
    params[KEY_STATUS] = status;
    if (job.isMember(KEY_FW_VER))
        params[KEY_FW_VER] = job[KEY_FW_VER];
    if (job.isMember(KEY_MSG))
        params[KEY_MSG] = job[KEY_MSG];

    const std::string payload = client.serialize(report);
    const std::string topic = "v1/device/job/" + job_id + "/ack";
    int *message_id = next_status_message_id();
    syslog(LOG_ALERT, "send status update for job: %s status: %s", job_id.c_str(), status.c_str());
    syslog(LOG_DEBUG, "send_message: %s", payload.c_str());
    client.send_message(message_id, topic, payload);
}

bool iot_network_check() {
    Json::Value iot;
    if (cmd_get_value_json("iot.vantrel_iot", iot) != 0) {
        syslog(LOG_NOTICE, "Error reading IOT config");
        return false;
    }
    const std::string host = get_iot_url_sim1_or_sim2_from_config(iot);
    if (host.empty()) {
        syslog(LOG_NOTICE, "No IOT URL!");
        return false;
    }
    const bool answers = ping_test(2, host.c_str()) == 0;
    if (answers)
        syslog(LOG_DEBUG, "ping to %s OK", host.c_str());
    syslog(LOG_DEBUG, "network check: %d", answers ? 1 : 0);
    return answers;
}
