#include "actions/config_job.h"

#include "actions/command_job.h"
#include "config/config_files.h"
#include "jobs/job_record.h"
#include "jobs/job_status.h"
#include "jobs/job_store.h"
#include "jobs/markers.h"
#include "platform/cmd.h"
#include "platform/sysdb.h"
#include "platform/vantrel.h"

#include <syslog.h>

namespace {

constexpr int FW_VER_SIZE = 64;
constexpr int FULL_CONFIG_LEVEL = 0;
constexpr int UNKNOWN_CONFIG_LEVEL = 2;

void log_outcome(const Json::Value &job) {
    if (job.isMember(KEY_MSG) && job[KEY_MSG].isConvertibleTo(Json::stringValue))
        syslog(LOG_NOTICE, "config job status: %s", job[KEY_MSG].asString().c_str());
}

void fail_config_job(Json::Value &job, const char *msg) {
    job[KEY_MSG] = msg;
    log_outcome(job);
    syslog(LOG_ERR, "config job failed");
    job[KEY_STATUS] = STATUS_FAILED;
    delete_file(FW_JOBID_FILE);
    update_job_status(job, POST_STATUS);
}

void end_config_job(Json::Value &job, const char *status, const char *msg) {
    job[KEY_MSG] = msg;
    job[KEY_STATUS] = status;
    update_job_status(job, POST_STATUS);
    delete_file(FW_JOBID_FILE);
}

// False when the job ends here: it was made for another version, or this device's cannot be read.
bool fits_firmware(Json::Value &job) {
    std::string wanted;
    if (!config_get_string(job, &wanted, "params.fwVer"))
        return true;
    syslog(LOG_NOTICE, "validate FW version is %s", wanted.c_str());
    char running[FW_VER_SIZE] = "";
    if (sysdb_read_str(0, "SYS_FW_VER", running, FW_VER_SIZE - 1) != 0) {
        syslog(LOG_ERR, "error reading sysdb"); // the job stays as it was, on purpose
        return false;
    }
    if (wanted == running) {
        syslog(LOG_NOTICE, "verified config job FW version matches running FW version");
        return true;
    }
    syslog(LOG_NOTICE, "config job FW version: %s does not match device FW version: %s", wanted.c_str(),
           running);
    job[KEY_FW_VER] = running;
    end_config_job(job, STATUS_FAILED, "FW version mismatch");
    return false;
}

void write_candidate(const Json::Value &config) {
    {
        const std::lock_guard lock(job_file_mutex);
        write_json_file(NEW_CONFIG.config, config);
    }
    calculate_and_write_config_hash(NEW_CONFIG.config, NEW_CONFIG.hash);
}

void pass_on(Json::Value &job, const Json::Value &config) {
    write_candidate(config);
    log_outcome(job);
    job[KEY_STATUS] = STATUS_EXECUTED;
    job[KEY_CFG_VERIFIED] = false;
    update_job_status(job, POST_STATUS);
}

void check_config(Json::Value &job, const Json::Value &config, const std::string &provided_hash) {
    const std::string calculated_hash = config_hash(config);
    syslog(LOG_DEBUG, "compare calculated hash: %s with provided hash: %s", calculated_hash.c_str(),
           provided_hash.c_str());
    if (calculated_hash != provided_hash) {
        fail_config_job(job, "configHash mismatch");
        return;
    }
    syslog(LOG_DEBUG, "config hash validated");
    if (current_config_hash() == provided_hash) {
        syslog(LOG_NOTICE, "config job is same as current running config");
        end_config_job(job, STATUS_SUCCESS, "config matches current device config");
        return;
    }
    int level = UNKNOWN_CONFIG_LEVEL;
    config_get_int(job, &level, "params.configLevel");
    syslog(LOG_DEBUG, "job config level: %d", level);
    if (level != FULL_CONFIG_LEVEL) {
        fail_config_job(job, "invalid config level");
        return;
    }
    pass_on(job, config);
}

} // namespace

void execute_config_job(Json::Value &job) try {
    syslog(LOG_DEBUG, "job action: %s jobId:%s", job.get(KEY_ACTION, "").asString().c_str(),
           job_id_of(job).c_str());
    set_jobid_flag(job_id_of(job).c_str());
    Json::Value config;
    if (!config_get_object(job, &config, KEY_VALUE)) {
        fail_config_job(job, "value property is required");
        return;
    }
    std::string provided_hash;
    if (!config_get_string(job, &provided_hash, "params.configHash")) {
        fail_config_job(job, "configHash property is required");
        return;
    }
    if (fits_firmware(job))
        check_config(job, config, provided_hash);
} catch (...) {
    syslog(LOG_DEBUG, "config apply: exception handler");
}
