// Firmware jobs: the router's own firmware, installed into the other root file system, and the modem's.
//
// All run inside a pass, with job_manager_mutex held.
#pragma once

#include "agent/client/tessard.h"

// A job with action "FW". params "radio" selects the modem. Marks the job as the one in progress for the time.
// Throws Json::Exception when "jobId" is no text.
void execute_action_fw_install(Json::Value &job);

// Starts the modem's upgrade tool in the background; the job stays "executed" and the modem's flag set. Never throws.
void qtel_dfota(Json::Value &job);

// Runs the upgrade tool. When it succeeds the device reboots into the new firmware and the job stays
// "executed", with the FW-job flag set; else the job is "failed" and reported. An exception leaves the job as it stands
// and clears the flag. Never throws.
void fw_upgrade(Json::Value &job);

// After the reboot: did the device change its root file system, and does the configuration that came with
// the job work? Ends the job, then reboots, into the former firmware where something failed. The final status
// is stored, not published. A job whose top-level "radio" is true is left alone.
void check_fw_upgrade_result(tessard &client, Json::Value &job);
