// syslog and openlog of the test program: recorded, priorities and all.
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <syslog.h>
#include <vector>

struct log_line {
    int priority; // LOG_ALERT, LOG_ERR, LOG_NOTICE, LOG_INFO, LOG_DEBUG
    std::string text;
    bool operator==(const log_line &) const = default;
};

void PrintTo(const log_line &line, std::ostream *out);

// Every line so far, in order, on all threads.
std::vector<log_line> log_lines();

struct opened_log {
    std::string ident;
    int options;
    int facility;
    bool operator==(const opened_log &) const = default;
};

// Every openlog so far.
std::vector<opened_log> opened_logs();

namespace fakes {

// Called with each line, when set.
extern std::function<void(const std::string &text)> on_log;

void reset_log();

} // namespace fakes
