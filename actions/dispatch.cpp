#include "actions/dispatch.h"

#include "actions/command_job.h"
#include "jobs/job_record.h"
#include "jobs/job_status.h"
#include "jobs/job_store.h"

#include <string_view>

#include <syslog.h>

namespace {

struct action_handler {
    std::string_view action;
    void (*run)(tessard &client, Json::Value &job);
};

// Compared whole, in this order. Firmware, configuration and device command jobs are not carried out yet:
// their actions are missing here and fail as unknown ones do.
constexpr action_handler ACTIONS[] = {
    {ACTION_CMD, [](tessard &, Json::Value &job) { execute_action_cmd(job); }},
};

} // namespace

void execute_job_action(tessard &client, Json::Value &job) {
    syslog(LOG_DEBUG, "executing jobId: %s", job_id_of(job).c_str());
    if (!job.isMember(KEY_ACTION))
        return;
    const std::string action = job[KEY_ACTION].asString();
    for (const action_handler &handler : ACTIONS) {
        if (handler.action == action) {
            handler.run(client, job);
            return;
        }
    }
    job[KEY_STATUS] = STATUS_FAILED;
    job[KEY_MSG] = "job contains no action property"; // sic: for an unknown action
    update_job_status(job, 1);
}
