#include "tests/sweep/run.h"

#include "tests/fakes/clock.h"
#include "tests/fakes/files.h"

#include <algorithm>
#include <set>

namespace sweep {

namespace {

// A device that reboots again and again is no recovery.
constexpr int MOST_LIVES = 12;

constexpr char ONCE_MORE[] = "rebooted once more";

// Where the record of a job lies, and what it holds; nothing when there is none.
tree::const_iterator record_in(const tree &files, const std::string &id) {
    const auto found = files.find(ACTIVE_FOLDER + id);
    return found != files.end() ? found : files.find(ARCHIVE_FOLDER + id);
}

void tell_losses(const tree &left) {
    const tree whole = read_tree({PERSISTENT_FOLDER});
    std::set<std::string> ids;
    for (const std::string folder : {ACTIVE_FOLDER, ARCHIVE_FOLDER})
        for (const std::string &id : names_in(folder))
            ids.insert(id);
    for (const std::string &id : ids) {
        const auto had = record_in(whole, id);
        const auto has = record_in(left, id);
        if (has == left.end() || has->second.text != had->second.text)
            write_ledger(entry_kind::LOST, id, "record");
        if (has != left.end() && has->first != had->first)
            write_ledger(entry_kind::LOST, id, "move");
    }
}

} // namespace

run::run(const scenario &scenario, long &counter) : given(scenario), lives_of_all(counter) {
    clear_ledger();
    make_new_device(given.former);
    boot_device(restart::REBOOT);
    keep_time(START_TIME); // from here the times of the inputs count
}

run::run(const scenario &scenario, long &counter, const standing &from)
    : given(scenario), lives_of_all(counter) {
    back_to(from);
}

run::run(const scenario &scenario, long &counter, const flash &kept)
    : given(scenario), lives_of_all(counter), on_flash(kept) {}

standing run::stands() const {
    return {mark_ledger(), read_world(), on_flash};
}

void run::back_to(const standing &place) {
    put_back_world(place.world);
    rewind_ledger(place.ledger);
    on_flash = place.on_flash;
}

void run::boot_device(restart kind) {
    if (boot(kind, given.around))
        on_flash.settle();
}

bool run::live_until(const cut &where) {
    for (;;) {
        life one(given, where, stops_at);
        std::optional<ending> how;
        while (!(how = one.go_on()))
            at_stop(one);
        if (*how == ending::CUT)
            return true;
        if (!goes_on(*how))
            return false;
    }
}

bool run::live_until(const cut &where, ending first) {
    return goes_on(first) && live_until(where);
}

// After a life that ended so: false when it was the last one.
bool run::goes_on(ending how) {
    lives_of_all++;
    if (how == ending::QUIET || (how == ending::RESTLESS && given.restless_for != 0))
        return false;
    if (how != ending::REBOOT) {
        found.push_back({COMES_TO_REST, std::string("it ends ") + name_of(how)});
        return false;
    }
    if (++lives == MOST_LIVES) {
        found.push_back({COMES_TO_REST, "it reboots again and again"});
        return false;
    }
    boot_device(restart::REBOOT);
    return true;
}

std::vector<tree> run::left_by(restart kind) const {
    return kind == restart::TORN ? on_flash.torn() : on_flash.after_power_cut();
}

void run::crash(const tree *left) {
    set_time(kept_time());
    write_ledger(entry_kind::END, name_of(ending::CUT));
    if (left != nullptr) {
        tell_losses(*left);
        put_on_flash(*left);
    }
    check(moment::AT_CUT);
}

void run::boot_after(restart kind) {
    boot_device(kind);
}

void run::check(moment when) {
    const evidence seen(given, read_ledger(), when);
    for (const invariant &each : invariants())
        if (each.since <= when)
            for (const std::string &text : each.broken(seen))
                found.push_back({each.name, text});
}

void run::live_to_the_end() {
    if (live_until({}))
        found.push_back({REPEATS, "a cut that nobody asked for"});
    check_at_rest();
}

void run::check_at_rest() {
    if (!comes_to_rest())
        return;
    check(undisturbed ? moment::WITHOUT_CUT : moment::AT_REST);
    if (!given.boots_once_more)
        return;
    write_ledger(entry_kind::END, ONCE_MORE);
    boot_device(restart::REBOOT);
    lives = 0;
    stops_at = {};
    live_until({});
    if (comes_to_rest())
        check(moment::AT_REST);
}

bool run::comes_to_rest() const {
    return std::none_of(found.begin(), found.end(),
                        [](const breakage &each) { return each.invariant == COMES_TO_REST; });
}

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

} // namespace sweep
