// What must hold of the run without a cut.
#include "tests/sweep/invariants.h"

#include "tests/sweep/names.h"

#include "tests/fakes/files.h"
#include "tests/sweep/firmware.h"

#include <algorithm>

namespace sweep {

namespace {

using breakages = std::vector<std::string>;

constexpr int MOST_REFUSALS = 100;
constexpr char CHECKIN_TOPIC[] = "v1/device/cmd/checkin/apply ";

std::string told_of(const Json::Value &job) {
    const std::string msg = job["msg"].asString();
    return job["status"].asString() + (msg.empty() ? "" : ", \"" + msg + "\"");
}

// The job as it was found, in words.
std::string found_of(const std::string &id) {
    const bool is_active = exists(ACTIVE_FOLDER + id);
    const bool is_archived = exists(ARCHIVE_FOLDER + id);
    if (!is_active && !is_archived)
        return "gone";
    return (is_active ? "active: " : "archived: ") + told_of(is_active ? active_job(id) : archived_job(id)) +
           (is_active && is_archived ? ", and archived" : "");
}

std::string words_of(const job_end &end) {
    if (end.where == job_end::place::GONE)
        return "gone";
    return (end.where == job_end::place::ACTIVE ? "active: " : "archived: ") + end.status +
           (end.msg.empty() ? "" : ", \"" + end.msg + "\"");
}

breakages ends_as_it_says(const evidence &seen) {
    breakages broken;
    if (seen.given.ends.empty())
        broken.push_back("it does not say how it ends");
    for (const job_end &end : seen.given.ends)
        if (const std::string found = found_of(end.job_id); found != words_of(end))
            broken.push_back("job " + end.job_id + " is " + found + "; expected: " + words_of(end));
    for (const std::string folder : {ACTIVE_FOLDER, ARCHIVE_FOLDER})
        for (const std::string &id : names_in(folder))
            if (std::none_of(seen.given.ends.begin(), seen.given.ends.end(),
                             [&](const job_end &end) { return end.job_id == id; }))
                broken.push_back("job " + id + " is " + found_of(id) +
                                 ", and the scenario does not speak of it");
    if (!seen.given.slot.empty() && booted_slot() != seen.given.slot)
        broken.push_back("slot " + booted_slot() + " runs; expected: " + seen.given.slot);
    return broken;
}

// What the job manager archives is followed by one; a request of the device itself, a critical job, and one that was
// refused too often are not.
bool is_owed(const entry &each) {
    static const std::string ACTIVE = ACTIVE_FOLDER;
    if (each.kind != entry_kind::CHANGE || each.what != "rename" || each.text.rfind(ACTIVE, 0) != 0)
        return false;
    const std::string id = each.text.substr(ACTIVE.size(), each.text.find(' ') - ACTIVE.size());
    const Json::Value job = archived_job(id);
    return id != "FAILSAFE_CONFIG" && job["status"] != "received" &&
           job["ack_attempts"].asInt() <= MOST_REFUSALS;
}

breakages check_in_follows(const evidence &seen) {
    bool owed = false;
    for (const entry &each : seen.ledger) {
        owed |= is_owed(each);
        if (each.kind == entry_kind::CHANGE && each.what == "send_message" &&
            each.text.rfind(CHECKIN_TOPIC, 0) == 0)
            owed = false;
    }
    return owed ? breakages{"no check-in came after the last job"} : breakages();
}

} // namespace

std::vector<invariant> end_invariants() {
    return {
        {ENDS, moment::WITHOUT_CUT, ends_as_it_says},
        {CHECKS_IN, moment::WITHOUT_CUT, check_in_follows},
    };
}

} // namespace sweep
