// Runs the agent's real threads one at a time, in virtual time.
//
// One baton: the thread that has it runs until it sleeps or waits for a locked mutex, and hands it to the
// thread that wakes first. So a run costs no real time and is the same each time. Threads are caught where
// they are created (pthread_create) and where they lock (pthread_mutex_lock, by the linker's --wrap).
#pragma once

#include <ctime>
#include <functional>

namespace sweep {

// The calling thread becomes the first one and has the baton. `on_deadlock` is called when every thread
// waits for a mutex, `on_switch` at each hand-over; both may end the process.
void start_scheduler(std::function<void()> on_deadlock, std::function<void()> on_switch);

// Sleeps in virtual time. What sleep() does.
void pause_thread(unsigned seconds);

} // namespace sweep
