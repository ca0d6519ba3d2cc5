// One execution of a target: one input, on a clock and with a C library of its own.
//
// The program defines time, sleep, syslog and openlog, and is linked with --wrap for opendir, fopen and rename.
// While an execution lasts, on its thread, they are the fakes described here; before, after and on every other
// thread (libFuzzer's own) they are the C library's.
//
//   time     the virtual clock, which only sleep and advance() move. It never goes back from one execution to the
//            next: what the agent keeps for the life of its process is then always over.
//   sleep    costs nothing. Throws fake_stop beyond the time that the execution has, and beyond run_until's at rest.
//   syslog   formats the line, so that its arguments are read, and drops it. Its priority is one of the agent's five.
//   opendir  what the agent opens is closed after the execution: one of its orders leaves a stream open on purpose.
//   fopen, rename   only the known files are written (known_files.h).
#pragma once

#include <ctime>
#include <functional>

namespace fuzz {

// Virtual seconds that one execution has.
constexpr time_t LONGEST_EXECUTION = 4000;

class execution {
public:
    execution();
    ~execution();
    execution(const execution &) = delete;
    execution &operator=(const execution &) = delete;
};

// The execution's time is over: what follows is cut off anywhere, and must not be judged.
bool time_is_up();

// Runs what does not end by itself: the first sleep beyond `seconds` in which it is at rest ends it.
void run_until(time_t seconds, const std::function<bool()> &at_rest, const std::function<void()> &body);

} // namespace fuzz
