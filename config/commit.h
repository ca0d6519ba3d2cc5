// Making a configuration permanent, announcing it, showing how far it is, and clearing its candidates. Shared
// by the apply and the failsafe verification; runs on the thread of the apply.
#pragma once

#include "agent/tessard.h"

#include <string>

// The running configuration becomes the one the device boots with; flushed.
void commit_running_config();

// Publishes the job id on "v1/device/config/<path>/update" for every element of the change list, in order.
void publish_config_updates(tessard &client, const std::string &job_id, const Json::Value &changes);

// Deletes the candidate, its hash and its persistent copy.
void delete_new_config_files();

// Deletes the failsafe timer and the mark of an uncommitted change.
void clear_failsafe_markers();

// Sets the job's "msg", and shows it as the progress of the apply.
void show_progress(Json::Value &job, const char *msg);

// post_status for update_job_status: the configuration that came with a firmware is not reported by itself.
int post_status_of_apply(const Json::Value &job);
