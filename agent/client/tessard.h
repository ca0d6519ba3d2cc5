// The agent's one MQTT client: subscribes the request topics on every connection and hands every
// received message to the front end.
#pragma once

#include "platform/mqtt_orv.h"

#include <atomic>
#include <cstdint>
#include <mutex>

class tessard : public mqtt_orv {
public:
    tessard(const char *client_id, const char *host, int port);
    ~tessard() override;

    // Subscribes the request topics when rc is 0. A failed subscription is not detected; the next
    // connection subscribes again.
    void derived_on_connect(int rc) override;

    // Handles one message on the thread that runs loop(), with message_mutex held for all of it.
    // What a handler throws is caught here. Throws std::system_error when the lock fails.
    void derived_on_message(const struct mosquitto_message *message) override;

    // Seconds since the epoch of the last request to abort a configuration apply; 0: none. Written on
    // the main thread, read and cleared by the thread that runs the apply.
    std::atomic<int32_t> abort_request_time{0};

    // Nothing of the agent reads these three.
    bool reserved_off = false;
    bool reserved_on = true;
    Json::Value reserved_value;

    // Held while a message is handled, and by the reset button's restores until the reboot.
    std::mutex message_mutex;

    // The cloud has reported itself connected. Nothing of the agent reads it.
    bool cloud_connected = false;
};

// Finds the handler of a received message by its topic and runs it; a topic that no rule matches is dropped.
// Declared here and defined by the front end, the one thing that the client asks of what stands above it.
// Runs inside the message hook, with message_mutex held. Throws what a handler throws.
void route_message(tessard &client, const mosquitto_message *message);
