// Running other programs, by posix_spawn and without a shell of our own making.
//
// Children start with the default SIGPIPE and SIGCHLD (the MQTT library makes this process ignore the
// first) and inherit no open file but standard input, output and error: one that stays behind in the
// background must not hold the broker's connection or a database open.
#pragma once

#include <chrono>
#include <string>
#include <vector>

// Runs text by /bin/sh, of any length, and waits. Returns the exit status, 128 + n for a shell ended
// by signal n, -1 when it could not be run.
int run_shell(const std::string &text);

// Finds the program on PATH, runs it and waits; same result.
int run_program(const std::vector<std::string> &arguments);

// The same with input and outputs at /dev/null; the program is killed after limit.
int run_program_silently(const std::vector<std::string> &arguments, std::chrono::milliseconds limit);
