// The table of a sweep, for people.
#pragma once

#include "tests/sweep/scenario.h"

namespace sweep {

// Sweeps all scenarios, prints the table, what broke and where, and what is known to break. Returns the
// number of different breakages that are not known, plus the known ones that no longer occur (which only
// a sweep with every cut can tell).
int sweep_group(const scenario_group &group, long every);

} // namespace sweep
