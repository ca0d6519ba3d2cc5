#include "actions/dispatch.h"

#include "actions/command_job.h"
#include "actions/config_job.h"
#include "actions/device_commands.h"
#include "actions/firmware_job.h"
#include "config/apply.h"
#include "jobs/job_record.h"
#include "jobs/job_status.h"
#include "jobs/job_store.h"

#include <syslog.h>

namespace {

struct action_handler {
    const char *action;
    void (*run)(tessard &client, Json::Value &job);
};

// The check leaves "executed" when the candidate is in place.
void run_config_job(tessard &client, Json::Value &job) {
    execute_config_job(job);
    if (job.get(KEY_STATUS, "").asString() == STATUS_EXECUTED)
        cmd_apply(client, job, WITHOUT_FW_UPGRADE);
}

// Compared whole, in this order.
constexpr action_handler ACTIONS[] = {
    {ACTION_FW, [](tessard &, Json::Value &job) { execute_action_fw_install(job); }},
    {ACTION_CMD, [](tessard &, Json::Value &job) { execute_action_cmd(job); }},
    {ACTION_CFG, run_config_job},
    {ACTION_FAILSAFE_CONFIG,
     [](tessard &client, Json::Value &job) { cmd_apply(client, job, WITHOUT_FW_UPGRADE); }},
    {ACTION_POST_CONFIG, [](tessard &, Json::Value &job) { execute_action_cfgpush(job); }},
    {ACTION_XTRA, [](tessard &, Json::Value &job) { job_action_xtra(job); }},
};

} // namespace

void execute_job_action(tessard &client, Json::Value &job) {
    syslog(LOG_DEBUG, "executing jobId: %s", job_id_of(job).c_str());
    if (!job.isMember(KEY_ACTION))
        return;
    for (const action_handler &handler : ACTIONS) {
        if (job[KEY_ACTION] == handler.action) {
            handler.run(client, job);
            return;
        }
    }
    job[KEY_STATUS] = STATUS_FAILED;
    job[KEY_MSG] = "job contains no action property"; // sic: for an unknown action
    update_job_status(job, POST_STATUS);
}
