#include "tests/sweep/exception.h"

#include <algorithm>

namespace sweep {

bool scenario_names::has(const std::string &name) const {
    return std::any_of(begin(), end(), [&](const char *each) { return name == each; });
}

} // namespace sweep
