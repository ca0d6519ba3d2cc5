#include "packaging/boot/unfinished_upgrade.h"

#include "config/config_files.h"
#include "jobs/job_record.h"
#include "jobs/job_store.h"
#include "jobs/markers.h"
#include "packaging/boot/attempts.h"
#include "packaging/boot/files.h"
#include "packaging/boot/slots.h"
#include "packaging/boot/stored_jobs.h"
#include "platform/vantrel.h"

#include <algorithm>

#include <syslog.h>

namespace {

// The new firmware wants the configuration in another form.
constexpr char MIGRATE_FILE[] = "/var/data/orv/MIGRATE";

bool both_are_staged() {
    return file_exists(STAGED_CONFIG.config) && file_exists(STAGED_CONFIG.hash);
}

void delete_staged_files() {
    delete_those({STAGED_CONFIG.config, STAGED_CONFIG.hash});
}

// Before any other mark: with those gone, nobody knows any more that it has to go.
void forget_migration() {
    if (delete_those({MIGRATE_FILE}))
        flush();
}

// FIRMWARE_UPDATED before all else: without it nothing of the rest is acted upon.
void delete_installation_marks() {
    delete_those({FIRMWARE_UPDATED_FILE});
    flush();
    delete_staged_files();
    flush();
}

void complete_marks(int slot) {
    syslog(LOG_NOTICE, "slot %d was chosen by an upgrade that was cut: FIRMWARE_UPDATED is set", slot);
    if (!set_mark(FIRMWARE_UPDATED_FILE, slot))
        syslog(LOG_ERR, "%s cannot be written", FIRMWARE_UPDATED_FILE);
}

// The record that tells of the failure stays: until the other slot runs, it is what this is decided by.
attempt boot_other_slot(const std::string &job_id) {
    const attempt noted = note_attempt("booting the other slot", job_id);
    if (noted != attempt::NOTED)
        return noted;
    syslog(LOG_ALERT, "job %s failed and its firmware still runs: booting the other one", job_id.c_str());
    delete_installation_marks();
    if (switch_firmware_partition() != 0)
        syslog(LOG_ERR, "the other firmware cannot be selected");
    return noted;
}

// --- An upgrade that was started on the device. Its record is the device's own; without its mark, what is left
// would be taken for an upgrade of the cloud, so the mark goes last.

void drop_local_mark() {
    delete_those({active_job_path(ID_LOCAL_FW_UPGRADE).c_str()});
    flush();
    delete_those({LOCAL_FW_UPGRADE_FILE});
    flush();
}

void drop_local_upgrade() {
    delete_installation_marks();
    drop_local_mark();
}

void finish_open_local_upgrade(int running) {
    if (file_exists(FIRMWARE_UPDATED_FILE))
        return; // the agent verifies it
    if (both_are_staged() && is_on_trial(running)) {
        complete_marks(running);
        return;
    }
    syslog(LOG_NOTICE, "the local upgrade is over: its mark is deleted");
    drop_local_upgrade();
}

// --- An upgrade of the cloud, by its job.

// All firmware jobs that are stored, and the slot that runs.
struct firmware_jobs {
    std::vector<Json::Value> jobs;
    int running;

    explicit firmware_jobs(int running_slot) : running(running_slot) {
        for (Json::Value &job : stored_jobs())
            if (is_firmware_job(job))
                jobs.push_back(std::move(job));
    }

    bool has_installed_running(const Json::Value &job, const char *status) const {
        return slot_of(job) == running && text_of(job, KEY_STATUS) == status;
    }

    // Null when there is none.
    const Json::Value *installed_running(const char *status, auto condition) const {
        const auto found = std::ranges::find_if(jobs, [&](const Json::Value &job) {
            return has_installed_running(job, status) && condition(job);
        });
        return found == jobs.end() ? nullptr : &*found;
    }

    bool has_younger(const Json::Value &than) const {
        const Json::Value &arrived = than[KEY_TIMESTAMP];
        return std::ranges::any_of(jobs, [&](const Json::Value &job) {
            const Json::Value &other = job[KEY_TIMESTAMP];
            const bool older = other.isInt64() && arrived.isInt64() && other.asInt64() < arrived.asInt64();
            return job[KEY_JOB_ID] != than[KEY_JOB_ID] && !older;
        });
    }
};

bool any_of_them(const Json::Value &) {
    return true;
}

comparison compare_with_saved_of(const Json::Value &job) {
    const Json::Value &params = job[KEY_PARAMS];
    return params.isObject() ? compare_with_saved(params[PARAM_CFG]) : comparison::UNKNOWN;
}

bool is_committed(const Json::Value &job) {
    return compare_with_saved_of(job) == comparison::SAME;
}

bool lacks_its_commit(const Json::Value &job) {
    return compare_with_saved_of(job) == comparison::OTHER && nothing_was_installed_after(job);
}

void drop_marks_of_other_slot(int running) {
    const int slot = slot_in_mark(FIRMWARE_UPDATED_FILE);
    if (slot == NO_SLOT || slot == running)
        return;
    syslog(LOG_NOTICE, "slot %d of the upgrade does not run: its marks are deleted", slot);
    forget_migration();
    delete_installation_marks();
}

// The mark goes last: until then it is what this is decided by.
void drop_marks_of_success(const Json::Value &job) {
    syslog(LOG_NOTICE, "the upgrade of job %s is a success: its marks are deleted", job_id_of(job).c_str());
    forget_migration();
    delete_staged_files();
    flush();
    delete_those({FIRMWARE_UPDATED_FILE});
    flush();
}

// A verification stores its success before it commits. With nothing to verify, the mark would make the agent go back
// to the former firmware as soon as the success is told. A commit that kills the agent each time is left as it is.
void reopen(Json::Value job) {
    if (note_attempt("verifying its firmware again", job_id_of(job)) != attempt::NOTED)
        return;
    syslog(LOG_NOTICE, "the success of job %s was not committed: its firmware is verified again",
           job_id_of(job).c_str());
    job[KEY_STATUS] = STATUS_EXECUTED;
    store_job_in_its_place(job);
}

void finish_installed(const firmware_jobs &firmware) {
    if (firmware.installed_running(STATUS_EXECUTED, any_of_them))
        return; // the mark is its own; the agent verifies it
    if (const Json::Value *success = firmware.installed_running(STATUS_SUCCESS, is_committed))
        drop_marks_of_success(*success);
    else if (const Json::Value *cut = firmware.installed_running(STATUS_SUCCESS, lacks_its_commit))
        reopen(*cut);
}

// The agent was cut after the last of its marks, and before it had deleted the tool's.
bool is_left_of_success(const firmware_jobs &firmware) {
    return file_exists(MIGRATE_FILE) && firmware.installed_running(STATUS_SUCCESS, is_committed);
}

void finish_not_installed(const firmware_jobs &firmware) {
    if (is_on_trial(firmware.running) && firmware.installed_running(STATUS_EXECUTED, any_of_them)) {
        complete_marks(firmware.running);
    } else if (is_left_of_success(firmware)) {
        drop_marks_of_success(*firmware.installed_running(STATUS_SUCCESS, is_committed));
    } else if (file_exists(STAGED_CONFIG.config) || file_exists(STAGED_CONFIG.hash)) {
        syslog(LOG_NOTICE, "no firmware is installed for the staged configuration: it is deleted");
        delete_staged_files();
        flush();
    }
}

void finish_cloud_upgrade(int running) {
    drop_marks_of_other_slot(running);
    const firmware_jobs firmware(running);
    const Json::Value *failed = firmware.installed_running(STATUS_FAILED, [&](const Json::Value &job) {
        return nothing_was_installed_after(job) && !firmware.has_younger(job);
    });
    if (failed)
        boot_other_slot(job_id_of(*failed));
    else if (file_exists(FIRMWARE_UPDATED_FILE))
        finish_installed(firmware);
    else
        finish_not_installed(firmware);
}

// --- An upgrade that was started on the device, whose slot does not run.

// FIRMWARE_UPDATED tells of another slot than the local upgrade's: it is of the cloud's, which was being verified
// when somebody started this one.
bool marks_are_of_the_cloud(int local_slot) {
    const int slot = slot_in_mark(FIRMWARE_UPDATED_FILE);
    return slot != NO_SLOT && slot != local_slot;
}

void drop_chosen_local_upgrade() {
    forget_migration();
    drop_local_upgrade();
}

// The staged files stay, though they may be the local upgrade's copy of the persistent configuration: the
// verification stages its job's configuration anew before it looks at them, and whatever ends it deletes them.
void leave_to_the_cloud(int slot, int running) {
    syslog(LOG_NOTICE, "slot %d of the local upgrade does not run: its mark is deleted", slot);
    drop_local_mark();
    finish_cloud_upgrade(running);
}

// Where the other slot does not boot, this one has to do, and its mark would make a later upgrade of the cloud a
// local one.
void go_back_from_local_upgrade() {
    if (boot_other_slot(ID_LOCAL_FW_UPGRADE) == attempt::GIVEN_UP)
        drop_local_upgrade();
}

void finish_unbooted_local_upgrade(int slot, int running) {
    if (marks_are_of_the_cloud(slot)) {
        leave_to_the_cloud(slot, running);
        return;
    }
    syslog(LOG_NOTICE, "slot %d of the local upgrade does not run: its marks are deleted", slot);
    drop_chosen_local_upgrade();
}

void finish_local_upgrade(int running) {
    const int slot = slot_in_mark(LOCAL_FW_UPGRADE_FILE);
    if (slot != NO_SLOT && slot != running) {
        finish_unbooted_local_upgrade(slot, running);
        return;
    }
    const std::string status = text_of(stored_job(ID_LOCAL_FW_UPGRADE), KEY_STATUS);
    if (slot == running && status == STATUS_FAILED) {
        go_back_from_local_upgrade();
    } else if (slot == running && status == STATUS_SUCCESS &&
               compare_with_saved(object_in(STAGED_CONFIG.config)) == comparison::SAME) {
        syslog(LOG_NOTICE, "the local upgrade is a success: its marks are deleted");
        drop_chosen_local_upgrade();
    } else {
        finish_open_local_upgrade(running);
    }
}

} // namespace

void finish_upgrade() {
    const int running = running_slot();
    if (file_exists(LOCAL_FW_UPGRADE_FILE))
        finish_local_upgrade(running);
    else
        finish_cloud_upgrade(running);
}
