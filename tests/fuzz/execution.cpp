#include "tests/fuzz/execution.h"

#include "tests/fakes/clock.h"
#include "tests/fuzz/broken.h"
#include "tests/fuzz/known_files.h"

#include <dirent.h>
#include <dlfcn.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr time_t FIRST_TIME = 1'000'000'000;
constexpr time_t LAST_TIME = 2'000'000'000; // times of the agent have 32 bits
constexpr time_t BETWEEN_EXECUTIONS = 60;

thread_local bool executing = false;
time_t current = FIRST_TIME;
time_t end_of_execution = 0;
time_t end_of_run = 0; // 0: no run_until
std::function<bool()> run_is_at_rest;
bool is_up = false;
std::vector<DIR *> streams;

bool is_priority_of_the_agent(int priority) {
    return priority == LOG_ALERT || priority == LOG_ERR || priority == LOG_NOTICE || priority == LOG_INFO ||
           priority == LOG_DEBUG;
}

void format_line(int priority, const char *format, va_list arguments) __attribute__((format(printf, 2, 0)));
void format_line(int priority, const char *format, va_list arguments) {
    static std::vector<char> line(1 << 16);
    if (!is_priority_of_the_agent(priority))
        fuzz::broken("a log line of priority " + std::to_string(priority));
    if (vsnprintf(line.data(), line.size(), format, arguments) < 0)
        fuzz::broken(std::string("a log line that cannot be formatted: ") + format);
}

// What libFuzzer keeps of a crash it opens for bytes, the agent never.
bool writes(const char *mode) {
    return std::strpbrk(mode, "wa+") != nullptr && std::strchr(mode, 'b') == nullptr;
}

} // namespace

namespace fuzz {

execution::execution() {
    current = current < LAST_TIME ? current + BETWEEN_EXECUTIONS : FIRST_TIME;
    end_of_execution = current + LONGEST_EXECUTION;
    end_of_run = 0;
    is_up = false;
    executing = true;
}

execution::~execution() {
    executing = false;
    for (DIR *stream : streams)
        closedir(stream);
    streams.clear();
}

bool time_is_up() {
    return is_up;
}

void run_until(time_t seconds, const std::function<bool()> &at_rest, const std::function<void()> &body) {
    end_of_run = current + seconds;
    run_is_at_rest = at_rest;
    try {
        body();
    } catch (const fake_stop &) {
    }
    end_of_run = 0;
}

} // namespace fuzz

time_t fakes::now() {
    return current;
}

void advance(time_t seconds) {
    current += std::min(seconds, end_of_execution - current);
}

extern "C" time_t time(time_t *result) noexcept {
    static auto *const real = reinterpret_cast<time_t (*)(time_t *)>(dlsym(RTLD_NEXT, "time"));
    const time_t now = executing ? current : real(nullptr);
    if (result != nullptr)
        *result = now;
    return now;
}

extern "C" unsigned sleep(unsigned seconds) {
    static auto *const real = reinterpret_cast<unsigned (*)(unsigned)>(dlsym(RTLD_NEXT, "sleep"));
    if (!executing)
        return real(seconds);
    const time_t awake = current + static_cast<time_t>(seconds);
    if (awake > end_of_execution) {
        is_up = true;
        throw fake_stop();
    }
    if (end_of_run != 0 && awake > end_of_run && run_is_at_rest())
        throw fake_stop();
    current = awake;
    return 0;
}

extern "C" void __syslog_chk(int priority, int flag, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

extern "C" void openlog(const char *, int, int) {}

extern "C" void syslog(int priority, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    format_line(priority, format, arguments);
    va_end(arguments);
}

extern "C" void __syslog_chk(int priority, int, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    format_line(priority, format, arguments);
    va_end(arguments);
}

extern "C" DIR *__real_opendir(const char *path);
extern "C" DIR *__wrap_opendir(const char *path);
extern "C" DIR *__wrap_opendir(const char *path) {
    DIR *stream = __real_opendir(path);
    if (executing && stream != nullptr)
        streams.push_back(stream);
    return stream;
}

extern "C" FILE *__real_fopen(const char *path, const char *mode);
extern "C" FILE *__wrap_fopen(const char *path, const char *mode);
extern "C" FILE *__wrap_fopen(const char *path, const char *mode) {
    if (executing && writes(mode))
        fuzz::must_be_known(path, "fopen");
    return __real_fopen(path, mode);
}

extern "C" int __real_rename(const char *from, const char *to);
extern "C" int __wrap_rename(const char *from, const char *to);
extern "C" int __wrap_rename(const char *from, const char *to) {
    if (executing) {
        fuzz::must_be_known(from, "rename");
        fuzz::must_be_known(to, "rename");
    }
    return __real_rename(from, to);
}
