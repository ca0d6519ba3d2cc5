// Runs a scenario whole, then once for every change it makes and every kind of restart, cut before that
// change; checks the invariants after each.
#pragma once

#include "tests/sweep/invariants.h"
#include "tests/sweep/life.h"
#include "tests/sweep/scenario.h"

#include <map>
#include <string>
#include <vector>

namespace sweep {

struct finding {
    std::string scenario;
    std::string invariant;
    std::string text;
    cut where;          // before_change 0: without any cut
    std::string change; // the one that the cut came before
    const known_exception *known = nullptr;
};

struct scenario_result {
    std::string name;
    long changes = 0; // of the run without a cut, up to the last one that moved anything
    long lives = 0;
    std::map<restart, long> cuts;
    std::vector<finding> findings;
};

// With `every` above 1, cuts before every so many changes only.
scenario_result sweep_scenario(const scenario &given, const std::vector<known_exception> &exceptions,
                               long every = 1);

// One run alone; what it did stands in the ledger.
std::vector<finding> run_once(const scenario &given, const cut &where);

} // namespace sweep
