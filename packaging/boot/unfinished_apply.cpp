#include "packaging/boot/unfinished_apply.h"

#include "config/config_files.h"
#include "jobs/job_record.h"
#include "jobs/job_store.h"
#include "jobs/markers.h"
#include "packaging/boot/files.h"
#include "packaging/boot/stored_jobs.h"
#include "platform/vantrel.h"

#include <syslog.h>

namespace {

// A success has been committed. A failure has not: the device boots with the former configuration, or with the
// failsafe one where that is back already, which may be the very one that was sent.
bool boots_with_what_the_end_says(const std::string &status) {
    const comparison with_candidate = compare_with_saved(object_in(NEW_CONFIG_COPY));
    if (status == STATUS_SUCCESS)
        return with_candidate == comparison::SAME;
    if (with_candidate != comparison::SAME)
        return with_candidate == comparison::OTHER;
    return compare_with_saved(object_in(FAILSAFE_FILES.config)) == comparison::SAME;
}

bool forget_apply() {
    if (!delete_those({NEW_CONFIG_COPY, ACTIVE_JOB_COPY, FAILSAFE_TIMER_FILE}))
        return false;
    flush();
    return true;
}

void finish_resumable_apply(const Json::Value &copy) {
    const std::string job_id = text_of(copy, KEY_JOB_ID);
    const Json::Value job = stored_job(job_id);
    const std::string status = text_of(job, KEY_STATUS);
    if (!is_final(job) || !boots_with_what_the_end_says(status))
        return; // the agent resumes it
    syslog(LOG_NOTICE, "the apply of job %s had ended as %s: it is not resumed", job_id.c_str(),
           status.c_str());
    forget_apply();
}

void finish_unfinished_apply() {
    const Json::Value copy = object_in(ACTIVE_JOB_COPY);
    if (copy.isObject() && file_exists(NEW_CONFIG_COPY)) {
        finish_resumable_apply(copy);
        return;
    }
    if (forget_apply())
        syslog(LOG_NOTICE, "an unfinished apply has %s: what is left of it is deleted",
               copy.isObject() ? "no candidate" : "no readable job");
}

// The end of any apply deletes it; without its upgrade it would be told, or hold up the queue.
void forget_record_of_local_upgrade() {
    if (file_exists(LOCAL_FW_UPGRADE_FILE) || file_exists(ACTIVE_JOB_COPY) ||
        text_of(stored_job(ID_LOCAL_FW_UPGRADE), KEY_SOURCE) != "local_fwupgrade")
        return;
    delete_those({active_job_path(ID_LOCAL_FW_UPGRADE).c_str()});
    flush();
    syslog(LOG_NOTICE, "the record of a local upgrade that is over is deleted");
}

} // namespace

void finish_apply() {
    finish_unfinished_apply();
    forget_record_of_local_upgrade();
}
