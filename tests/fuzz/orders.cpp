// How the text of an input is read: see play.h.
#include "tests/fuzz/play.h"

#include "jobs/job_store.h"
#include "tests/fakes/clock.h"
#include "tests/fakes/device.h"
#include "tests/fakes/files.h"
#include "tests/fuzz/arrivals.h"
#include "tests/fuzz/commands.h"
#include "tests/fuzz/failures.h"
#include "tests/fuzz/reports.h"

#include <algorithm>
#include <charconv>
#include <map>

namespace fuzz {
namespace {

constexpr int MOST_ORDERS = 40;
constexpr int MOST_PASSES = 10;

// What an input may put on the device, by the names that it has for it.
const std::map<std::string_view, const char *> PLACES = {
    {"active-copy", "/var/data/orv/ACTIVE_JOB"},
    {"new", "/var/volatile/config/config.new"},
    {"new-copy", "/var/data/orv/config.new"},
    {"failsafe", "/var/data/orv/config.failsafe"},
    {"staged", "/var/data/orv/config.staged"},
    {"staged-hash", "/var/data/orv/config.staged.hash"},
    {"updated", "/var/data/orv/FIRMWARE_UPDATED"},
    {"local", "/var/data/orv/LOCAL_FW_UPGRADE"},
    {"slot2", "/var/data/orv/ROOTFS2"},
    {"timer", "/var/data/orv/FAILSAFE_TIMER"},
    {"dialer", "/var/run/qtel-mgr.pid"},
    {"local-job", "/var/data/orv/vantrel_iot/jobs/active/LOCAL_FW_UPGRADE"},
};

Json::Value parsed(const std::string &text) try { return json(text); } catch (const std::exception &) {
    return {};
}

long number(std::string_view text, long fallback) {
    long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() ? value : fallback;
}

// What stands before the first mark, and after it.
std::pair<std::string_view, std::string_view> split(std::string_view text, char mark) {
    const size_t at = text.find(mark);
    return at == text.npos ? std::pair{text, std::string_view()}
                           : std::pair{text.substr(0, at), text.substr(at + 1)};
}

void replace_all(std::string &text, const std::string &from, const std::string &to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
}

// The agent itself never stored a job without an id, or with one that is no name.
bool is_of_the_agent(const Json::Value &job) try {
    return !job.isObject() || has_usable_job_id(job);
} catch (const Json::Exception &) {
    return false;
}

} // namespace

std::string play::filled(std::string_view text) const {
    std::string whole(text);
    replace_all(whole, "$SESSION", latest_session());
    replace_all(whole, "$NOW", std::to_string(fakes::now()));
    return whole;
}

void play::put_file(std::string_view name, const std::string &content) {
    const auto place = PLACES.find(name);
    const Json::Value job = parsed(content);
    if (place == PLACES.end() || !is_of_the_agent(job))
        return;
    arrived().take_job(job);
    fakes::write_all(place->second, content);
}

void play::obey_one(std::string_view name, std::string_view argument, std::string_view rest) {
    if (name == "topic")
        deliver(std::string(argument), filled(rest));
    else if (name == "pass")
        for (long left = std::min<long>(number(argument, 1), MOST_PASSES); left > 0 && !over; --left) {
            wait(3);
            pass();
        }
    else if (name == "wait")
        wait(number(argument, 1));
    else if (name == "count")
        count_jobs();
    else if (name == "boot")
        boot();
    else if (name == "status")
        shell().next_status = static_cast<int>(number(argument, 1) & 0xff);
    else if (name == "fail")
        let_fail(std::string(argument));
    else if (name == "work")
        let_all_work();
    else if (name == "device")
        fakes::device().device_type = static_cast<int>(number(argument, 1));
    else if (name == "file")
        put_file(argument, filled(rest));
    else
        over = true;
}

void play::obey(std::string_view orders) {
    for (int count = 0; count < MOST_ORDERS && !over && orders.starts_with('@'); ++count) {
        const size_t next = orders.find("\n@");
        const std::string_view one = orders.substr(1, next == orders.npos ? next : next - 1);
        const auto [line, rest] = split(one, '\n');
        const auto [name, argument] = split(line, ' ');
        obey_one(name, argument, rest);
        if (next == orders.npos)
            return;
        orders.remove_prefix(next + 1);
    }
}

} // namespace fuzz
