// Runs a piece of code in a child under ptrace: to see its system calls, and to kill it between any two.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// A finished system call of the child.
struct traced_call {
    uint64_t number = 0;
    uint64_t arguments[6] = {};
    int64_t result = 0;
    std::string path;     // of the calls that name a file
    std::string new_path; // of the renames
    std::string bytes;    // of the writes
};

// The system calls of body, in order.
std::vector<traced_call> calls_of(const std::function<void()> &body);

// Kills a child that runs body at its stop-th stop. A stop is the entry into a system call or the
// return from it. False when the child has ended before.
bool killed_at(unsigned stop, const std::function<void()> &body);
