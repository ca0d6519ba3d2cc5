// What the agent publishes, judged as it goes out.
#pragma once

#include <string>

namespace fakes {
struct published_message;
}

namespace fuzz {

void forget_reports();

// For fakes::mqtt().after_publish. Broken when the topic is none of the agent's, when the payload is no JSON although
// its topic has JSON, and when a report of a status is not one of the four or does not say whose it is.
void take_report(const fakes::published_message &message);

// The "session" of the latest report of a status, as JSON text; "0" before the first.
std::string latest_session();

} // namespace fuzz
