// What the sweep runs: inputs over time, and how the cloud answers.
#pragma once

#include "tests/fakes/mqtt.h"
#include "tests/sweep/crash.h"
#include "tests/sweep/exception.h"

#include <functional>
#include <string>
#include <vector>

namespace sweep {

// Something that the world does at a time (seconds after the device's first boot). With a topic: a
// message of the cloud, which comes when the agent is connected; else `act`.
struct input {
    time_t at;
    std::string text; // for people; the payload of a message
    std::string topic;
    std::function<void()> act;
    std::string content = ""; // of a file that is put there
};

// --- Inputs, as the tables of scenarios write them.

// A document on one line, as a payload or a file.
std::string compact(const Json::Value &value);

input message(time_t at, const std::string &topic, const std::string &payload);

// A script job. The body's lines may be: true, exit N, sleep N, echo TEXT, reboot, # comment.
input script_job(time_t at, const std::string &job_id, const std::string &body,
                 const std::string &more_params = "");
input clear_active_jobs(time_t at);
input clear_running_job(time_t at);
input cloud_is_connected(time_t at); // a pass over the jobs on the first thread
input file(time_t at, const std::string &path, const std::string &text);
input disk_full(time_t at);
input disk_free(time_t at);
input network_down(time_t at);
input network_up(time_t at);

// One answer of the cloud to a status report.
struct answer {
    time_t after; // seconds
    int rc;
};

// How the cloud answers the nth report (from 0) of a run.
using cloud_manner = std::function<std::vector<answer>(int nth, const Json::Value &report)>;

cloud_manner acknowledges_at_once();
cloud_manner acknowledges_after(time_t seconds);
cloud_manner acknowledges_twice();
cloud_manner refuses_first(int reports);
cloud_manner stays_silent();

// What has become of a job when the run without a cut has come to rest.
struct job_end {
    enum class place { ARCHIVED, ACTIVE, GONE };
    place where;
    std::string job_id;
    std::string status;
    std::string msg; // whole; empty: the record has none
};

job_end archived(const std::string &job_id, const std::string &status, const std::string &msg = "");
job_end active(const std::string &job_id, const std::string &status, const std::string &msg = "");
job_end gone(const std::string &job_id);

struct scenario {
    std::string name;
    std::vector<input> inputs;

    // The end that gives it its name, job by job; checked in the run without a cut. No other job is left then.
    std::vector<job_end> ends = {};

    // The firmware slot that runs then; empty: the ends tell.
    std::string slot = "";

    cloud_manner cloud = acknowledges_at_once();

    // Left out unless threads are held up at locks: two threads that read and write a record break it until they
    // exclude each other.
    bool needs_record_lock = false;

    // A device that writes job files in place: what the sweep must find.
    bool writes_in_place = false;

    // The restarts to try before every change.
    std::vector<restart> restarts = {restart::KILL, restart::REBOOT, restart::POWER_CUT, restart::TORN,
                                     restart::STALL};

    surroundings around = {};

    // The configuration in force at first, and those that the scenario asks for.
    std::string former = R"({"iot": {"vantrel_iot": {"enabled": true}}})";
    std::vector<std::string> candidates = {};

    // The configuration to which a way back leads; empty: the former one.
    std::string failsafe_copy = "";

    // What the device does otherwise than usual, in each life.
    std::function<void()> each_life = nullptr;

    // What holds at the end must hold after one more reboot too.
    bool boots_once_more = false;

    // Not zero: changes go on for ever (a report that is repeated), and a life is looked at after so
    // many seconds.
    time_t restless_for = 0;
};

struct scenario_group {
    std::string name;
    std::vector<scenario> scenarios;
    std::vector<known_exception> exceptions;
};

std::vector<known_exception> script_exceptions();
std::vector<known_exception> acknowledgement_exceptions();
std::vector<known_exception> delivery_exceptions();
std::vector<known_exception> staller_exceptions();
std::vector<known_exception> config_exceptions();
std::vector<known_exception> failsafe_exceptions();
std::vector<known_exception> upgrade_exceptions();
std::vector<known_exception> other_firmware_exceptions();

scenario_group script_scenarios();
scenario_group acknowledgement_scenarios();
scenario_group delivery_scenarios();
scenario_group staller_scenarios();
scenario_group config_scenarios();
scenario_group failsafe_scenarios();
scenario_group upgrade_scenarios();
scenario_group other_firmware_scenarios();

} // namespace sweep
