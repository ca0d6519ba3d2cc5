// One life of the agent: the real entry with its two threads, in a process of its own, on the fakes.
#pragma once

#include "tests/sweep/scenario.h"

#include <sys/types.h>

#include <optional>
#include <string>

namespace sweep {

struct cut {
    long before_change = 0; // counted over all lives of a run, from 1; 0: none
    restart kind = restart::KILL;
    size_t variant = 0; // of what a power cut may leave
};

// Before which changes a life stops, so that what could happen there can be tried.
struct stops {
    long first = 0; // 0: none
    long last = 0;
    bool at_places = false; // at locks, reads of job files and ties too, while changes in this range come
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

// The ledger and the file system keep what it did.
class life {
public:
    // Begins when it is first gone on with. Ends before the change where it is cut, or, with STALL, is held up there.
    explicit life(const scenario &scenario, const cut &where = {}, const stops &at = {})
        : given(scenario), cut_here(where), stops_at(at) {}
    ~life();
    life(const life &) = delete;
    life &operator=(const life &) = delete;

    // Until its end, or until it stops: empty.
    std::optional<ending> go_on();

    // What it stops before: a change as the ledger tells it, or a place ("lock", "read PATH", "tie").
    std::string stopped_before() const;
    bool stopped_at_place() const;

    // The end of a copy of a life that has stopped, of which the running thread is held up where it stopped (at a
    // tie: in which the other thread goes first).
    ending branch();

private:
    void begin();

    const scenario &given;
    const cut cut_here;
    const stops stops_at;
    pid_t process = 0;
};

} // namespace sweep
