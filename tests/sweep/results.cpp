#include "tests/sweep/results.h"

#include "tests/fakes/files.h"

namespace sweep {

namespace {

Json::Value to_json(const finding &found, const scenario_group &group) {
    Json::Value all;
    all["invariant"] = found.invariant;
    all["text"] = found.text;
    all["kind"] = found.where ? name_of(found.where->kind) : "none";
    if (found.where) {
        all["before"] = static_cast<Json::Int64>(found.where->before_change);
        all["change"] = found.change;
    }
    if (found.then)
        all["then"] = name_of(found.then->kind);
    if (found.known != nullptr)
        all["known"] = static_cast<Json::Int64>(found.known - group.exceptions.data());
    else
        all["known"] = Json::Value();
    return all;
}

Json::Value to_json(const scenario_result &result, const scenario_group &group, long every) {
    Json::Value all;
    all["name"] = result.name;
    all["every"] = static_cast<Json::Int64>(every);
    all["lives"] = static_cast<Json::Int64>(result.lives);
    all["recoveries"] = static_cast<Json::Int64>(result.recoveries);
    all["pairs"] = static_cast<Json::Int64>(result.pairs);
    all["changes"] = Json::Value(Json::arrayValue);
    for (const std::string &change : result.changes)
        all["changes"].append(change);
    all["cuts"] = Json::Value(Json::objectValue);
    for (const auto &[kind, count] : result.cuts)
        all["cuts"][name_of(kind)] = static_cast<Json::Int64>(count);
    all["findings"] = Json::Value(Json::arrayValue);
    for (const finding &found : result.findings)
        all["findings"].append(to_json(found, group));
    return all;
}

Json::Value to_json(const known_exception &each, const std::vector<scenario_result> &results) {
    Json::Value all;
    for (const char *name : each.scenarios)
        all["scenarios"].append(name);
    for (const restart kind : {restart::NONE, restart::KILL, restart::REBOOT, restart::POWER_CUT,
                               restart::TORN, restart::STALL, restart::HELD, restart::AGAIN})
        if (each.cuts.has(kind))
            all["kinds"].append(name_of(kind));
    all["invariant"] = each.invariant;
    all["outcome"] = each.outcome;
    all["reason"] = each.reason;
    long times = 0;
    for (const scenario_result &result : results)
        for (const finding &found : result.findings)
            times += found.known == &each ? 1 : 0;
    all["times"] = static_cast<Json::Int64>(times);
    return all;
}

} // namespace

bool write_results(const std::string &path, const scenario_group &group,
                   const std::vector<scenario_result> &results, long every) {
    Json::Value all;
    all["name"] = group.name;
    all["scenarios"] = Json::Value(Json::arrayValue);
    for (const scenario_result &result : results)
        all["scenarios"].append(to_json(result, group, every));
    all["exceptions"] = Json::Value(Json::arrayValue);
    for (const known_exception &each : group.exceptions)
        all["exceptions"].append(to_json(each, results));
    return fakes::write_all(path, compact(all)) == 0;
}

} // namespace sweep
