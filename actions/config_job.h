// Configuration jobs: checks what the cloud sent before anything is applied.
#pragma once

#include <json/json.h>

// Checks the configuration in "value" (hash, firmware version, difference from the running one, level) and
// writes it as the candidate. "status" is then "executed" and the caller applies it; "success" and "failed"
// are final and reported. An unreadable firmware version leaves the job as it was, unreported. Runs inside a
// pass, with job_manager_mutex held; takes job_file_mutex for the candidate's write. Never throws.
void execute_config_job(Json::Value &job);
