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

scenario among_locks(scenario given) {
    given.needs_record_lock = true;
    return given;
}

input plain_job(time_t at, const std::string &id, const std::string &rest) {
    return message(at, "v1/device/job/" + id + "/apply", R"({"jobId":")" + id + "\"" + rest + "}");
}

const std::vector<job_end> SUCCEEDED = {archived("77", "success")};
const std::vector<job_end> FAILED = {archived("77", "failed")};

std::vector<scenario> scripts() {
    return {
        {"a job of an unknown action",
         {plain_job(5, "1", R"(,"action":"NONE")")},
         {archived("1", "failed", "job contains no action property")}},
        {"a script that succeeds", {script_job(5, "77", "sleep 5\nexit 0")}, SUCCEEDED},
        {"a script that fails", {script_job(5, "77", "sleep 5\nexit 3")}, FAILED},
        {"a script that takes too long", {script_job(5, "77", "# MAX JOB TIME 10\nsleep 60")}, FAILED},
        {"a script that reboots", {script_job(5, "77", "sleep 2\nreboot\nsleep 60")}, FAILED},
        {"a script with a reboot after it",
         {script_job(5, "77", "sleep 2", R"({"reboot": true})")},
         SUCCEEDED},
        {"a script with its results",
         {script_job(5, "77", "echo done", R"({"postResults": true})")},
         SUCCEEDED},
        {"two queued",
         {script_job(5, "77", "sleep 5"), script_job(7, "78", "exit 1")},
         {archived("77", "success"), archived("78", "failed")}},
        among_locks(
            {"passes on both threads",
             {script_job(5, "77", "sleep 5"), script_job(7, "78", "exit 1"), cloud_is_connected(6),
              cloud_is_connected(9), cloud_is_connected(14), cloud_is_connected(20), cloud_is_connected(26)},
             {archived("77", "success"), archived("78", "failed")}}),
        {"a critical script",
         {script_job(5, "77", "# JOB PRIORITY CRITICAL\nsleep 5")},
         {archived("77", "received")}},
        {"a critical script among others",
         {script_job(5, "77", "sleep 8"), script_job(9, "78", "# JOB PRIORITY CRITICAL\nsleep 5")},
         {archived("77", "success"), archived("78", "received")}},
    };
}

std::vector<scenario> acknowledgements() {
    const std::vector<input> one_script = {script_job(5, "77", "sleep 5")};
    return {
        with({"refused at first", one_script, SUCCEEDED}, refuses_first(2)),
        with({"acknowledged late", one_script, SUCCEEDED}, acknowledges_after(25)),
        with({"acknowledged at the wrong time", one_script, SUCCEEDED}, acknowledges_after(6)),
        with({"acknowledged twice", one_script, SUCCEEDED}, acknowledges_twice()),
        restless(with({"refused for ever", one_script, {active("77", "success")}}, refuses_first(1000))),
        with({"refused for the 101st time",
              {file(5, ACTIVE + "9", OFTEN_REFUSED)},
              {archived("9", "failed",
                        "exceeded max attempts to update with IOT. job will be FAILED and archived")}},
             refuses_first(1000)),
        restless(with({"never acknowledged", one_script, {active("77", "success")}}, stays_silent())),
        {"no network for a while",
         {network_down(4), script_job(5, "77", "sleep 5"), network_up(90)},
         SUCCEEDED},
    };
}

std::vector<scenario> deliveries() {
    return {
        {"delivered twice", {script_job(5, "77", "sleep 5"), script_job(8, "77", "sleep 5")}, SUCCEEDED},
        {"delivered again after its end",
         {script_job(5, "77", "true"), script_job(40, "77", "exit 1")},
         FAILED},
        {"clear all",
         {script_job(5, "77", "sleep 30"), script_job(6, "78", "true"), clear_active_jobs(15)},
         {archived("77", "failed"), gone("78")}},
        // Its id is long enough to be looked at.
        {"clear the running one",
         {script_job(5, "177", "sleep 30"), script_job(20, "178", "true"), clear_running_job(25)},
         {archived("177", "failed"), archived("178", "success")}},
        {"clear nothing", {clear_running_job(5), clear_active_jobs(6)}, {gone("77")}},
        {"a corrupt job file",
         {file(5, ACTIVE + "9", R"({"jobId": "9", "sta)"), script_job(5, "77", "true")},
         {archived("9", "failed"), archived("77", "success")}},
        {"a job file without status",
         {file(5, ACTIVE + "9", R"({"jobId": "9"})")},
         {archived("9", "failed")}},
        {"full disk at the intake", {disk_full(4), script_job(5, "77", "true"), disk_free(60)}, {gone("77")}},
        {"full disk during the script",
         {script_job(5, "77", "sleep 5"), disk_full(9), disk_free(60)},
         FAILED},
        {"full disk from the intake on",
         {script_job(5, "77", "sleep 5"), disk_full(6), disk_free(60)},
         FAILED},
    };
}

std::vector<scenario> stallers() {
    return {
        {"a job without action",
         {plain_job(5, "1", ""), script_job(7, "77", "true")},
         {active("1", "received"), active("77", "success")}},
        restless({"a file push",
                  {plain_job(5, "1", R"(,"action":"CMD","value":"FILEPUSH","params":{})")},
                  {active("1", "received")}},
                 30),
    };
}

} // namespace

scenario_group script_scenarios() {
    return {"scripts", scripts(), script_exceptions()};
}

scenario_group acknowledgement_scenarios() {
    return {"acknowledgements", acknowledgements(), acknowledgement_exceptions()};
}

scenario_group delivery_scenarios() {
    return {"deliveries", deliveries(), delivery_exceptions()};
}

scenario_group staller_scenarios() {
    return {"stallers", stallers(), staller_exceptions()};
}

} // namespace sweep
