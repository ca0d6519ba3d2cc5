// The words of which a row of exceptions is made. Read in by the files of rows only.
#pragma once

#include "tests/sweep/exception.h"
#include "tests/sweep/names.h"

namespace sweep::row_words {

using in = scenario_names;
using by = cut_kinds;

inline constexpr restart UNCUT = restart::NONE;
inline constexpr restart KILL = restart::KILL;
inline constexpr restart REBOOT = restart::REBOOT;
inline constexpr restart POWER = restart::POWER_CUT;
inline constexpr restart TORN = restart::TORN;
inline constexpr restart STALL = restart::STALL;
inline constexpr restart HELD = restart::HELD;

} // namespace sweep::row_words
