// Jobs, from their intake to the archive.
#include "tests/sweep/scenario.h"

#include "tests/sweep/names.h"

#include "tests/fakes/files.h"

namespace sweep {

namespace {

const std::string ACTIVE = ACTIVE_FOLDER;

constexpr const char *OFTEN_REFUSED = R"({"jobId": "9", "status": "failed", "ack": false,
                                          "ackId": 1699999999, "ackTs": 1699999999, "ack_attempts": 100})";

scenario with(scenario given, cloud_manner cloud) {
    given.cloud = std::move(cloud);
    return given;
}

scenario restless(scenario given, time_t seconds = 120) {
    given.restless_for = seconds;
    return given;
}

input plain_job(time_t at, const std::string &id, const std::string &rest) {
    return message(at, "v1/device/job/" + id + "/apply", R"({"jobId":")" + id + "\"" + rest + "}");
}

std::vector<scenario> scripts() {
    return {
        {"a job of an unknown action", {plain_job(5, "1", R"(,"action":"NONE")")}},
        {"a script that succeeds", {script_job(5, "77", "sleep 5\nexit 0")}},
        {"a script that fails", {script_job(5, "77", "sleep 5\nexit 3")}},
        {"a script that takes too long", {script_job(5, "77", "# MAX JOB TIME 10\nsleep 60")}},
        {"a script that reboots", {script_job(5, "77", "sleep 2\nreboot\nsleep 60")}},
        {"a script with a reboot after it", {script_job(5, "77", "sleep 2", R"({"reboot": true})")}},
        {"a script with its results", {script_job(5, "77", "echo done", R"({"postResults": true})")}},
        {"two queued", {script_job(5, "77", "sleep 5"), script_job(7, "78", "exit 1")}},
        {"a critical script", {script_job(5, "77", "# JOB PRIORITY CRITICAL\nsleep 5")}},
        {"a critical script among others",
         {script_job(5, "77", "sleep 8"), script_job(9, "78", "# JOB PRIORITY CRITICAL\nsleep 5")}},
    };
}

std::vector<scenario> acknowledgements() {
    const std::vector<input> one_script = {script_job(5, "77", "sleep 5")};
    return {
        with({"refused at first", one_script}, refuses_first(2)),
        with({"acknowledged late", one_script}, acknowledges_after(25)),
        with({"acknowledged at the wrong time", one_script}, acknowledges_after(6)),
        with({"acknowledged twice", one_script}, acknowledges_twice()),
        restless(with({"refused for ever", one_script}, refuses_first(1000))),
        with({"refused for the 101st time", {file(5, ACTIVE + "9", OFTEN_REFUSED)}}, refuses_first(1000)),
        restless(with({"never acknowledged", one_script}, stays_silent())),
        {"no network for a while", {network_down(4), script_job(5, "77", "sleep 5"), network_up(90)}},
    };
}

std::vector<scenario> deliveries() {
    return {
        {"delivered twice", {script_job(5, "77", "sleep 5"), script_job(8, "77", "sleep 5")}},
        {"delivered again after its end", {script_job(5, "77", "true"), script_job(40, "77", "exit 1")}},
        {"clear all", {script_job(5, "77", "sleep 30"), script_job(6, "78", "true"), clear_active_jobs(15)}},
        {"clear the running one",
         {script_job(5, "77", "sleep 30"), script_job(9, "78", "true"), clear_running_job(15)}},
        {"clear nothing", {clear_running_job(5), clear_active_jobs(6)}},
        {"a corrupt job file",
         {file(5, ACTIVE + "9", R"({"jobId": "9", "sta)"), script_job(5, "77", "true")}},
        {"a job file without status", {file(5, ACTIVE + "9", R"({"jobId": "9"})")}},
        {"full disk at the intake", {disk_full(4), script_job(5, "77", "true"), disk_free(60)}},
        {"full disk during the script", {script_job(5, "77", "sleep 5"), disk_full(9), disk_free(60)}},
        {"full disk from the intake on", {script_job(5, "77", "sleep 5"), disk_full(6), disk_free(60)}},
    };
}

std::vector<scenario> stallers() {
    return {
        {"a job without action", {plain_job(5, "1", ""), script_job(7, "77", "true")}},
        restless({"a file push", {plain_job(5, "1", R"(,"action":"CMD","value":"FILEPUSH","params":{})")}},
                 30),
    };
}

} // namespace

scenario_group script_scenarios() {
    return {
        "scripts",
        scripts(),
        {
            {"a critical script", SESSIONS, "one session for received",
             "A critical job is not stamped at its intake: all its reports bear the session it came with, "
             "mostly none."},
            {"a critical script", REPORTED, "archived as received",
             "It goes to the archive as soon as its script has ended, as it was stored before; nobody waits for an answer."},
            {"a critical script",
             NO_MARKER,
             "CRITICAL_JOB_EXECUTING",
             "Markers of an earlier life are neither read nor removed by an agent that starts again.",
             {restart::KILL}},
            {"a critical script", ONCE, "started its script 2 times",
             "Its record is stored as \"received\" while it runs: cut, it is an ordinary job that waits."},
            {"a critical script", CUT_SCRIPTS, "is a success", "The same: the second run ends well."},
        }};
}

scenario_group acknowledgement_scenarios() {
    return {"acknowledgements",
            acknowledgements(),
            {
                {"refused for ever", ARCHIVED, "is still active",
                 "A refusal is only counted when it is the 101st, and the count before it is never stored."},
                {"refused for ever",
                 NO_MARKER,
                 "FW_JOBID",
                 "The marker of a killed script goes when its job is archived.",
                 {restart::KILL}},
                {"never acknowledged", ARCHIVED, "is still active", "It is reported again until it is."},
                {"never acknowledged",
                 NO_MARKER,
                 "FW_JOBID",
                 "The marker of a killed script goes when its job is archived.",
                 {restart::KILL}},
                {"refused for the 101st time", REPORTED, "archived as failed",
                 "Given up: the job is archived without an acknowledgement."},
            }};
}

scenario_group delivery_scenarios() {
    return {"deliveries",
            deliveries(),
            {
                {"full disk", STORED, "was not stored",
                 "The intake does not look at the result of the write; the cloud hears nothing."},
                {"full disk", ONCE, "started its script",
                 "What cannot be stored did not happen: the job is still \"received\" at the next pass."},
                {"full disk", SESSIONS, "executed and received",
                 "A report goes out although its record could not be stored."},
            }};
}

scenario_group staller_scenarios() {
    return {
        "stallers",
        stallers(),
        {
            {"a job without action", ARCHIVED, "job 1 is still active",
             "Nobody knows what to do with it; it stays until it is cleared."},
            {"a job without action", ARCHIVED, "job 77 is still active",
             "The oldest unfinished job holds up all others."},
            {"a job without action",
             NO_MARKER,
             "FW_JOBID",
             "The marker of a killed script goes when its job is archived.",
             {restart::KILL}},
            {"a file push", NO_MARKER, "FW_JOBID", "It is there while the request is sent, again and again."},
            {"a file push", ARCHIVED, "job 1 is still active",
             "It ends with the answer of the service that does the work, and asks again until then."},
        }};
}

} // namespace sweep
