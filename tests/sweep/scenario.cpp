#include "tests/sweep/scenario.h"

#include "tests/fakes/device.h"
#include "tests/fakes/files.h"

namespace sweep {

std::string compact(const Json::Value &value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

input message(time_t at, const std::string &topic, const std::string &payload) {
    return {at, payload, topic, nullptr};
}

input script_job(time_t at, const std::string &job_id, const std::string &body,
                 const std::string &more_params) {
    Json::Value job;
    job["jobId"] = job_id;
    job["action"] = "CMD";
    job["value"] = "SCRIPT";
    job["params"] = more_params.empty() ? Json::Value(Json::objectValue) : json(more_params);
    job["params"]["script"] = body;
    Json::StreamWriterBuilder compact;
    compact["indentation"] = "";
    return message(at, "v1/device/job/" + job_id + "/apply", Json::writeString(compact, job));
}

input clear_active_jobs(time_t at) {
    return message(at, "v1/device/job/CLEAR_ACTIVE_JOBS/apply", "");
}

input clear_running_job(time_t at) {
    return message(at, "v1/device/job/CLEAR_RUNNING_JOB/apply", "");
}

input cloud_is_connected(time_t at) {
    return message(at, "v1/device/job/all/update", R"({"connected":true})");
}

input file(time_t at, const std::string &path, const std::string &text) {
    return {at, "file " + path, "", [path, text] { put_file(path, text); }, text};
}

input disk_full(time_t at) {
    return {at, "disk full", "", fill_disk};
}

input disk_free(time_t at) {
    return {at, "disk free", "", free_disk};
}

input network_down(time_t at) {
    return {at, "network down", "", [] { fakes::device().ping_result = -1; }};
}

input network_up(time_t at) {
    return {at, "network up", "", [] { fakes::device().ping_result = 0; }};
}

job_end archived(const std::string &job_id, const std::string &status, const std::string &msg) {
    return {job_end::place::ARCHIVED, job_id, status, msg};
}

job_end active(const std::string &job_id, const std::string &status, const std::string &msg) {
    return {job_end::place::ACTIVE, job_id, status, msg};
}

job_end gone(const std::string &job_id) {
    return {job_end::place::GONE, job_id, "", ""};
}

cloud_manner acknowledges_at_once() {
    return acknowledges_after(1);
}

cloud_manner acknowledges_after(time_t seconds) {
    return [seconds](int, const Json::Value &) { return std::vector<answer>{{seconds, 200}}; };
}

cloud_manner acknowledges_twice() {
    return [](int, const Json::Value &) { return std::vector<answer>{{1, 200}, {4, 200}}; };
}

cloud_manner refuses_first(int reports) {
    return [reports](int nth, const Json::Value &) {
        return std::vector<answer>{{1, nth < reports ? 500 : 200}};
    };
}

cloud_manner stays_silent() {
    return [](int, const Json::Value &) { return std::vector<answer>(); };
}

} // namespace sweep
