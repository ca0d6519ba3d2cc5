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
    std::optional<delivery> result;
};

void on_connect(mosquitto *client, void *object, int rc) {
    auto &one = *static_cast<exchange *>(object);
    if (rc != 0 || mosquitto_publish(client, nullptr, one.topic.c_str(), static_cast<int>(one.payload.size()),
                                     one.payload.c_str(), AT_LEAST_ONCE, false) != MOSQ_ERR_SUCCESS)
        one.result = delivery::failed;
}

void on_publish(mosquitto *, void *object, int, int reason, const mosquitto_property *) {
    auto &one = *static_cast<exchange *>(object);
    if (reason == MQTT_RC_NO_MATCHING_SUBSCRIBERS)
        one.result = delivery::nobody;
    else
        one.result = reason == 0 ? delivery::taken : delivery::failed;
}

using client_ptr = std::unique_ptr<mosquitto, decltype(&mosquitto_destroy)>;

delivery run(mosquitto *client, const exchange &one) {
    if (mosquitto_connect(client, "localhost", 1883, 30) != MOSQ_ERR_SUCCESS)
        return delivery::failed;
    const auto limit = std::chrono::steady_clock::now() + LIMIT;
    while (!one.result && std::chrono::steady_clock::now() < limit)
        if (mosquitto_loop(client, 100, 1) != MOSQ_ERR_SUCCESS)
            return delivery::failed;
    mosquitto_disconnect(client);
    return one.result.value_or(delivery::failed);
}

} // namespace

// Version 5 of the protocol: it alone tells whether anyone subscribes.
delivery publish(const std::string &topic, const std::string &payload) {
    exchange one{topic, payload, std::nullopt};
    mosquitto_lib_init();
    delivery result = delivery::failed;
    if (const client_ptr client{mosquitto_new(nullptr, true, &one), mosquitto_destroy}) {
        mosquitto_int_option(client.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
        mosquitto_connect_callback_set(client.get(), on_connect);
        mosquitto_publish_v5_callback_set(client.get(), on_publish);
        result = run(client.get(), one);
    }
    mosquitto_lib_cleanup();
    return result;
}

} // namespace vtrcfg
