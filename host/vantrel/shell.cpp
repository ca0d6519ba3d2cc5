#include "host/vantrel/process.h"
#include "platform/vantrel.h"

#include <cstdarg>
#include <cstdio>
#include <stdexcept>
#include <string>

namespace {

__attribute__((format(printf, 1, 0))) std::string formatted(const char *format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length < 0)
        throw std::runtime_error("no such format");
    std::string text(static_cast<size_t>(length), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

} // namespace

int orvsys(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    int status = -1;
    try {
        status = run_shell(formatted(format, arguments));
    } catch (...) {
        status = -1;
    }
    va_end(arguments);
    return status;
}
