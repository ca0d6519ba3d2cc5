// The virtual clock: time() of the test program, which only sleep() and the test move.
#pragma once

#include <ctime>
#include <functional>
#include <vector>

// What a sleep throws once the time of run_for is over. Not derived from std::exception.
struct fake_stop {};

// The time at which each test starts.
constexpr time_t START_TIME = 1'700'000'000;

void set_time(time_t now);
void advance(time_t seconds);

// Every sleep so far, in seconds, on all threads. Its journal entry: "sleep 2".
std::vector<unsigned> sleeps();

// Runs something that does not end by itself, such as job_mgr_main: the first sleep that would go
// beyond `seconds` of virtual time throws fake_stop, and so does every later one (a catch-all in
// between may hold one up), until it comes out of body.
void run_for(time_t seconds, const std::function<void()> &body);

namespace fakes {

time_t now();

// Takes the place of moving the clock, when set: the sweep's scheduler.
extern std::function<void(unsigned)> on_sleep;

void reset_clock();

} // namespace fakes
