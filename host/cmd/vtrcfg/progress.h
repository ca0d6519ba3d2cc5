// The progress texts of an apply, followed as they come.
#pragma once

#include <json/json.h>

namespace vtrcfg {

class progress {
public:
    // What the history holds now belongs to former applies.
    progress();

    // Until the agent tells that it has queued a request. False when the time is over before.
    bool waits_for_the_queue(int seconds) const;

    // Prints each text once, until the apply of the request that was queued has ended: nothing is under way any
    // more, and its candidate is gone. False when the time is over before.
    bool follow_to_the_end(int seconds);

private:
    void print_new_texts();

    Json::Value seen;
};

} // namespace vtrcfg
