#include "tests/fuzz/failures.h"

#include <set>

namespace {

std::set<std::string> failing;

} // namespace

void fuzz::let_fail(const std::string &function) {
    failing.insert(function);
}

void fuzz::let_all_work() {
    failing.clear();
}

std::optional<int> fuzz::failure_of(const std::string &function) {
    if (failing.empty() || !failing.contains(function))
        return std::nullopt;
    return -1;
}
