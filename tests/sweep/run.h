// One run of a scenario: its lives one after the other.
#pragma once

#include "tests/sweep/flash.h"
#include "tests/sweep/invariants.h"
#include "tests/sweep/ledger.h"
#include "tests/sweep/life.h"
#include "tests/sweep/scenario.h"

#include <functional>
#include <string>
#include <vector>

namespace sweep {

inline constexpr char COMES_TO_REST[] = "the agent comes to rest";
inline constexpr char REPEATS[] = "a run is the same each time";
inline constexpr char EXPLAINED[] = "the ledger tells of every write";

struct breakage {
    std::string invariant;
    std::string text;
};

// Where a run stands between two changes: all that its recovery begins with.
struct standing {
    ledger_mark ledger;
    tree world;
    flash on_flash;
};

class run {
public:
    // A device never used.
    run(const scenario &given, long &lives);

    // From where another run stands.
    run(const scenario &given, long &lives, const standing &from);

    // As it stands, with this on the flash.
    run(const scenario &given, long &lives, const flash &kept);

    std::vector<breakage> found;

    bool undisturbed = false; // there is no cut in it, and no thread is held up

    // Called before each change of these, and at each place, with the life that has stopped there.
    stops stops_at = {};
    std::function<void(life &)> at_stop = nullptr;

    // Lives until the cut (true) or the end of the run (false). With an ending: of a life that has been.
    bool live_until(const cut &where);
    bool live_until(const cut &where, ending first);

    standing stands() const;
    void back_to(const standing &place);

    // After a cut: ends what the life leaves, and what was not on the flash.
    void crash(const tree *lost = nullptr);
    void boot_after(restart kind);

    void live_to_the_end();
    void check_at_rest();

    std::vector<tree> left_by(restart kind) const;

private:
    void check(moment when);
    void boot_device(restart kind);
    bool comes_to_rest() const;
    bool goes_on(ending how);

    const scenario &given;
    long &lives_of_all;
    int lives = 0;
    flash on_flash;
};

// The changes of a whole run, without the last ones that come for ever and move nothing.
std::vector<std::string> changes_of(const std::vector<entry> &ledger);

} // namespace sweep
