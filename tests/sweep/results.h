// The results of a group of scenarios as a file, for page.py.
#pragma once

#include "tests/sweep/sweep.h"

#include <string>
#include <vector>

namespace sweep {

// False when it cannot be written.
bool write_results(const std::string &path, const scenario_group &group,
                   const std::vector<scenario_result> &results, long every);

} // namespace sweep
