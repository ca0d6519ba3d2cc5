#include "host/cmd/vtrcfg/publish.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <chrono>
#include <memory>
#include <optional>

namespace vtrcfg {
namespace {

constexpr auto LIMIT = std::chrono::seconds(10);
constexpr int AT_LEAST_ONCE = 1;

struct exchange {
    const std::string &topic;
    const std::string &payload;
    int kept_seconds;
    std::optional<bool> done;
};

bool send(mosquitto *client, const exchange &one) {
    mosquitto_property *expiry = nullptr;
    bool sent = mosquitto_property_add_int32(&expiry, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL,
                                             static_cast<uint32_t>(one.kept_seconds)) == MOSQ_ERR_SUCCESS;
    sent =
        sent && mosquitto_publish_v5(client, nullptr, one.topic.c_str(), static_cast<int>(one.payload.size()),
                                     one.payload.c_str(), AT_LEAST_ONCE, true, expiry) == MOSQ_ERR_SUCCESS;
    mosquitto_property_free_all(&expiry);
    return sent;
}

void on_connect(mosquitto *client, void *object, int rc) {
    auto &one = *static_cast<exchange *>(object);
    if (rc != 0 || !send(client, one))
        one.done = false;
}

void on_publish(mosquitto *, void *object, int, int reason, const mosquitto_property *) {
    static_cast<exchange *>(object)->done = reason == 0 || reason == MQTT_RC_NO_MATCHING_SUBSCRIBERS;
}

using client_ptr = std::unique_ptr<mosquitto, decltype(&mosquitto_destroy)>;

bool run(mosquitto *client, const exchange &one) {
    if (mosquitto_connect(client, "localhost", 1883, 30) != MOSQ_ERR_SUCCESS)
        return false;
    const auto limit = std::chrono::steady_clock::now() + LIMIT;
    while (!one.done && std::chrono::steady_clock::now() < limit)
        if (mosquitto_loop(client, 100, 1) != MOSQ_ERR_SUCCESS)
            return false;
    mosquitto_disconnect(client);
    return one.done.value_or(false);
}

} // namespace

// Version 5 of the protocol: it alone lets a kept message expire.
bool publish(const std::string &topic, const std::string &payload, int kept_seconds) {
    exchange one{topic, payload, kept_seconds, std::nullopt};
    mosquitto_lib_init();
    bool done = false;
    if (const client_ptr client{mosquitto_new(nullptr, true, &one), mosquitto_destroy}) {
        mosquitto_int_option(client.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
        mosquitto_connect_callback_set(client.get(), on_connect);
        mosquitto_publish_v5_callback_set(client.get(), on_publish);
        done = run(client.get(), one);
    }
    mosquitto_lib_cleanup();
    return done;
}

} // namespace vtrcfg
