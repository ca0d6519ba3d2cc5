// Command jobs: shell scripts, and file transfers that another service of the device carries out.
//
// All but execute_critical_cmd_job run inside a pass, with job_manager_mutex held.
#pragma once

#include <json/json.h>

// A job with action "CMD": runs a script, or publishes a file push or pull request. Marks the job as the one
// in progress for the time. Sets "status" and "msg" and reports them. Never throws but from what it does
// after a failure (a full memory).
void execute_action_cmd(Json::Value &job);

// A script job: reported "executed", run under its time limit, its output uploaded if asked for, reported
// "success" or "failed". May reboot the device. When the script file cannot be opened, the job stays
// "executed" and nothing more is reported.
void execute_action_cli_script(Json::Value &job);

// Sets the time limit of the next script from the marker "# MAX JOB TIME" in the script's first 255
// characters: 1 to 14400 seconds, else 600.
void set_max_job_time(const Json::Value &job);

// A critical script job, run at once on the MQTT thread inside the intake, without time limit and upload.
// Publishes each status directly, through iot_client. 0; -1 when the script file could not be opened; else the
// shell's status. Throws what the record's wrong types make jsoncpp throw; flag and marker are cleared.
int execute_critical_cmd_job(Json::Value &job);

// Writes the id of the job in progress into the FW_JOBID marker; null only removes it.
void set_jobid_flag(const char *job_id);
