#include "tests/sweep/sweep.h"

#include "tests/sweep/ledger.h"
#include "tests/sweep/run.h"

#include <algorithm>
#include <functional>
#include <random>
#include <set>
#include <string_view>
#include <utility>

namespace sweep {

namespace {

// What a run without a cut ends in, one in which a thread was held up at a lock may end in too.
bool covers(const cut_kinds &cuts, restart kind) {
    return cuts.has(kind) || (kind == restart::HELD && cuts.has(restart::NONE));
}

bool matches(const known_exception &exception, const finding &found) {
    const auto kinds = kinds_of(found);
    return exception.scenarios.has(found.scenario) && exception.invariant == found.invariant &&
           exception.outcome == found.text && std::any_of(kinds.begin(), kinds.end(), [&](restart kind) {
               return covers(exception.cuts, kind);
           });
}

const known_exception *known(const finding &found, const std::vector<known_exception> &exceptions) {
    const auto match = std::find_if(exceptions.begin(), exceptions.end(),
                                    [&](const known_exception &each) { return matches(each, found); });
    return match == exceptions.end() ? nullptr : &*match;
}

class hash_of_all {
public:
    void add(std::string_view text) { value = value * 1099511628211U + std::hash<std::string_view>()(text); }
    void add(long long number) { add(std::to_string(number)); }
    uint64_t result() const { return value; }

private:
    uint64_t value = 1469598103934665603U;
};

// All that the rest of a run depends on, and all that an invariant can see of what came before.
uint64_t hash_of(const standing &place) {
    hash_of_all all;
    all.add(place.ledger.now);
    for (const auto &[path, each] : place.world) {
        all.add(path);
        all.add(static_cast<long long>(each.is));
        all.add(each.text);
        all.add(each.modified.tv_sec);
    }
    for (const entry &each : read_ledger()) {
        if (!evidence::counts(each))
            continue;
        all.add(static_cast<long long>(each.kind));
        all.add(each.at);
        all.add(each.what);
        all.add(each.text);
    }
    return all.result();
}

class explorer {
public:
    explorer(const scenario &scenario, const std::vector<known_exception> &known_ones, const options &how,
             scenario_result &into)
        : given(scenario), exceptions(known_ones), wanted(how), result(into),
          chance(how.seed + std::hash<std::string>()(scenario.name)) {}

    void explore() {
        run reference(given, result.lives);
        reference.undisturbed = true;
        reference.live_to_the_end();
        keep(reference.found, {}, {}, "");
        result.changes = changes_of(read_ledger());
        if (!goes_no_further())
            walk();
    }

private:
    bool goes_no_further() const { return wanted.first && is_broken; }

    void walk() {
        run trunk(given, result.lives);
        trunk.stops_at = {1, static_cast<long>(result.changes.size()), wanted.stall_locks};
        trunk.at_stop = [&](life &stopped) { try_all(trunk, stopped); };
        trunk.live_until({});
        if (changes_of(read_ledger()) != result.changes)
            keep({{REPEATS, "its changes are others"}}, {}, {}, "");
    }

    void try_all(run &trunk, life &stopped) {
        const long number = changes_so_far() + 1;
        if ((number - 1) % wanted.every != 0 || goes_no_further())
            return;
        const std::string before = stopped.stopped_before();
        const standing here = trunk.stands();
        if (stopped.stopped_at_place()) {
            try_stall(trunk, stopped, here, {places_so_far(), restart::HELD, 0}, before);
        } else {
            if (const std::string what = here.on_flash.unexplained(); !what.empty())
                keep({{EXPLAINED, what}}, cut{number}, {}, before);
            for (const restart kind : given.restarts)
                if (kind == restart::STALL)
                    try_stall(trunk, stopped, here, {number, kind, 0}, before);
                else
                    try_restarts(here, {number, kind, 0}, before);
        }
        trunk.back_to(here);
    }

    void try_stall(run &trunk, life &stopped, const standing &here, const cut &where,
                   const std::string &before) {
        trunk.back_to(here);
        const ending how = stopped.branch();
        run whole(given, result.lives, here.on_flash);
        whole.live_until({}, how);
        whole.check_at_rest();
        result.cuts[where.kind]++;
        keep(whole.found, where, {}, before);
    }

    void try_restarts(const standing &here, cut where, const std::string &before) {
        if (where.kind == restart::KILL || where.kind == restart::REBOOT) {
            try_restart(here, nullptr, where, before);
            return;
        }
        rewind_ledger(here.ledger);
        const auto states =
            where.kind == restart::TORN ? here.on_flash.torn() : here.on_flash.after_power_cut();
        for (const tree &left : states) {
            try_restart(here, &left, where, before);
            where.variant++;
        }
    }

    void try_restart(const standing &here, const tree *left, const cut &where, const std::string &before) {
        run second(given, result.lives, here);
        second.crash(left);
        second.boot_after(where.kind);
        result.cuts[where.kind]++;
        keep(std::exchange(second.found, {}), where, {}, before);
        keep(recover(second, where, before), where, {}, before);
    }

    // What breaks in the rest of a run.
    std::vector<breakage> recover(run &second, const cut &where, const std::string &before) {
        const standing start = second.stands();
        const uint64_t hash = hash_of(start);
        if (const auto done = known_recoveries.find(hash); done != known_recoveries.end())
            return done->second;
        result.recoveries++;
        second.live_to_the_end();
        known_recoveries[hash] = second.found;
        cut_again(start, where, before);
        return known_recoveries[hash];
    }

    void cut_again(const standing &start, const cut &where, const std::string &before) {
        const bool chosen = wanted.all_pairs || (wanted.one_pair_in != 0 &&
                                                 chance() % static_cast<uint64_t>(wanted.one_pair_in) == 0);
        const long last = static_cast<long>(changes_of(read_ledger()).size());
        const long first = start.ledger.changes + 1;
        if (!chosen || then_of || last < first)
            return;
        const long one = first + static_cast<long>(chance() % static_cast<uint64_t>(last - first + 1));
        run second(given, result.lives, start);
        second.stops_at = wanted.all_pairs ? stops{first, last} : stops{one, one};
        second.at_stop = [&](life &) { try_pairs(second, where, before); };
        second.live_until({});
    }

    void try_pairs(run &second, const cut &where, const std::string &before) {
        const standing here = second.stands();
        for (const restart kind : given.restarts) {
            if (kind == restart::STALL)
                continue;
            cut next{changes_so_far() + 1, kind, 0};
            const std::vector<tree> states =
                kind == restart::KILL || kind == restart::REBOOT ? std::vector<tree>() : second.left_by(kind);
            const size_t variants = kind == restart::KILL || kind == restart::REBOOT ? 1 : states.size();
            for (; next.variant < variants; next.variant++) {
                try_pair(here, states.empty() ? nullptr : &states[next.variant], where, next, before);
                second.back_to(here);
            }
        }
    }

    void try_pair(const standing &here, const tree *left, const cut &where, const cut &next,
                  const std::string &before) {
        run third(given, result.lives, here);
        third.crash(left);
        third.boot_after(next.kind);
        result.pairs++;
        keep(std::exchange(third.found, {}), where, next, before);
        then_of = &where;
        keep(recover(third, where, before), where, next, before);
        then_of = nullptr;
    }

    void keep(const std::vector<breakage> &broken, const std::optional<cut> &where,
              const std::optional<cut> &then, const std::string &change) {
        for (const breakage &each : broken) {
            finding found{given.name, each.invariant, each.text, where, then, change, nullptr};
            found.known = known(found, exceptions);
            is_broken |= found.known == nullptr;
            result.findings.push_back(std::move(found));
        }
    }

    const scenario &given;
    const std::vector<known_exception> &exceptions;
    const options &wanted;
    scenario_result &result;
    std::mt19937_64 chance;
    std::map<uint64_t, std::vector<breakage>> known_recoveries;
    bool is_broken = false;
    const cut *then_of = nullptr; // within a pair: a recovery is cut again once only
};

} // namespace

std::vector<restart> kinds_of(const finding &found) {
    if (!found.where)
        return {restart::NONE};
    if (!found.then)
        return {found.where->kind};
    return {found.where->kind, found.then->kind, restart::AGAIN};
}

scenario_result sweep_scenario(const scenario &given, const std::vector<known_exception> &exceptions,
                               const options &wanted) {
    scenario_result result;
    result.name = given.name;
    explorer(given, exceptions, wanted, result).explore();
    return result;
}

namespace {

void run_with(run &whole, const cut &where) {
    if (where.before_change == 0 || where.kind == restart::STALL) {
        whole.live_until(where);
        whole.check_at_rest();
        return;
    }
    if (!whole.live_until(where))
        return;
    const bool may_lose = where.kind == restart::POWER_CUT || where.kind == restart::TORN;
    const std::vector<tree> states = may_lose ? whole.left_by(where.kind) : std::vector<tree>();
    if (may_lose && where.variant >= states.size())
        return;
    whole.crash(may_lose ? &states[where.variant] : nullptr);
    whole.boot_after(where.kind);
    whole.live_to_the_end();
}

void run_held(run &whole, const cut &where) {
    whole.stops_at = {1, 1'000'000, true};
    std::optional<ending> how;
    whole.at_stop = [&](life &stopped) {
        if (!how && stopped.stopped_at_place() && places_so_far() == where.before_change) {
            how = stopped.branch();
            throw *how;
        }
    };
    try {
        whole.live_until({});
    } catch (ending first) {
        whole.stops_at = {};
        whole.live_until({}, first);
        whole.check_at_rest();
    }
}

} // namespace

std::vector<finding> run_once(const scenario &given, const cut &where) {
    long lives = 0;
    run whole(given, lives);
    where.kind == restart::HELD ? run_held(whole, where) : run_with(whole, where);
    std::vector<finding> findings;
    for (const breakage &each : whole.found)
        findings.push_back({given.name, each.invariant, each.text, where, {}, "", nullptr});
    return findings;
}

} // namespace sweep
