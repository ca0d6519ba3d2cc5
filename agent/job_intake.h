// Job intake: turns a job message into a job file, or clears jobs, or runs a critical job at once.
//
// All run on the main thread inside the message hook, with the client's message_mutex held. The clears
// delete job files without any lock of the job manager; job_record_mutex is held for the deletion alone.
#pragma once

#include "agent/client/tessard.h"

#include <string>

// v1/device/job/<id>/apply: a job, or one of the reserved ids "CLEAR_ACTIVE_JOBS" and
// "CLEAR_RUNNING_JOB", whose payload is not read. The id of the topic (at most 63 characters) serves the
// reserved ids and the log; the job file is named by the payload's "jobId". Always 0. Throws
// Json::Exception on a payload that is JSON but no object, or whose "jobId" is no text.
int job_apply(tessard &client, const mosquitto_message *message);

// Stamps a job as received and stores it, over a stored one of the same id. A job without a usable
// "jobId" is dropped. Returns -1 in every case. Never throws.
int new_job_file(Json::Value &job);

// A command job that carries a script. Members of another type count as missing. Never throws.
bool is_script_cmd_job(const Json::Value &job);

// A script command job whose script begins with the priority marker.
bool check_cmd_job_priority_is_critical(const Json::Value &job);

// Fails every active job, or the oldest one, and deletes its file. A file that holds no JSON object stays.
void clear_active_jobs();
void clear_running_job();

// Stops the job's script, reports "failed" once, deletes the job file and the FW_JOBID marker.
void force_fail_job(const std::string &path);
