// The system-wide mark and the progress texts of a configuration apply.
//
// They stand in one JSON document, /var/volatile/config/apply.status, for people and for the other
// components of the router:
//   "in_progress"  true from set_config_apply_in_progress to clear_config_apply_in_progress
//   "reason"       the text of the latest set_config_apply_in_progress
//   "status"       the latest progress text; it stays after the end
//   "history"      the latest hundred texts of this apply, each {"time": seconds, "text": ...}
//
// Each apply wipes the history of the one before, and a reader may come late. So everything is also
// appended to /var/run/config-apply.events, a JSON object a line, before the document is written:
//   "event"        "begin", "text" or "end"; a begin while an apply is in progress is a "text"
//   "time"         seconds since 1970, with milliseconds
//   "text"         of a begin and of a text
// A reader who keeps the file open and follows its name misses nothing: a file that has grown long is
// unlinked at the begin of an apply, never cut or written over.
#include "host/cmd/paths.h"

#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <cerrno>
#include <chrono>
#include <cmath>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr Json::ArrayIndex HISTORY_LENGTH = 100;

constexpr off_t LONG_EVENTS = 256 * 1024;

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

void unlink_long_events() {
    struct stat events {};
    if (stat(conf::APPLY_EVENTS, &events) == 0 && events.st_size > LONG_EVENTS)
        unlink(conf::APPLY_EVENTS);
}

// One write a line, so that no reader sees lines mixed.
void append_event(const char *name, const char *text) {
    using std::chrono::duration;
    const double now = duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    Json::Value event;
    event["event"] = name;
    event["time"] = std::round(now * 1000) / 1000;
    if (text)
        event["text"] = text;

    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["precision"] = 3;
    builder["precisionType"] = "decimal";
    const std::string line = Json::writeString(builder, event) + "\n";
    const int file = open(conf::APPLY_EVENTS, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (file < 0)
        return;
    while (write(file, line.data(), line.size()) < 0 && errno == EINTR) {
    }
    close(file);
}

} // namespace

void set_config_apply_in_progress(const char *text) try {
    const std::lock_guard lock(status_mutex);
    Json::Value status = read_status();
    const bool begins = !is_in_progress(status);
    if (begins) {
        unlink_long_events();
        status["history"] = Json::Value(Json::arrayValue);
    }
    append_event(begins ? "begin" : "text", text ? text : "");
    status["in_progress"] = true;
    status["reason"] = text ? text : "";
    add_to_history(status, text ? text : "");
    write_json_file(conf::APPLY_STATUS, status);
} catch (...) {
}

void clear_config_apply_in_progress() try {
    const std::lock_guard lock(status_mutex);
    append_event("end", nullptr);
    Json::Value status = read_status();
    status["in_progress"] = false;
    write_json_file(conf::APPLY_STATUS, status);
} catch (...) {
}

void update_config_apply_status(const char *text) try {
    const std::lock_guard lock(status_mutex);
    append_event("text", text ? text : "");
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
