#include "tests/fakes/log.h"

#include "tests/fakes/calls.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>

extern "C" void __syslog_chk(int priority, int flag, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

namespace {

std::vector<log_line> lines;
std::vector<opened_log> opened;

const char *priority_name(int priority) {
    switch (priority) {
    case LOG_ALERT:
        return "Alert";
    case LOG_ERR:
        return "Error";
    case LOG_NOTICE:
        return "Notice";
    case LOG_INFO:
        return "Info";
    case LOG_DEBUG:
        return "Debug";
    default:
        return "priority outside the agent's five";
    }
}

__attribute__((format(printf, 2, 0))) void keep(int priority, const char *format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int size = vsnprintf(nullptr, 0, format, arguments);
    std::string text(size < 0 ? 0 : static_cast<size_t>(size), '\0');
    vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);

    const auto held = fakes::hold();
    lines.push_back({priority, text});
    fakes::record(fakes::call_kind::LOG, "syslog", text);
    if (fakes::on_log)
        fakes::on_log(text);
}

} // namespace

void PrintTo(const log_line &line, std::ostream *out) {
    *out << priority_name(line.priority) << "(\"" << line.text << "\")";
}

std::vector<log_line> log_lines() {
    const auto held = fakes::hold();
    return lines;
}

std::vector<opened_log> opened_logs() {
    const auto held = fakes::hold();
    return opened;
}

std::function<void(const std::string &)> fakes::on_log;

void fakes::reset_log() {
    on_log = nullptr;
    const auto held = hold();
    lines.clear();
    opened.clear();
}

extern "C" void openlog(const char *ident, int options, int facility) {
    const auto held = fakes::hold();
    opened.push_back({ident, options, facility});
    fakes::record(fakes::call_kind::LOG, "openlog", ident);
}

extern "C" void syslog(int priority, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    keep(priority, format, arguments);
    va_end(arguments);
}

extern "C" void __syslog_chk(int priority, int, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    keep(priority, format, arguments);
    va_end(arguments);
}
