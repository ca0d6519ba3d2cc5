#include "agent/main_loop.h"

#include "agent/active_job_count.h"

#include <unistd.h>

namespace {

constexpr int PASSES_BETWEEN_COUNTS = 10;
constexpr time_t WATCHDOG_PERIOD_S = 30;

} // namespace

void main_loop_pass(tessard &client, main_loop_state &state) {
    if (client.loop(-1, 1) != 0)
        client.reconnect();

    if (++state.passes > PASSES_BETWEEN_COUNTS) {
        update_active_job_count();
        state.passes = 0;
    }

    const time_t now = time(nullptr);
    if (now >= state.next_ping) {
        client.ping_watchdog();
        state.next_ping = now + WATCHDOG_PERIOD_S;
    }

    sleep(1);
}
