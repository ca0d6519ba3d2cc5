// Failsafe verification: a new configuration is committed only after the device has reached the network
// with it; else the failsafe configuration comes back.
//
// Runs inside the apply and blocks it for up to the period (minutes) and a minute for the modem manager.
#pragma once

#include "agent/client/tessard.h"

// settings: "system.failsafe", with "timer" (minutes, 5 when missing) and "destination_ip" (the cloud's host
// when missing). Waits for the modem manager's restart and the cellular connection where the changes
// concern them, then for two connection tests in a row. Ends in failsafe_success or failsafe_failure; without a
// destination, or a timer file, the job only becomes "failed" and the configuration stays, uncommitted.
void failsafe_verify(tessard &client, const Json::Value &settings, const Json::Value &changes,
                     Json::Value &job);

// Stores the span of a verification; start in seconds since the epoch. 0 ok.
int write_failsafe_timer(time_t start_time, int period_minutes);

// Ends the job, reports it, and commits the running configuration, or restores the failsafe one and restarts
// network, dialer and Wi-Fi. A job with action "FW" is not reported here.
void failsafe_success(Json::Value &job);
void failsafe_failure(Json::Value &job);

// Writes the job's result into its job file: "status", and "cfg_verified" where the file has it. The device's
// own configuration job has none. flush: wait until it is on persistent storage. Takes job_record_mutex from its read
// to its write.
void record_failsafe_result(const Json::Value &job, bool flush);
