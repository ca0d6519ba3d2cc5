// The progress texts of an apply, followed as they come.
#pragma once

#include <json/json.h>

namespace vtrcfg {

class progress {
public:
    // What the history holds now belongs to former applies.
    progress();

    // Prints each text once. False when the time is over before the apply has begun and ended.
    bool follow_to_the_end(int seconds);

private:
    bool print_new_texts();

    Json::Value seen;
};

} // namespace vtrcfg
