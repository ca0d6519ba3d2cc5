#include "tests/sweep/report.h"

#include "tests/sweep/sweep.h"

#include <algorithm>
#include <cstdio>

namespace sweep {

namespace {

constexpr restart KINDS[] = {restart::KILL, restart::REBOOT, restart::POWER_CUT, restart::TORN,
                             restart::STALL};

void print_head(const scenario_group &group) {
    std::printf("%-36s%9s%8s   cuts tried/broken/broken as known\n%-36s%9s%8s", group.name.c_str(), "changes",
                "lives", "", "", "");
    for (const restart kind : KINDS)
        std::printf("  %-11s", name_of(kind));
    std::printf("\n");
}

void print_row(const scenario_result &result) {
    std::printf("%-36s%9ld%8ld", result.name.c_str(), result.changes, result.lives);
    for (const restart kind : KINDS) {
        long broken = 0;
        long known = 0;
        for (const finding &each : result.findings)
            if (each.where.before_change != 0 && each.where.kind == kind)
                (each.known != nullptr ? known : broken)++;
        const auto tried = result.cuts.find(kind);
        const std::string cell = std::to_string(tried == result.cuts.end() ? 0 : tried->second) + "/" +
                                 std::to_string(broken) + "/" + std::to_string(known);
        std::printf("  %-11s", cell.c_str());
    }
    std::printf("\n");
    std::fflush(stdout);
}

// Findings that differ only in where the cut was.
struct same_findings {
    finding first;
    bool without_cut = false;
    std::map<restart, std::vector<long>> before;
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
        if (each.where.before_change == 0)
            group->without_cut = true;
        else
            group->before[each.where.kind].push_back(each.where.before_change);
    }
    return groups;
}

void print_findings(const same_findings &group) {
    std::printf("  %s\n    %s:\n    %s\n", group.first.scenario.c_str(), group.first.invariant.c_str(),
                group.first.text.c_str());
    if (group.without_cut)
        std::printf("      without any cut\n");
    else
        std::printf("      first: %s before change %ld, %s\n", name_of(group.first.where.kind),
                    group.first.where.before_change, group.first.change.c_str());
    for (const auto &[kind, numbers] : group.before) {
        std::printf("      %s before", name_of(kind));
        for (const long number : numbers)
            std::printf(" %ld", number);
        std::printf("\n");
    }
}

// The number of exceptions that no longer occur.
int print_known(const scenario_group &group, const std::vector<finding> &all, long every) {
    int stale = 0;
    for (const known_exception &each : group.exceptions) {
        const auto times =
            std::count_if(all.begin(), all.end(), [&](const finding &found) { return found.known == &each; });
        std::printf("  %s: %s (%s), %ld times\n      %s\n", each.scenario.c_str(), each.invariant.c_str(),
                    each.part.c_str(), static_cast<long>(times), each.reason.c_str());
        if (times != 0 || every != 1)
            continue;
        std::printf("      NO LONGER OCCURS: take it out\n");
        stale++;
    }
    return stale;
}

} // namespace

int sweep_group(const scenario_group &group, long every) {
    print_head(group);
    std::vector<finding> all;
    for (const scenario &given : group.scenarios) {
        const scenario_result result = sweep_scenario(given, group.exceptions, every);
        print_row(result);
        all.insert(all.end(), result.findings.begin(), result.findings.end());
    }

    const auto broken = grouped(all);
    if (!broken.empty())
        std::printf("\nBROKEN:\n");
    for (const same_findings &each : broken)
        print_findings(each);
    if (!group.exceptions.empty())
        std::printf("\nBroken by design, and known:\n");
    const int stale = print_known(group, all, every);
    std::printf("\n%s: %zu broken, %d known ones that no longer occur\n", group.name.c_str(), broken.size(),
                stale);
    return static_cast<int>(broken.size()) + stale;
}

} // namespace sweep
