#include "tests/sweep/world.h"

#include "tests/fakes/clock.h"
#include "tests/fakes/files.h"
#include "tests/sweep/ledger.h"

#include <algorithm>
#include <set>
#include <utility>

namespace sweep {

namespace {

struct event {
    time_t at;
    std::string key;
    input what;
};

std::vector<event> pending;
cloud_manner cloud;
int reports = 0;
bool handling = false; // a message

const std::string REPORT_PREFIX = "v1/device/job/";

bool is_report(const std::string &topic) {
    static const std::string SUFFIX = "/ack";
    return topic.rfind(REPORT_PREFIX, 0) == 0 && topic.size() > SUFFIX.size() &&
           topic.compare(topic.size() - SUFFIX.size(), SUFFIX.size(), SUFFIX) == 0;
}

// The ledger's view of the state that the world's earlier acts have left in this process.
void replay_act(const input &done) {
    if (done.text == "network down" || done.text == "network up")
        done.act();
}

void expect_answers(const std::string &topic, const std::string &payload, time_t at,
                    const std::set<std::string> &done) {
    if (!is_report(topic))
        return;
    const Json::Value report = json(payload);
    const int nth = reports++;
    int copy = 0;
    for (const answer &each : cloud(nth, report)) {
        const std::string key = "answer " + std::to_string(nth) + "." + std::to_string(copy++);
        if (done.count(key) != 0)
            continue;
        const std::string job_id = report["params"]["jobId"].asString();
        const std::string text = R"({"jobId":")" + job_id + R"(","session":)" +
                                 std::to_string(report["session"].asInt64()) + R"(,"rc":)" +
                                 std::to_string(each.rc) + "}";
        pending.push_back({at + each.after, key, {0, text, REPORT_PREFIX + job_id + "/pub_ack", nullptr}});
    }
}

void take_report(const entry &change, const std::set<std::string> &done) {
    const size_t blank = change.text.find(' ');
    expect_answers(change.text.substr(0, blank), change.text.substr(blank + 1), change.at, done);
}

void deliver(const event &due) {
    const std::string text = due.what.topic.empty() ? due.what.text : due.what.topic + " " + due.what.text;
    write_ledger(entry_kind::INPUT, due.key, text);
    if (due.what.topic.empty()) {
        due.what.act();
        return;
    }
    fakes::mqtt().incoming.push_back({due.what.topic, due.what.text});
    handling = true;
}

} // namespace

void enter_world(const scenario &given) {
    cloud = given.cloud;
    const auto &history = read_ledger();
    std::set<std::string> done;
    for (const entry &each : history)
        if (each.kind == entry_kind::INPUT)
            done.insert(each.what);
    for (size_t i = 0; i < given.inputs.size(); i++) {
        const std::string key = "input " + std::to_string(i);
        if (done.count(key) != 0)
            replay_act(given.inputs[i]);
        else
            pending.push_back({START_TIME + given.inputs[i].at, key, given.inputs[i]});
    }
    for (const entry &each : history)
        if (each.kind == entry_kind::CHANGE && each.what == "send_message")
            take_report(each, done);
    fakes::mqtt().after_publish = [](const fakes::published_message &message) {
        expect_answers(message.topic, message.payload, message.at, {});
    };
}

void send_later(time_t seconds, const std::string &topic, const std::string &text) {
    pending.push_back({fakes::now() + seconds, "sent later", {0, text, topic, nullptr}});
}

bool step_world() {
    if (std::exchange(handling, false))
        write_ledger(entry_kind::HANDLED, "");
    std::stable_sort(pending.begin(), pending.end(),
                     [](const event &left, const event &right) { return left.at < right.at; });
    const size_t before = pending.size();
    bool can_take_message = !fakes::mqtt().connect_pending;
    for (size_t i = 0; i < pending.size() && pending[i].at <= fakes::now();) {
        const event due = pending[i];
        if (!due.what.topic.empty() && !can_take_message) {
            i++;
            continue;
        }
        can_take_message = can_take_message && due.what.topic.empty();
        pending.erase(pending.begin() + static_cast<std::ptrdiff_t>(i));
        deliver(due);
    }
    return pending.size() != before;
}

bool world_is_done() {
    return pending.empty();
}

} // namespace sweep
