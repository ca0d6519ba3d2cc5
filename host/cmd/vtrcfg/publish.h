// One message to the broker on this router.
#pragma once

#include <string>

namespace vtrcfg {

// The broker hands the message to who subscribes its topic now, and keeps it for kept_seconds for who does so
// later: each subscriber gets it once. Returns when the broker has answered, at the latest after ten seconds;
// false when it cannot be reached, or refuses.
bool publish(const std::string &topic, const std::string &payload, int kept_seconds);

} // namespace vtrcfg
