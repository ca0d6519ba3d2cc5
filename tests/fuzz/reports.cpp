#include "tests/fuzz/reports.h"

#include "jobs/job_record.h"
#include "tests/fakes/mqtt.h"
#include "tests/fuzz/arrivals.h"
#include "tests/fuzz/broken.h"

#include <string_view>
#include <unordered_set>

namespace fuzz {
namespace {

std::string session = "0";

bool is_reported(const std::string &status) {
    return status == STATUS_RECEIVED || status == STATUS_EXECUTED || status == STATUS_SUCCESS ||
           status == STATUS_FAILED;
}

void judge_status(const fakes::published_message &message) {
    const Json::Value &params = message.json["params"];
    const std::string id = text_of(params, KEY_JOB_ID);
    if (message.topic != "v1/device/job/" + id + "/ack")
        broken("a report on another job's topic: " + message.topic + " " + message.payload);
    if (!is_reported(text_of(params, KEY_STATUS)))
        broken("a report of a status that is not reported: " + message.payload);
    if (message.json["method"] != "updateJob")
        broken("a report without its method: " + message.payload);
    static const Json::StreamWriterBuilder builder = [] {
        Json::StreamWriterBuilder one_line;
        one_line["indentation"] = "";
        return one_line;
    }();
    session = Json::writeString(builder, message.json["session"]);
}

} // namespace

void forget_reports() {
    session = "0";
}

void take_report(const fakes::published_message &message) {
    static const std::unordered_set<std::string_view> REQUESTS = {
        "v1/device/cmd/checkin/apply",  "v1/device/config/publish/0",   "v1/device/cmd/cfgpush/apply",
        "v1/device/cmd/filepull/apply", "v1/device/cmd/filepush/apply",
    };
    const std::string_view topic = message.topic;
    if (topic.starts_with("v1/device/config/") && topic.ends_with("/update"))
        return; // its payload is the id alone
    if (message.json.isNull())
        broken("a publish that is no JSON: " + message.topic + " " + message.payload);
    if (topic.starts_with("v1/device/job/"))
        judge_status(message);
    else if (!REQUESTS.contains(topic))
        broken("a publish on a topic that is none of the agent's: " + message.topic);
}

std::string latest_session() {
    return session;
}

} // namespace fuzz
