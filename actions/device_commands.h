// Jobs that one of the device's own services carries out: the agent asks, the service's answer ends the job.
//
// All run inside a pass, with job_manager_mutex held.
#pragma once

#include <json/json.h>

// A job with action "POST_CONFIG": reports it "executed" and asks the configuration service to push "value".
void execute_action_cfgpush(Json::Value &job);

// A job with action "XTRA": stores it "executed", unreported, and asks the transfer service to fetch the
// modem's satellite assistance data.
void job_action_xtra(Json::Value &job);
