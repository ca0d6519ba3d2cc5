// The system-wide mark and the progress texts of a configuration apply.
//
// They stand in one JSON document, /var/volatile/config/apply.status, for people and for the other
// components of the router:
//   "in_progress"  true from set_config_apply_in_progress to clear_config_apply_in_progress
//   "reason"       the text of the latest set_config_apply_in_progress
//   "status"       the latest progress text; it stays after the end
//   "history"      the latest hundred texts of this apply, each {"time": seconds, "text": ...}
#include "host/cmd/paths.h"

#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <ctime>
#include <mutex>

namespace {

constexpr Json::ArrayIndex HISTORY_LENGTH = 100;

std::mutex status_mutex; // one writer at a time between reading and writing the document

Json::Value read_status() {
    Json::Value status;
    if (read_json_file(conf::APPLY_STATUS, status) != 0 || !status.isObject())
        status = Json::Value(Json::objectValue);
    return status;
}

bool is_in_progress(const Json::Value &status) {
    bool in_progress = false;
    config_get_bool(status, &in_progress, "in_progress");
    return in_progress;
}

void add_to_history(Json::Value &status, const char *text) {
    Json::Value entry;
    entry["time"] = static_cast<Json::Int64>(time(nullptr));
    entry["text"] = text;

    Json::Value &history = status["history"];
    if (!history.isArray())
        history = Json::Value(Json::arrayValue);
    Json::Value removed;
    while (history.size() >= HISTORY_LENGTH)
        history.removeIndex(0, &removed);
    history.append(entry);
}

} // namespace

void set_config_apply_in_progress(const char *text) try {
    const std::lock_guard lock(status_mutex);
    Json::Value status = read_status();
    if (!is_in_progress(status))
        status["history"] = Json::Value(Json::arrayValue);
    status["in_progress"] = true;
    status["reason"] = text ? text : "";
    add_to_history(status, text ? text : "");
    write_json_file(conf::APPLY_STATUS, status);
} catch (...) {
}

void clear_config_apply_in_progress() try {
    const std::lock_guard lock(status_mutex);
    Json::Value status = read_status();
    status["in_progress"] = false;
    write_json_file(conf::APPLY_STATUS, status);
} catch (...) {
}

void update_config_apply_status(const char *text) try {
    const std::lock_guard lock(status_mutex);
    Json::Value status = read_status();
    status["status"] = text ? text : "";
    add_to_history(status, text ? text : "");
    write_json_file(conf::APPLY_STATUS, status);
} catch (...) {
}

bool iot_job_in_progress() {
    for (const char *marker : {conf::FW_JOBID, conf::FW_JOB_EXECUTING, conf::CONFIG_JOB_EXECUTING,
                               conf::RADIOFW_JOB_EXECUTING, conf::CRITICAL_JOB_EXECUTING})
        if (file_exists(marker))
            return true;
    return false;
}
