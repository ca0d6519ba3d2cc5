// The request to abort a running configuration apply.
//
// request_abort runs on the main thread inside the message hook; the checks run on the thread of the
// apply, normally the job manager's. They share client.abort_request_time, which is not kept across restarts.
#pragma once

#include "agent/client/tessard.h"

// Records the time of the request.
void request_abort(tessard &client);

// True when the request came strictly later than the job's "timestamp" (its intake), both in whole
// seconds. Only a job with action "FAILSAFE_CONFIG" can be aborted.
bool check_abort(tessard &client, const Json::Value &job);

// Forgets the request.
void clear_abort_request(tessard &client);
