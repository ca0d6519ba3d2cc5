// A system call, again while a signal interrupts it.
#pragma once

#include <cerrno>

template <typename call_type> auto retried(call_type call) {
    auto result = call();
    while (result == -1 && errno == EINTR)
        result = call();
    return result;
}
