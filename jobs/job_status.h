// The status protocol: records a job's status, reports it to the cloud, repeats it until it is
// acknowledged. Runs on both threads.
#pragma once

#include "agent/client/tessard.h"
#include "jobs/job_store.h"

#include <atomic>
#include <ctime>

// The one client, through which everyone publishes; null until the start-up has made it. Who finds it
// null publishes nothing.
extern std::atomic<tessard *> iot_client;

// Counts the publishes of statuses, check-ins and configurations; starts at 1000. Its address goes to
// send_message, so it stays a plain int; it is incremented through std::atomic_ref.
extern int status_message_id;

// Increments status_message_id, just before a publish, and returns its address.
int *next_status_message_id();

// post_status of update_job_status.
inline constexpr int POST_STATUS = 1;
inline constexpr int STORE_ONLY = 0;

// Records the status that the record bears ("received", "executed", "success" and "failed" must be
// acknowledged, any other not) in the record and its file, and publishes it when post_status is not
// zero, then waits 2 seconds. Called with the stored status again, it only repeats the report, at most every
// 20 seconds in the whole process, while it is not acknowledged. "FAILSAFE_CONFIG" is never published.
// Takes job_record_mutex from its look at the stored status to the end of the write. Never throws.
void update_job_status(Json::Value &job, int post_status);

// The same for a caller that has read the job file with job_record_mutex held. Releases it before the publish; a
// call that publishes nothing may leave that to the caller.
void update_job_status(Json::Value &job, int post_status, record_lock &record);

// Gives the record's status a session of its own, which the cloud has not acknowledged: "ack" false, "ackId" and
// "ackTs" now (seconds since the epoch). For an end that is stored by other means than update_job_status, which
// does it itself: a later pass reports it, and no answer to an earlier status acknowledges it. Logs, stores and
// publishes nothing.
void stamp_status(Json::Value &job, time_t now = time(nullptr));

// Publishes one report of the record's status when the cloud's host answers a ping; else nothing.
// Throws Json::Exception on a record that is no object.
void send_job_status(tessard &client, const Json::Value &job);

// The cloud's host is configured and answers a ping.
bool iot_network_check();
