// The world around the agent during one life: delivers the scenario's inputs and the cloud's answers when
// they are due. What has been delivered stands in the ledger, so the next life goes on from there.
#pragma once

#include "tests/sweep/scenario.h"

namespace sweep {

// In the process of a life, before the agent starts.
void enter_world(const scenario &given);

// One step of the world, in the agent's loop(): all acts that are due, and at most one message. True when
// there was one.
bool step_world();

// A message that comes in so many seconds, from a program that ends with this life.
void send_later(time_t seconds, const std::string &topic, const std::string &text);

// Nothing is due any more.
bool world_is_done();

} // namespace sweep
