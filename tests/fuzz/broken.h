// What a target does when something that must hold does not.
#pragma once

#include <string>

namespace fuzz {

// Says what does not hold and aborts: libFuzzer keeps the input, the replay names it.
[[noreturn]] void broken(const std::string &what);

} // namespace fuzz
