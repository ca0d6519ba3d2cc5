// One message to the broker on this router.
#pragma once

#include <string>

namespace vtrcfg {

enum class delivery {
    taken,  // by at least one subscriber
    nobody, // the broker has it, and no one subscribes the topic
    failed, // the broker cannot be reached, or refuses
};

// Returns when the broker has answered, at the latest after ten seconds.
delivery publish(const std::string &topic, const std::string &payload);

} // namespace vtrcfg
