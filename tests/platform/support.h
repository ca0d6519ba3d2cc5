// What the tests of the platform share.
#pragma once

#include <functional>
#include <string>
#include <vector>

std::string read_text(const std::string &path); // empty when it cannot be read
void write_text(const std::string &path, const std::string &text);

// The names in a folder, sorted; empty when there is no such folder.
std::vector<std::string> names_in(const std::string &folder);

// Runs body in a child process, which ends with body's result, and returns the wait status.
int wait_status_of(const std::function<int()> &body);

// The exit status of a child that runs body; fails the calling test when it was killed.
int exit_status_of(const std::function<int()> &body);

// Takes a command off the machine for as long as this lives. Stubs that a test has put in its place
// are removed at the end.
class missing_command {
public:
    explicit missing_command(const std::string &name);
    ~missing_command();
    missing_command(const missing_command &) = delete;
    missing_command &operator=(const missing_command &) = delete;

private:
    std::string path;
    std::string in_sbin;
    std::string bytes;
};

// Puts text in the place of what /proc/cmdline says, until the process ends.
void set_kernel_command_line(const std::string &text);

// Makes /etc writable without touching the machine's own.
void make_etc_private();
