// One life of the agent: the real entry with its two threads, in a process of its own, on the fakes.
#pragma once

#include "tests/sweep/scenario.h"

#include <string>

namespace sweep {

struct cut {
    long before_change = 0; // counted over all lives of a run, from 1; 0: none
    restart kind = restart::KILL;
};

enum class ending {
    QUIET,    // nothing moves any more, and nothing more is to come
    CUT,      // before the change asked for
    REBOOT,   // the agent has rebooted the device
    RESTLESS, // changes went on for too long
    DEADLOCK,
    DIED, // by itself: an exception, a signal, a sanitizer
};

const char *name_of(ending how);

// The agent's regular counting of its jobs, which moves nothing, by the arguments of a change.
bool is_housekeeping(const std::string &arguments);

// Runs until one of the endings; the ledger and the file system keep what it did.
ending run_life(const scenario &given, const cut &where);

} // namespace sweep
