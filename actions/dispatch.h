// Chooses what a job does by its "action".
#pragma once

#include "agent/client/tessard.h"

// Runs the action, which sets the job's "status" and "msg" and reports them. An unknown action fails the
// job; a job without "action" is left as it is. Runs on the job manager thread (or on the MQTT thread, in a
// pass that an update started), with job_manager_mutex held, for as long as the action takes.
// Throws Json::Exception when "jobId" is no text.
void execute_job_action(tessard &client, Json::Value &job);
