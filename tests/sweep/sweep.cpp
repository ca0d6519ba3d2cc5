#include "tests/sweep/sweep.h"

#include "tests/fakes/clock.h"

#include <algorithm>
#include <optional>

namespace sweep {

namespace {

// A device that reboots again and again is no recovery.
constexpr int MOST_LIVES = 12;

constexpr char COMES_TO_REST[] = "the agent comes to rest";
constexpr char ONCE_MORE[] = "rebooted once more";
constexpr char REPEATS[] = "a run is the same each time";

// One run of a scenario: its lives one after the other, with at most one cut.
class run {
public:
    run(const scenario &scenario, scenario_result &result) : given(scenario), tally(result) {}

    std::vector<finding> findings;

    void start() {
        clear_ledger();
        make_new_device(given.former);
        boot(restart::REBOOT, given.around);
        keep_time(START_TIME); // from here the times of the inputs count
    }

    // Lives until the cut (true) or the end of the run (false).
    bool live_until(const cut &where) {
        for (int lives = 1; lives <= MOST_LIVES; lives++) {
            const ending how = run_life(given, where);
            tally.lives++;
            if (how == ending::CUT)
                return true;
            if (how == ending::QUIET || (how == ending::RESTLESS && given.restless_for != 0))
                return false;
            if (how != ending::REBOOT) {
                found(COMES_TO_REST, std::string("it ends ") + name_of(how));
                return false;
            }
            crash(restart::REBOOT);
            boot(restart::REBOOT, given.around);
        }
        found(COMES_TO_REST, "it reboots again and again");
        return false;
    }

    // After a cut. False when this restart differs from none that is tried too.
    bool restart_after_cut(restart kind) {
        if (!crash(kind))
            return false;
        check(true);
        boot(kind, given.around);
        return true;
    }

    void check(bool at_cut) {
        const evidence seen{given, read_ledger(), at_cut};
        for (const invariant &each : invariants())
            if (each.at_cut || !at_cut)
                for (const std::string &text : each.broken(seen))
                    found(each.name, text);
    }

    void live_to_the_end() {
        if (live_until({}))
            found(REPEATS, "a cut that nobody asked for");
        check_at_rest();
    }

    void check_at_rest() {
        if (!comes_to_rest())
            return;
        check(false);
        if (!given.boots_once_more)
            return;
        write_ledger(entry_kind::END, ONCE_MORE);
        crash(restart::REBOOT);
        boot(restart::REBOOT, given.around);
        live_until({});
        if (comes_to_rest())
            check(false);
    }

    bool comes_to_rest() const {
        return std::none_of(findings.begin(), findings.end(),
                            [](const finding &each) { return each.invariant == COMES_TO_REST; });
    }

    void found(const std::string &invariant, const std::string &text) {
        findings.push_back({given.name, invariant, text, {}, "", nullptr});
    }

private:
    const scenario &given;
    scenario_result &tally;
};

bool matches(const known_exception &exception, const finding &found) {
    const bool any_restart = exception.restarts.empty();
    const bool restart_fits = any_restart || (found.where.before_change != 0 &&
                                              std::find(exception.restarts.begin(), exception.restarts.end(),
                                                        found.where.kind) != exception.restarts.end());
    return restart_fits && found.scenario.find(exception.scenario) != std::string::npos &&
           exception.invariant == found.invariant && found.text.find(exception.part) != std::string::npos;
}

const known_exception *known(const finding &found, const std::vector<known_exception> &exceptions) {
    const auto match = std::find_if(exceptions.begin(), exceptions.end(),
                                    [&](const known_exception &each) { return matches(each, found); });
    return match == exceptions.end() ? nullptr : &*match;
}

// The changes of a whole run, without the last ones that come for ever and move nothing.
std::vector<std::string> changes_of(const std::vector<entry> &ledger) {
    std::vector<std::string> changes;
    size_t moving = 0;
    for (const entry &each : ledger) {
        if (each.kind == entry_kind::END && each.what == ONCE_MORE)
            break;
        if (each.kind != entry_kind::CHANGE)
            continue;
        changes.push_back(each.what + (each.text.empty() ? "" : " " + each.text));
        if (!is_housekeeping(each.text))
            moving = changes.size();
    }
    changes.resize(moving);
    return changes;
}

// All cuts before one change.
class cuts_before {
public:
    cuts_before(const scenario &scenario, const std::vector<known_exception> &known_ones, long number_of,
                const std::string &text_of, scenario_result &into)
        : given(scenario), exceptions(known_ones), number(number_of), change(text_of), result(into) {}

    void try_all() {
        run first(given, result);
        first.start();
        const bool was_cut = first.live_until({number, restart::KILL});
        if (!was_cut)
            first.found(REPEATS, "this change was not reached again");
        keep(first.findings, restart::KILL);
        if (!was_cut)
            return;
        save_files();
        save_ledger();
        for (const restart kind : given.restarts)
            kind == restart::STALL ? try_stall() : try_restart(kind);
    }

private:
    void try_restart(restart kind) {
        restore_files();
        restore_ledger();
        run second(given, result);
        if (!second.restart_after_cut(kind))
            return;
        second.live_to_the_end();
        result.cuts[kind]++;
        keep(second.findings, kind);
    }

    void try_stall() {
        run whole(given, result);
        whole.start();
        whole.live_until({number, restart::STALL});
        whole.check_at_rest();
        result.cuts[restart::STALL]++;
        keep(whole.findings, restart::STALL);
    }

    void keep(std::vector<finding> findings, restart kind) {
        for (finding &each : findings) {
            each.where = {number, kind};
            each.change = change;
            each.known = known(each, exceptions);
            result.findings.push_back(each);
        }
    }

    const scenario &given;
    const std::vector<known_exception> &exceptions;
    const long number;
    const std::string change;
    scenario_result &result;
};

} // namespace

scenario_result sweep_scenario(const scenario &given, const std::vector<known_exception> &exceptions,
                               long every) {
    scenario_result result;
    result.name = given.name;
    run reference(given, result);
    reference.start();
    reference.live_to_the_end();
    for (finding &each : reference.findings) {
        each.known = known(each, exceptions);
        result.findings.push_back(each);
    }
    const auto changes = changes_of(read_ledger());
    result.changes = static_cast<long>(changes.size());
    for (long number = 1; number <= result.changes; number += every)
        cuts_before(given, exceptions, number, changes[static_cast<size_t>(number - 1)], result).try_all();
    return result;
}

std::vector<finding> run_once(const scenario &given, const cut &where) {
    scenario_result tally;
    run one(given, tally);
    one.start();
    if (where.before_change == 0 || where.kind == restart::STALL) {
        one.live_until(where);
        one.check_at_rest();
    } else if (one.live_until(where)) {
        one.restart_after_cut(where.kind);
        one.live_to_the_end();
    }
    return one.findings;
}

} // namespace sweep
