// What must hold of the configuration.
#include "tests/sweep/invariants.h"

#include "tests/sweep/names.h"

#include "tests/fakes/config.h"
#include "tests/fakes/files.h"
#include "tests/sweep/services.h"

#include <algorithm>

namespace sweep {

namespace {

using breakages = std::vector<std::string>;

const std::string SAVED = "/var/data/orv/config.json";
const std::string RUNNING = "/var/volatile/config/config.running";
const std::string FAILSAFE = "/var/data/orv/config.failsafe";

// The jobs that change the configuration and have ended, the last one last.
std::vector<Json::Value> ended_jobs() {
    std::vector<Json::Value> jobs;
    for (const std::string folder : {ACTIVE_FOLDER, ARCHIVE_FOLDER}) {
        for (const std::string &name : names_in(folder)) {
            const Json::Value job = file_json(folder + name);
            const bool ended = job.isObject() && (job["status"] == "success" || job["status"] == "failed");
            if (ended &&
                (job["action"] == "CFG" || job["action"] == "FAILSAFE_CONFIG" || job["action"] == "FW"))
                jobs.push_back(job);
        }
    }
    std::sort(jobs.begin(), jobs.end(), [](const Json::Value &left, const Json::Value &right) {
        return left["ackTs"].asInt64() < right["ackTs"].asInt64();
    });
    return jobs;
}

bool is_candidate(const Json::Value &config, const scenario &given) {
    return std::any_of(given.candidates.begin(), given.candidates.end(),
                       [&](const std::string &candidate) { return config == json(candidate); });
}

// The configuration that this job brought, where its record has it; else any that was requested.
bool is_of_job(const Json::Value &config, const Json::Value &job, const scenario &given) {
    if (job["action"] == "CFG")
        return config == job["value"];
    if (job["action"] == "FW")
        return config == job["params"]["cfg"];
    return is_candidate(config, given);
}

// What a way back leads to.
Json::Value copy_to_keep(const scenario &given) {
    return json(given.failsafe_copy.empty() ? given.former : given.failsafe_copy);
}

bool follows(const Json::Value &config, const std::vector<Json::Value> &jobs, const scenario &given) {
    const auto last_success = std::find_if(jobs.rbegin(), jobs.rend(),
                                           [](const Json::Value &job) { return job["status"] == "success"; });
    const bool last_failed = !jobs.empty() && last_success != jobs.rbegin();
    if (last_failed && exists(FAILSAFE) && config == copy_to_keep(given))
        return true;
    return last_success == jobs.rend() ? config == json(given.former)
                                       : is_of_job(config, *last_success, given);
}

std::string known_as(const Json::Value &config, const scenario &given) {
    if (config == json(given.former))
        return "the former one";
    if (is_candidate(config, given))
        return "a candidate";
    return config == file_json(FAILSAFE) ? "the failsafe one" : "none of those known";
}

breakages end_tells_configuration(const evidence &seen) {
    const auto jobs = ended_jobs();
    const Json::Value saved = file_json(SAVED);
    if (seen.given.candidates.empty() || follows(saved, jobs, seen.given))
        return {};
    std::string ends;
    for (const Json::Value &job : jobs)
        ends += (ends.empty() ? "" : ", ") + job["jobId"].asString() + " " + job["status"].asString();
    return {"after " + ends + " the persistent configuration is " + known_as(saved, seen.given)};
}

// The copy that lay there before the apply.
bool is_first_copy(const Json::Value &copy, const scenario &given) {
    return std::any_of(given.inputs.begin(), given.inputs.end(), [&](const input &each) {
        return each.text == "file " + FAILSAFE && copy == json(each.content);
    });
}

// An apply that was cut before it made its copy leaves the first one.
breakages failsafe_copy_is_right(const evidence &seen) {
    const Json::Value copy = file_json(FAILSAFE);
    const bool right = copy == copy_to_keep(seen.given) ||
                       (seen.when != moment::WITHOUT_CUT && is_first_copy(copy, seen.given));
    if (!exists(FAILSAFE) || right)
        return {};
    return {"the failsafe copy is " + known_as(copy, seen.given)};
}

breakages running_is_persistent(const evidence &seen) {
    const Json::Value running = file_json(RUNNING);
    if (running == file_json(SAVED))
        return {};
    return {"the running configuration is " + known_as(running, seen.given) + ", the persistent one is " +
            known_as(file_json(SAVED), seen.given)};
}

breakages services_follow(const evidence &) {
    std::string areas;
    for (const std::string &area : areas_not_served(file_json(RUNNING)))
        areas += (areas.empty() ? "" : ", ") + area;
    return areas.empty() ? breakages() : breakages{"a service has another " + areas};
}

void check_hash(const std::string &config, const std::string &hash, breakages &broken) {
    if (!exists(config))
        return;
    const Json::Value document = file_json(config);
    if (!document.isObject())
        broken.push_back(config + " is broken");
    else if (!exists(hash) || file_text(hash) != fakes::hash_of(document))
        broken.push_back(hash + " does not match");
}

breakages hashes_match(const evidence &seen) {
    breakages broken;
    check_hash(SAVED, "/var/data/orv/config.hash", broken);
    check_hash(FAILSAFE, FAILSAFE + ".hash", broken);
    if (seen.when != moment::AT_CUT)
        check_hash(RUNNING, RUNNING + ".hash", broken);
    return broken;
}

breakages nothing_of_an_apply_is_left(const evidence &) {
    breakages broken;
    for (const std::string path :
         {"/var/data/orv/FAILSAFE_TIMER", "/var/run/CONFIG_MODIFIED", "/var/data/orv/config.new",
          "/var/volatile/config/config.new", "/var/volatile/config/config.new.hash"})
        if (exists(path))
            broken.push_back(path + " is left");
    return broken;
}

} // namespace

std::vector<invariant> config_invariants() {
    return {
        {CONFIG_ENDS, moment::AT_REST, end_tells_configuration},
        {WAY_BACK, moment::AT_REST, failsafe_copy_is_right},
        {PERSISTENT, moment::AT_REST, running_is_persistent},
        {SERVICES, moment::AT_REST, services_follow},
        {HASHES, moment::AT_CUT, hashes_match},
        {NO_APPLY_LEFT, moment::AT_REST, nothing_of_an_apply_is_left},
    };
}

} // namespace sweep
