// Applies a candidate configuration: checks it, makes it the running one, lets the services pick it up, and
// commits it, at once or after the failsafe verification.
//
// Runs on the thread of the pass (or of the boot recovery), with job_manager_mutex held, and returns only
// when the configuration is committed or given up and the job's end has been reported.
#pragma once

#include "agent/client/tessard.h"

// after_fw_upgrade of cmd_apply.
inline constexpr bool AFTER_FW_UPGRADE = true;
inline constexpr bool WITHOUT_FW_UPGRADE = false;

// The candidate is "/var/volatile/config/config.new", or its persistent copy after a reboot. Sets the job's
// "status", "msg", "failsafe_enabled" and, when the candidate is not valid, "validation_result".
// after_fw_upgrade: the candidate came with a firmware: it is applied even if nothing changed, and every
// service restarts. While another apply runs, nothing happens. What a step throws fails the job; its end is
// reported, and flag and marks of the apply are cleared, all the same. Throws only what those last two throw: on a
// full memory.
void cmd_apply(tessard &client, Json::Value &job, bool after_fw_upgrade);

// Makes the candidate and its persistent copy equal (the copy wins), and flushes.
void sync_new_config();

// Deletes what a reboot would resume this apply from, and flushes.
void clear_config_job_files();
