#include "tests/sweep/report.h"

#include "tests/sweep/results.h"
#include "tests/sweep/sweep.h"

#include <algorithm>
#include <cstdio>

namespace sweep {

namespace {

constexpr restart KINDS[] = {restart::KILL, restart::REBOOT, restart::POWER_CUT,
                             restart::TORN, restart::STALL,  restart::HELD};
constexpr restart ALL_KINDS[] = {restart::NONE, restart::KILL,  restart::REBOOT, restart::POWER_CUT,
                                 restart::TORN, restart::STALL, restart::HELD,   restart::AGAIN};

void print_head(const scenario_group &group) {
    std::printf("%-44s%8s%8s%7s%7s   cuts tried/broken/broken as known\n%-74s", group.name.c_str(), "changes",
                "lives", "rest", "pairs", "");
    for (const restart kind : KINDS)
        std::printf("  %-11s", name_of(kind));
    std::printf("\n");
}

void print_row(const scenario_result &result) {
    std::printf("%-44s%8zu%8ld%7ld%7ld", result.name.c_str(), result.changes.size(), result.lives,
                result.recoveries, result.pairs);
    for (const restart kind : KINDS) {
        long broken = 0;
        long known = 0;
        for (const finding &each : result.findings)
            if (each.where && each.where->kind == kind)
                (each.known != nullptr ? known : broken)++;
        const auto tried = result.cuts.find(kind);
        const std::string cell = std::to_string(tried == result.cuts.end() ? 0 : tried->second) + "/" +
                                 std::to_string(broken) + "/" + std::to_string(known);
        std::printf("  %-11s", cell.c_str());
    }
    std::printf("\n");
    std::fflush(stdout);
}

// "12", "12.3" with the variant of what is lost, "12+40 kill" with a second cut.
std::string place_of(const finding &found) {
    const auto number = [](const cut &where) {
        return std::to_string(where.before_change) +
               (where.variant == 0 ? "" : "." + std::to_string(where.variant));
    };
    return number(*found.where) +
           (found.then ? "+" + number(*found.then) + " " + name_of(found.then->kind) : "");
}

// Findings that differ only in where the cut was.
struct same_findings {
    finding first;
    bool without_cut = false;
    std::map<restart, std::vector<std::string>> before;
};

std::vector<same_findings> grouped(const std::vector<finding> &all) {
    std::vector<same_findings> groups;
    for (const finding &each : all) {
        if (each.known != nullptr)
            continue;
        auto group = std::find_if(groups.begin(), groups.end(), [&](const same_findings &other) {
            return other.first.scenario == each.scenario && other.first.invariant == each.invariant &&
                   other.first.text == each.text;
        });
        if (group == groups.end())
            group = groups.insert(groups.end(), {each, false, {}});
        if (!each.where)
            group->without_cut = true;
        else
            group->before[each.where->kind].push_back(place_of(each));
    }
    return groups;
}

void print_findings(const same_findings &group) {
    std::printf("  %s\n    %s:\n    %s\n", group.first.scenario.c_str(), group.first.invariant.c_str(),
                group.first.text.c_str());
    if (group.without_cut)
        std::printf("      without any cut\n");
    else
        std::printf("      first: %s before %s, %s\n", name_of(group.first.where->kind),
                    place_of(group.first).c_str(), group.first.change.c_str());
    for (const auto &[kind, numbers] : group.before) {
        std::printf("      %s before", name_of(kind));
        for (const std::string &number : numbers)
            std::printf(" %s", number.c_str());
        std::printf("\n");
    }
}

bool excuses(const known_exception &exception, const finding &found, const std::string &scenario,
             restart kind) {
    const auto kinds = kinds_of(found);
    return found.known == &exception && found.scenario == scenario &&
           std::find(kinds.begin(), kinds.end(), kind) != kinds.end();
}

// The scenarios and kinds of cut that an exception names and in which it no longer occurs.
int print_stale(const known_exception &each, const std::vector<finding> &all, const options &wanted) {
    int stale = 0;
    for (const char *scenario : each.scenarios) {
        for (const restart kind : ALL_KINDS) {
            const bool tried = kind == restart::HELD    ? wanted.stall_locks
                               : kind == restart::AGAIN ? wanted.all_pairs
                                                        : true;
            if (!each.cuts.has(kind) || !tried || wanted.every != 1 || wanted.first)
                continue;
            if (std::any_of(all.begin(), all.end(),
                            [&](const finding &found) { return excuses(each, found, scenario, kind); }))
                continue;
            std::printf("  %s, %s: NO LONGER OCCURS, take it out: %s\n", scenario, name_of(kind),
                        each.outcome);
            stale++;
        }
    }
    return stale;
}

// The number of those that no longer occur.
int print_known(const scenario_group &group, const std::vector<finding> &all, const options &wanted) {
    int stale = 0;
    for (const known_exception &each : group.exceptions) {
        const auto times =
            std::count_if(all.begin(), all.end(), [&](const finding &found) { return found.known == &each; });
        std::printf("  %ld times: %s\n      %s\n", static_cast<long>(times), each.outcome, each.reason);
        stale += print_stale(each, all, wanted);
    }
    return stale;
}

} // namespace

int sweep_group(const scenario_group &group, const options &wanted, const std::string &results_folder) {
    print_head(group);
    std::vector<scenario_result> results;
    std::vector<finding> all;
    bool broken_already = false;
    for (const scenario &given : group.scenarios) {
        if ((given.needs_record_lock && !wanted.stall_locks) || (wanted.first && broken_already))
            continue;
        results.push_back(sweep_scenario(given, group.exceptions, wanted));
        print_row(results.back());
        all.insert(all.end(), results.back().findings.begin(), results.back().findings.end());
        broken_already |=
            std::any_of(all.begin(), all.end(), [](const finding &each) { return each.known == nullptr; });
    }
    if (!results_folder.empty() &&
        !write_results(results_folder + "/" + group.name + ".json", group, results, wanted.every))
        std::printf("\nthe results cannot be written to %s\n", results_folder.c_str());

    const auto broken = grouped(all);
    if (!broken.empty())
        std::printf("\nBROKEN:\n");
    for (const same_findings &each : broken)
        print_findings(each);
    if (!group.exceptions.empty())
        std::printf("\nBroken by design, and known:\n");
    const int stale = print_known(group, all, wanted);
    std::printf("\n%s: %zu broken, %d known ones that no longer occur\n", group.name.c_str(), broken.size(),
                stale);
    return static_cast<int>(broken.size()) + stale;
}

} // namespace sweep
