// Functions of the platform that an input lets fail.
#pragma once

#include <optional>
#include <string>

namespace fuzz {

// From now on every call fails: "write_json_file", "ping_test", ... A name of no function is remembered in vain.
void let_fail(const std::string &function);
void let_all_work();

std::optional<int> failure_of(const std::string &function);

} // namespace fuzz
