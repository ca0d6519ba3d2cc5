// How far an apply is, and who is told of its end. Shared by the apply and the failsafe verification; runs on
// the thread of the apply.
#pragma once

#include "agent/client/tessard.h"

#include <string>

// Sets the job's "msg", and shows it as the progress of the apply.
void show_progress(Json::Value &job, const char *msg);

// post_status for update_job_status: the configuration that came with a firmware is not reported by itself.
int post_status_of_apply(const Json::Value &job);

// Publishes the job id on "v1/device/config/<path>/update" for every element of the change list, in order.
void publish_config_updates(tessard &client, const std::string &job_id, const Json::Value &changes);
