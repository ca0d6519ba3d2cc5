#include "packaging/boot/stored_jobs.h"

#include "jobs/job_record.h"
#include "jobs/job_store.h"
#include "packaging/boot/files.h"
#include "platform/vantrel.h"

#include <cstdio>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>

namespace {

// A record before it has its name. Not among the jobs: there it would be one.
constexpr char PART[] = "/var/data/orv/.reopened";

} // namespace

std::vector<Json::Value> stored_jobs() {
    Json::Value names(Json::arrayValue);
    get_active_job_list(names);
    std::vector<Json::Value> jobs;
    for (const Json::Value &name : names)
        if (Json::Value job = stored_job(name.asString()); job.isObject())
            jobs.push_back(std::move(job));
    return jobs;
}

Json::Value stored_job(const std::string &job_id) {
    Json::Value job = object_in(active_job_path(job_id).c_str());
    if (text_of(job, KEY_JOB_ID) != job_id)
        return {};
    return job;
}

bool is_final(const Json::Value &job) {
    const std::string status = text_of(job, KEY_STATUS);
    return status == STATUS_SUCCESS || status == STATUS_FAILED;
}

bool is_firmware_job(const Json::Value &job) {
    const std::string action = text_of(job, KEY_ACTION);
    const bool firmware = action == ACTION_FW || action == ACTION_FW_LOWER || action == ACTION_FW_PUT ||
                          action == ACTION_FW_PUT_LOWER;
    return firmware && !is_true(job, KEY_RADIO) && !is_true(job[KEY_PARAMS], KEY_RADIO);
}

void store_job(const Json::Value &job) {
    const std::string job_id = job_id_of(job);
    if (write_json_file(active_job_path(job_id).c_str(), job) != 0)
        syslog(LOG_ERR, "job %s cannot be stored", job_id.c_str());
    flush();
}

void store_job_in_its_place(const Json::Value &job) {
    const std::string job_id = job_id_of(job);
    const Json::Value &arrived = job[KEY_TIMESTAMP];
    const timespec time = {.tv_sec = arrived.isInt64() ? arrived.asInt64() : 0, .tv_nsec = 0};
    const timespec times[] = {time, time};
    const bool is_written = write_json_file(PART, job) == 0 && utimensat(AT_FDCWD, PART, times, 0) == 0;
    flush(); // the record before its name
    if (!is_written || std::rename(PART, active_job_path(job_id).c_str()) != 0)
        syslog(LOG_ERR, "job %s cannot be stored", job_id.c_str());
    flush();
}

void stamp_untold_failures() {
    for (Json::Value &job : stored_jobs()) {
        if (text_of(job, KEY_STATUS) != STATUS_FAILED || job.isMember(KEY_ACK_ID))
            continue;
        const auto now = static_cast<Json::Int>(time(nullptr));
        job[KEY_ACK] = false;
        job[KEY_ACK_ID] = now;
        job[KEY_ACK_TS] = now;
        syslog(LOG_NOTICE, "job %s failed without a session: it gets one, and will be told",
               job_id_of(job).c_str());
        store_job(job);
    }
}
