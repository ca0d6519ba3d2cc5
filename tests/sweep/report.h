// The table of a sweep, for people.
#pragma once

#include "tests/sweep/sweep.h"

namespace sweep {

// Sweeps all scenarios, prints the table, what broke and where, and what is known to break. Returns the
// number of different breakages that are not known, plus the known ones that no longer occur (which only
// a sweep with every cut can tell). With a folder, its results are written to GROUP.json there.
int sweep_group(const scenario_group &group, const options &wanted, const std::string &results_folder);

} // namespace sweep
