// Runs the agent's real threads one at a time, in virtual time.
//
// Each of them is a coroutine of one thread of the system: it runs until it sleeps or waits for a locked mutex,
// and is followed by the one that wakes first. So a run costs no real time, is the same each time, and fork()
// takes all threads along. Threads are caught where they are created (pthread_create) and where they lock
// (pthread_mutex_lock, by the linker's --wrap).
#pragma once

#include <ctime>
#include <functional>

namespace sweep {

struct scheduler_events {
    std::function<void()> deadlocked; // every thread waits for a mutex; does not return
    std::function<void()> switched;   // at each hand-over; may end the process

    // Of the agent's own mutexes: before one is asked for, and after it was given back.
    std::function<void()> at_lock = nullptr;

    // Two threads wake at this time: true when the one that asked later is to go first.
    std::function<bool()> other_order = nullptr;
};

// The caller becomes the first thread.
void start_scheduler(scheduler_events events);

// Sleeps in virtual time. What sleep() does.
void pause_thread(unsigned seconds);

} // namespace sweep
