// The number of active jobs, kept in the system database for the device's other services.
#pragma once

// Counts the names that a listing of the active job directory prints, whatever they are, and stores
// the count as "SYS_JOB_COUNT". Returns the count, or -1 on failure: then nothing is stored. A missing
// directory counts as 0.
int update_active_job_count();
