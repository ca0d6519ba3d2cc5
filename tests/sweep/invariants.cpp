#include "tests/sweep/invariants.h"

#include "tests/sweep/names.h"

#include "tests/fakes/files.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <set>
#include <stdexcept>

namespace sweep {

namespace {

using breakages = std::vector<std::string>;

const std::string ACTIVE = ACTIVE_FOLDER;
const std::string ARCHIVE = ARCHIVE_FOLDER;

Json::Value json_or_null(const std::string &text) {
    try {
        return json(text);
    } catch (const std::runtime_error &) {
        return {};
    }
}

bool is_final(const std::string &status) {
    return status == "success" || status == "failed";
}

// --- Reading the ledger.

struct report {
    std::string job_id;
    std::string status;
    long long session = 0;
};

std::optional<report> report_in(const entry &each) {
    const size_t blank = each.text.find(' ');
    if (each.kind != entry_kind::CHANGE || each.what != "send_message" ||
        each.text.rfind("v1/device/job/", 0) != 0)
        return std::nullopt;
    const Json::Value message = json(each.text.substr(blank + 1));
    return report{message["params"]["jobId"].asString(), message["params"]["status"].asString(),
                  message["session"].asInt64()};
}

std::vector<report> reports_of(const evidence &seen) {
    std::vector<report> all;
    for (const entry &each : seen.ledger)
        if (const auto found = report_in(each))
            all.push_back(*found);
    return all;
}

bool is_lost_record(const entry &each) {
    return each.kind == entry_kind::LOST && each.text == "record";
}

// Not those that a power cut has taken while their message was being handled.
std::set<std::string> stored_jobs(const evidence &seen) {
    std::set<std::string> ids;
    std::set<std::string> not_taken_yet;
    for (const entry &each : seen.ledger) {
        if (each.kind == entry_kind::STORED && ids.insert(each.what).second)
            not_taken_yet.insert(each.what);
        else if (each.kind == entry_kind::HANDLED)
            not_taken_yet.clear();
        else if (is_lost_record(each) && not_taken_yet.count(each.what) != 0)
            ids.erase(each.what);
    }
    return ids;
}

bool is_message_with(const entry &each, const std::string &part) {
    return each.kind == entry_kind::INPUT && each.text.find(part) != std::string::npos;
}

bool was_cleared(const evidence &seen) {
    return std::any_of(seen.ledger.begin(), seen.ledger.end(), [](const entry &each) {
        return is_message_with(each, "/CLEAR_ACTIVE_JOBS/") || is_message_with(each, "/CLEAR_RUNNING_JOB/");
    });
}

// Before the job went to the archive for the last time.
bool was_acknowledged(const evidence &seen, const std::string &job_id, long long session) {
    const std::string text = "\"jobId\":\"" + job_id + "\",\"session\":" + std::to_string(session);
    bool acknowledged = false;
    bool at_last = false;
    for (const entry &each : seen.ledger) {
        acknowledged |= is_message_with(each, text) && is_message_with(each, "\"rc\":200");
        if (each.kind == entry_kind::CHANGE && each.what == "rename" &&
            each.text.rfind(ACTIVE + job_id + " ", 0) == 0)
            at_last = acknowledged;
    }
    return at_last;
}

// How often the job was taken in: stored as new, or run at once because it is critical.
long intakes_of(const evidence &seen, const std::string &job_id) {
    std::set<Json::Value> intake_times;
    long critical = 0;
    for (const entry &each : seen.ledger) {
        if (each.kind == entry_kind::STORED && each.what == job_id) {
            const Json::Value job = json(each.text);
            if (job["status"] == "received" && job.isMember("timestamp"))
                intake_times.insert(job["timestamp"]);
        }
        if (is_message_with(each, "/" + job_id + "/apply") && is_message_with(each, "PRIORITY CRITICAL"))
            critical++;
    }
    return static_cast<long>(intake_times.size()) + critical;
}

long scripts_of(const evidence &seen, const std::string &job_id, const std::string &event) {
    return std::count_if(seen.ledger.begin(), seen.ledger.end(), [&](const entry &each) {
        return each.kind == entry_kind::SCRIPT && each.what == job_id && each.text == event;
    });
}

std::set<std::string> jobs_with_scripts(const evidence &seen) {
    std::set<std::string> ids;
    for (const entry &each : seen.ledger)
        if (each.kind == entry_kind::SCRIPT)
            ids.insert(each.what);
    return ids;
}

// --- The invariants.

bool world_put(const evidence &seen, const std::string &path) {
    return std::any_of(seen.ledger.begin(), seen.ledger.end(), [&](const entry &each) {
        return each.kind == entry_kind::INPUT && each.text == "file " + path;
    });
}

// What a scenario puts into the folder may be broken until the agent has come to rest.
breakages job_files_are_whole(const evidence &seen) {
    breakages broken;
    for (const std::string &folder : {ACTIVE, ARCHIVE}) {
        for (const std::string &name : names_in(folder)) {
            const Json::Value job = file_json(folder + name);
            const bool whole = job.isObject() && job["jobId"] == name;
            if (!whole && !(seen.when == moment::AT_CUT && world_put(seen, folder + name)))
                broken.push_back(folder + name + " holds: " + file_text(folder + name).substr(0, 80));
        }
    }
    return broken;
}

// The job that a message brings; empty when it brings none.
std::string job_in(const entry &each) {
    const size_t blank = each.text.find(' ');
    if (each.kind != entry_kind::INPUT || blank == std::string::npos ||
        each.text.find("/apply ") == std::string::npos)
        return "";
    const Json::Value job = json_or_null(each.text.substr(blank + 1));
    return job.isMember("action") ? job["jobId"].asString() : "";
}

// A message that is being handled when the process ends is gone with it.
breakages arrived_jobs_are_stored(const evidence &seen) {
    breakages broken;
    std::set<std::string> active;
    std::string arrived;
    for (const entry &each : seen.ledger) {
        if (const std::string id = job_in(each); !id.empty())
            arrived = id;
        else if (each.kind == entry_kind::STORED || (each.kind == entry_kind::LOST && each.text == "move"))
            active.insert(each.what);
        else if (each.kind == entry_kind::CHANGE && each.what == "rename" && each.text.rfind(ACTIVE, 0) == 0)
            active.erase(each.text.substr(ACTIVE.size(), each.text.find(' ') - ACTIVE.size()));
        else if (each.kind == entry_kind::BOOT)
            arrived.clear();
        if (each.kind != entry_kind::HANDLED)
            continue;
        const bool critical = scripts_of(seen, arrived, "started") != 0;
        if (!arrived.empty() && active.count(arrived) == 0 && !critical)
            broken.push_back("job " + arrived + " arrived and was not stored");
        arrived.clear();
    }
    return broken;
}

breakages stored_jobs_are_archived(const evidence &seen) {
    breakages broken;
    for (const std::string &id : stored_jobs(seen)) {
        const bool active = exists(ACTIVE + id);
        const bool archived = exists(ARCHIVE + id);
        if (active)
            broken.push_back("job " + id + " is still active: " + active_job(id)["status"].asString() +
                             (archived ? ", and archived" : ""));
        else if (!archived && !was_cleared(seen))
            broken.push_back("job " + id + " is lost");
    }
    return broken;
}

breakages scripts_start_once(const evidence &seen) {
    breakages broken;
    for (const std::string &id : jobs_with_scripts(seen)) {
        const long started = scripts_of(seen, id, "started");
        if (started > intakes_of(seen, id))
            broken.push_back("job " + id + " started its script more than once");
    }
    return broken;
}

breakages cut_scripts_fail(const evidence &seen) {
    breakages broken;
    for (const std::string &id : jobs_with_scripts(seen)) {
        const bool cut =
            scripts_of(seen, id, "started") > scripts_of(seen, id, "ended") + scripts_of(seen, id, "killed");
        if (cut && archived_job(id)["status"] == "success")
            broken.push_back("job " + id + " was cut in its script and is a success");
    }
    return broken;
}

breakages sessions_are_unique(const evidence &seen) {
    breakages broken;
    std::map<std::pair<std::string, long long>, std::string> status_of;
    for (const report &each : reports_of(seen)) {
        const auto known = status_of.emplace(std::pair(each.job_id, each.session), each.status);
        if (known.first->second != each.status)
            broken.push_back("job " + each.job_id + ": one session for " + known.first->second + " and " +
                             each.status);
    }
    return broken;
}

// A new intake of the same id begins anew.
bool brings_new_job(const entry &each) {
    return (is_message_with(each, "v1/device/job/") || is_message_with(each, "v1/device/cmd/config/apply")) &&
           each.text.find("/apply ") != std::string::npos;
}

// What a power cut has lost of it was not final; what the cloud has been told is.
breakages final_statuses_stay(const evidence &seen) {
    breakages broken;
    std::map<std::string, std::string> stored_as;
    std::map<std::string, std::string> told_as;
    for (const entry &each : seen.ledger) {
        if (brings_new_job(each)) {
            stored_as.clear();
            told_as.clear();
        }
        if (is_lost_record(each))
            stored_as.erase(each.what);
        if (const auto told = report_in(each); told && is_final(told->status))
            told_as[told->job_id] = told->status;
        if (each.kind != entry_kind::STORED)
            continue;
        const std::string status = json(each.text)["status"].asString();
        if (const auto known = stored_as.find(each.what); known != stored_as.end() && known->second != status)
            broken.push_back("job " + each.what + " was " + known->second + " and became " + status);
        else if (const auto told = told_as.find(each.what); told != told_as.end() && told->second != status)
            broken.push_back("job " + each.what + " was told as " + told->second + " and became " + status);
        if (is_final(status))
            stored_as[each.what] = status;
    }
    return broken;
}

// It is moved there, and nothing writes to it; what a power cut has lost was not there.
breakages archive_holds_the_last(const evidence &seen) {
    breakages broken;
    std::map<std::string, std::string> stored;
    for (const entry &each : seen.ledger) {
        if (each.kind == entry_kind::STORED)
            stored[each.what] = each.text;
        else if (is_lost_record(each))
            stored.erase(each.what);
    }
    for (const auto &[id, text] : stored)
        if (exists(ARCHIVE + id) && !exists(ACTIVE + id) && archived_job(id) != json(text))
            broken.push_back("job " + id + " is archived as " + archived_job(id)["status"].asString() +
                             ", and was stored as " + json(text)["status"].asString());
    return broken;
}

breakages archived_jobs_were_reported(const evidence &seen) {
    breakages broken;
    const auto reports = reports_of(seen);
    for (const std::string &id : archived_jobs()) {
        const Json::Value job = archived_job(id);
        const std::string status = job["status"].asString();
        const bool reported = std::any_of(reports.begin(), reports.end(), [&](const report &each) {
            return each.job_id == id && each.status == status && was_acknowledged(seen, id, each.session);
        });
        if (!reported)
            broken.push_back("job " + id + " is archived as " + status +
                             ", of which no report was acknowledged");
    }
    return broken;
}

breakages no_marker_is_left(const evidence &) {
    breakages broken;
    for (const std::string name : {"FW_JOBID", "FW_JOB_EXECUTING", "CONFIG_JOB_EXECUTING",
                                   "RADIOFW_JOB_EXECUTING", "CRITICAL_JOB_EXECUTING"})
        if (exists("/var/volatile/orv/" + name))
            broken.push_back(name + " is left");
    for (const char *path : {"/var/run/ACTIVE_JOB", "/var/data/orv/ACTIVE_JOB"})
        if (exists(path))
            broken.push_back(std::string(path) + " is left");
    return broken;
}

} // namespace

evidence::evidence(const scenario &scenario, const std::vector<entry> &all, moment now)
    : given(scenario), when(now) {
    std::copy_if(all.begin(), all.end(), std::back_inserter(ledger), counts);
}

bool evidence::counts(const entry &each) {
    switch (each.kind) {
    case entry_kind::STORED:
    case entry_kind::SCRIPT:
    case entry_kind::INPUT:
    case entry_kind::HANDLED:
    case entry_kind::LOST:
        return true;
    case entry_kind::BOOT:
        return true;
    case entry_kind::CHANGE:
        return each.what == "send_message" || each.what == "rename";
    default:
        return false;
    }
}

std::vector<invariant> job_invariants() {
    return {
        {JOB_FILES, moment::AT_CUT, job_files_are_whole},
        {STORED, moment::AT_REST, arrived_jobs_are_stored},
        {ARCHIVED, moment::AT_REST, stored_jobs_are_archived},
        {LAST, moment::AT_REST, archive_holds_the_last},
        {ONCE, moment::AT_REST, scripts_start_once},
        {CUT_SCRIPTS, moment::AT_REST, cut_scripts_fail},
        {SESSIONS, moment::AT_REST, sessions_are_unique},
        {FINAL, moment::AT_REST, final_statuses_stay},
        {REPORTED, moment::AT_REST, archived_jobs_were_reported},
        {NO_MARKER, moment::AT_REST, no_marker_is_left},
    };
}

const std::vector<invariant> &invariants() {
    static const std::vector<invariant> ALL = [] {
        auto all = job_invariants();
        for (const auto &more : {config_invariants(), firmware_invariants(), end_invariants()})
            all.insert(all.end(), more.begin(), more.end());
        return all;
    }();
    return ALL;
}

} // namespace sweep
