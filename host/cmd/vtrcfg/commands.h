// What vtrcfg does for each of its commands. Each prints its answer to standard output and what is
// wrong to standard error, and returns the exit code: 0 done or yes, 1 no, 2 it could not be done.
#pragma once

#include <stdexcept>
#include <string>

namespace vtrcfg {

constexpr int YES = 0;
constexpr int NO = 1;
constexpr int TROUBLE = 2;

// Ends a command with exit code 2 and the text.
struct trouble : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// path: dotted, or empty for the whole document. plain: sensitive fields decoded.
int get(const std::string &path, bool plain, bool edited);

// The edited configuration begins as a copy of the running one and takes one change after the other.
// value is JSON; what is not, or all of it with as_text, is a text.
int set(const std::string &path, const std::string &value, bool as_text);
int unset(const std::string &path);
int discard();

// Without a file the edited configuration, or the running one when nothing was edited.
int validate(const std::string &file);
int hash(const std::string &file);

// What differs from the running configuration; 0 nothing, 1 something.
int diff(const std::string &file);

struct request_options {
    std::string file;       // empty: the edited configuration
    bool validate = true;   // refuse what the agent would refuse
    bool wait = false;      // until the apply has ended; 0 only when the next boot takes it too
    int wait_seconds = 900; // for the end; an agent that is not busy has at most 30 of them to begin
};
int request(const request_options &options);

int status();
int init();

} // namespace vtrcfg
