// The records of the active job directory.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

// Every record that a file of its own name holds, oldest file first. Folders, what is no JSON object, and what
// bears the id of another file are left out.
std::vector<Json::Value> stored_jobs();

// Null when the active job directory has no such record.
Json::Value stored_job(const std::string &job_id);

bool is_final(const Json::Value &job);

// Asks for a system firmware, not for one of the modem: "radio", in "params" while the job waits.
bool is_firmware_job(const Json::Value &job);

// Writes the record and flushes it; says so in the log when that fails.
void store_job(const Json::Value &job);

// The same, and the job is where it was when it arrived: the queue goes by the times of its files, and behind a job
// that waits the agent takes an unverified firmware back. A cut leaves the former record or the new one in its place.
void store_job_in_its_place(const Json::Value &job);

// A "failed" that has no "ackId" would be repeated for ever and never posted: it becomes one that waits for its
// acknowledgement.
void stamp_untold_failures();
