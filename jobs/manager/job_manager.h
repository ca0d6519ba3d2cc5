// The job manager: the second thread. Runs, resumes, re-reports, repairs and archives jobs.
#pragma once

#include "agent/client/tessard.h"

#include <string>

// The thread: the checks after a boot, then every second the reset button (device type 5) and every third
// second a pass. Never returns, lets no exception out of its routines.
void job_mgr_main(tessard &client);

// One pass over the active jobs, oldest first: finishes and re-reports finished ones, fails corrupt ones,
// starts or resumes at most one unfinished one. Nothing while a firmware, configuration or critical job
// runs. Runs on either thread, takes job_manager_mutex for each job. 0; -1 when the job list cannot be
// read. Never throws.
int process_jobs(tessard &client);

// Archives an acknowledged finished job and checks in; re-reports one that is not acknowledged. 0 when the
// job needs nothing more in this pass, non-zero when it is not finished. Takes job_manager_mutex, and
// job_record_mutex from its read to the archive or the report's write.
int process_completed_job(tessard &client, const std::string &job_id);

// Starts a received job; fails, verifies or resumes one found executed after a restart. Takes
// job_manager_mutex for as long as the action runs.
void process_active_job(tessard &client, const std::string &job_id);
