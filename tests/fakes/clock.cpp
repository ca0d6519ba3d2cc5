#include "tests/fakes/clock.h"

#include "tests/fakes/calls.h"

#include <unistd.h>

#include <atomic>
#include <string>

namespace {

std::atomic<time_t> current{START_TIME};
std::atomic<time_t> stop_at{0};
std::vector<unsigned> slept;

} // namespace

void set_time(time_t now) {
    current = now;
}
void advance(time_t seconds) {
    current += seconds;
}

std::vector<unsigned> sleeps() {
    const auto held = fakes::hold();
    return slept;
}

void run_for(time_t seconds, const std::function<void()> &body) {
    stop_at = current + seconds;
    try {
        body();
    } catch (const fake_stop &) {
    }
    stop_at = 0;
}

namespace fakes {

std::function<void(unsigned)> on_sleep;

time_t now() {
    return current;
}

void reset_clock() {
    const auto held = hold();
    current = START_TIME;
    stop_at = 0;
    slept.clear();
    on_sleep = nullptr;
}

} // namespace fakes

extern "C" time_t time(time_t *result) noexcept {
    if (result != nullptr)
        *result = current;
    return current;
}

extern "C" unsigned sleep(unsigned seconds) {
    fakes::record(fakes::call_kind::PAUSE, "sleep", std::to_string(seconds));
    {
        const auto held = fakes::hold();
        slept.push_back(seconds);
    }
    if (fakes::on_sleep) {
        fakes::on_sleep(seconds);
        return 0;
    }
    if (stop_at != 0 && current + static_cast<time_t>(seconds) > stop_at)
        throw fake_stop();
    current += seconds;
    return 0;
}
