// The main thread's loop: MQTT traffic, the active-job count and the watchdog.
#pragma once

#include "agent/client/tessard.h"

#include <ctime>

struct main_loop_state {
    int passes = 0;       // since the active jobs were counted last
    time_t next_ping = 0; // seconds since the epoch; 0: the first pass pings
};

// One pass: handles at most one packet, reconnects once when the connection is broken, counts the
// active jobs on every 11th pass, pings the watchdog every 30 seconds, sleeps 1 second. Takes no lock.
void main_loop_pass(tessard &client, main_loop_state &state);
