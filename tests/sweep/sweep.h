// Runs a scenario whole, then tries every kind of restart before each change that it makes; checks the invariants
// after each.
//
// What comes before a cut is not run again for each of them: one run stops before each change, and every recovery
// goes on from the files and the ledger as they stand there. Recoveries that begin with the same files, at the same
// time and after the same events, as far as an invariant can see any, are one.
#pragma once

#include "tests/sweep/invariants.h"
#include "tests/sweep/life.h"
#include "tests/sweep/scenario.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace sweep {

struct finding {
    std::string scenario;
    std::string invariant;
    std::string text;
    std::optional<cut> where; // empty: without any cut
    std::optional<cut> then;  // of its recovery
    std::string change;       // the one that the cut came before
    const known_exception *known = nullptr;
};

// Of its one cut, or of both and AGAIN; NONE when there was none.
std::vector<restart> kinds_of(const finding &found);

struct scenario_result {
    std::string name;
    std::vector<std::string> changes; // of the run without a cut, up to the last one that moved anything
    long lives = 0;
    std::map<restart, long> cuts;
    long pairs = 0;      // recoveries that were cut in their turn
    long recoveries = 0; // those that were no other's
    std::vector<finding> findings;
};

struct options {
    long every = 1;           // above 1: only before every so many changes
    bool first = false;       // goes no further when something broke
    bool stall_locks = false; // threads are held up at locks, reads of job files and ties too

    // How many of the recoveries are cut again: all, before each of their changes, or about one in so many, before one
    // of them.
    bool all_pairs = false;
    long one_pair_in = 0;
    uint64_t seed = 0;
};

scenario_result sweep_scenario(const scenario &given, const std::vector<known_exception> &exceptions,
                               const options &wanted = {});

// One run alone; what it did stands in the ledger.
std::vector<finding> run_once(const scenario &given, const cut &where);

} // namespace sweep
