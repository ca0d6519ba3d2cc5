#include "config/apply.h"

#include "agent/requests/abort_request.h"
#include "config/apply_progress.h"
#include "config/change_actions.h"
#include "config/commit.h"
#include "config/config_files.h"
#include "config/failsafe.h"
#include "jobs/job_record.h"
#include "jobs/job_status.h"
#include "jobs/job_store.h"
#include "jobs/markers.h"
#include "platform/cmd.h"
#include "platform/vantrel.h"
#include "platform/vtrsec.h"

#include <cstring>

#include <syslog.h>
#include <unistd.h>

namespace {

constexpr unsigned PAUSE_AFTER_REPORT_S = 2;

// What the steps of one apply work on.
struct apply_context {
    tessard &client;
    Json::Value &job;
    bool after_fw_upgrade; // the candidate came with a firmware that runs for the first time
};

void end_as(Json::Value &job, const char *status, const char *msg) {
    job[KEY_MSG] = msg;
    job[KEY_STATUS] = status;
}

void begin_apply(const Json::Value &job) {
    syslog(LOG_DEBUG, "executing config apply");
    set_config_job_executing(true);
    set_config_apply_in_progress("executing config change");
    clear_failsafe_markers();
    set_active_job(job);
}

bool take_candidate(const apply_context &apply) {
    if (!apply.after_fw_upgrade)
        sync_new_config();
    if (!file_exists(NEW_CONFIG.config)) {
        end_as(apply.job, STATUS_FAILED, "config apply has no new config to apply");
        return false;
    }
    encode_encrypt_fields_config_file(NEW_CONFIG.config, nullptr);
    calculate_and_write_config_hash(NEW_CONFIG.config, NEW_CONFIG.hash);
    return true;
}

// An unreadable hash only means that the candidate is applied.
bool candidate_equals_running() {
    char new_hash[HASH_SIZE] = "";
    char running_hash[HASH_SIZE] = "";
    return read_hash(NEW_CONFIG.hash, new_hash) == 0 && read_hash(RUNNING_CONFIG.hash, running_hash) == 0 &&
           strcmp(new_hash, running_hash) == 0;
}

bool aborted(const apply_context &apply, const char *when) {
    if (!check_abort(apply.client, apply.job))
        return false;
    end_as(apply.job, STATUS_FAILED, "cmd apply aborted");
    update_config_apply_status(when);
    return true;
}

bool validate_candidate(const apply_context &apply) {
    std::string result = "Validation not run";
    if (config_validator(NEW_CONFIG.config, result) == 0) {
        show_progress(apply.job, "config validation successful");
        return true;
    }
    constexpr char FAILED_MSG[] = "config validation failed";
    end_as(apply.job, STATUS_FAILED, FAILED_MSG);
    apply.job[KEY_VALIDATION_RESULT] = result;
    syslog(LOG_NOTICE, "%s : %s", FAILED_MSG, result.c_str());
    if (apply.after_fw_upgrade)
        syslog(LOG_ALERT, "%s : %s", FAILED_MSG, result.c_str());
    return false;
}

// From here on the candidate is the running configuration.
Json::Value replace_running_config() {
    Json::Value changes;
    get_config_change_list(RUNNING_CONFIG.config, NEW_CONFIG.config, changes);
    copy_file(NEW_CONFIG.config, RUNNING_CONFIG.config);
    copy_file(NEW_CONFIG.hash, RUNNING_CONFIG.hash);
    return changes;
}

bool failsafe_is_on(Json::Value &settings) {
    bool enabled = false;
    return cmd_get_value_json("system.failsafe", settings) == 0 &&
           config_get_bool(settings, &enabled, "enable") && enabled;
}

// With auto_mode the failsafe copy is the configuration in force before every apply; without it, the first
// copy saved stays for ever.
void keep_failsafe_copy(const Json::Value &settings) {
    bool auto_mode = false;
    config_get_bool(settings, &auto_mode, "auto_mode");
    if (file_exists(FAILSAFE_FILES.config) && !auto_mode) {
        update_config_apply_status(
            "failsafe config already exists and auto failsafe disabled, using existing failsafe config");
        return;
    }
    copy_file(SAVED_CONFIG.config, FAILSAFE_FILES.config);
    copy_file(SAVED_CONFIG.hash, FAILSAFE_FILES.hash);
    sync_to_fs(SYNC_PERSISTENT);
}

bool prepare_failsafe(Json::Value &settings) {
    if (!failsafe_is_on(settings)) {
        update_config_apply_status("config apply has failsafe disabled");
        return false;
    }
    update_config_apply_status("config apply has failsafe enabled");
    keep_failsafe_copy(settings);
    return true;
}

void apply_valid_candidate(const apply_context &apply) {
    const Json::Value changes = replace_running_config();
    Json::Value settings;
    const bool failsafe = prepare_failsafe(settings);
    apply.job[KEY_FAILSAFE_ENABLED] = failsafe;
    show_progress(apply.job, "applying new config");

    if (apply_config_changes(apply.job, changes, apply.after_fw_upgrade) != 0) {
        end_as(apply.job, STATUS_FAILED, "failure applying new config"); // the running configuration stays
        return;
    }
    if (failsafe) {
        failsafe_verify(apply.client, settings, changes, apply.job);
        return;
    }
    commit_running_config();
    end_as(apply.job, STATUS_SUCCESS, "config has been applied (no failsafe)");
    publish_config_updates(apply.client, job_id_of(apply.job), changes);
}

void apply_candidate(const apply_context &apply) {
    if (!take_candidate(apply))
        return;
    if (!apply.after_fw_upgrade && candidate_equals_running()) {
        constexpr char UNCHANGED_MSG[] = "no config changes to apply";
        end_as(apply.job, STATUS_SUCCESS, UNCHANGED_MSG);
        syslog(LOG_NOTICE, "%s", UNCHANGED_MSG);
        return;
    }
    show_progress(apply.job, "validating config");
    if (aborted(apply, "Aborting before config validator"))
        return;
    if (!validate_candidate(apply))
        return;
    if (aborted(apply, "Aborting after config validator"))
        return;
    apply_valid_candidate(apply);
}

void report_end(Json::Value &job) {
    update_config_apply_status(text_of(job, KEY_MSG).c_str());
    if (job.isObject() && job.isMember(KEY_VALIDATION_RESULT) && job[KEY_VALIDATION_RESULT].isString())
        update_config_apply_status(job[KEY_VALIDATION_RESULT].asString().c_str());
    update_job_status(job, post_status_of_apply(job));
}

void clear_marks(tessard &client) {
    clear_config_job_files();
    sleep(PAUSE_AFTER_REPORT_S);
    clear_active_job();
    clear_config_apply_in_progress();
    clear_failsafe_markers();
    clear_abort_request(client);
    delete_file(FW_JOBID_FILE);
    set_config_job_executing(false);
}

} // namespace

void cmd_apply(tessard &client, Json::Value &job, bool after_fw_upgrade) {
    if (is_config_job_executing()) {
        syslog(LOG_NOTICE, "config apply is already in progress");
        return;
    }
    // What a step throws fails the job, and keeps no mark from being cleared.
    try {
        begin_apply(job);
        apply_candidate({client, job, after_fw_upgrade});
    } catch (...) {
        syslog(LOG_NOTICE, "cmd_apply: exception handler");
        if (job.isObject())
            job[KEY_STATUS] = STATUS_FAILED;
    }
    report_end(job);
    clear_marks(client);
}

void sync_new_config() {
    if (file_exists(NEW_CONFIG_COPY))
        copy_file(NEW_CONFIG_COPY, NEW_CONFIG.config);
    else if (file_exists(NEW_CONFIG.config))
        copy_file(NEW_CONFIG.config, NEW_CONFIG_COPY);
    sync_to_fs(SYNC_PERSISTENT);
}

void clear_config_job_files() {
    delete_file(active_job_path(ID_LOCAL_FW_UPGRADE).c_str());
    delete_file(ACTIVE_JOB_COPY);
    delete_new_config_files();
    sync_to_fs(SYNC_PERSISTENT);
}
