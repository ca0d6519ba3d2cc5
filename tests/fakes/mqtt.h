// The MQTT client library without a network: mosqpp::mosquittopp and mqtt_orv.
//
// Journal entries: "send_message TOPIC PAYLOAD" (a change), "subscribe TOPIC", "reconnect",
// "start_mqtt_connection", "ping_watchdog" (queries). will_return works for "loop", "reconnect",
// "subscribe", "start_mqtt_connection" and "send_message"; "loop" is not in the journal.
#pragma once

#include <json/json.h>
#include <mosquitto.h>

#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace fakes {

struct published_message {
    std::string topic;
    std::string payload;
    Json::Value json; // null when the payload is no JSON
    int *message_id;  // the counter handed over
    int message_id_value = 0;
    time_t at;
};

struct subscription {
    std::string topic;
    int qos;
    int *message_id;
    bool operator==(const subscription &) const = default;
};

struct incoming_message {
    std::string topic;
    std::string payload;
};

struct mqtt_state {
    // What the last client was built with.
    std::string client_id;
    std::string host;
    int port = 0;
    bool flag = true;

    std::vector<subscription> subscriptions;
    std::vector<published_message> published;

    // What loop() delivers, one message a call, to the client's on_message.
    std::deque<incoming_message> incoming;

    unsigned loops = 0;
    std::vector<std::pair<int, int>> loop_arguments; // timeout, max_packets of the first ten
    unsigned reconnects = 0;
    std::vector<time_t> watchdog_pings;

    // A connect that succeeded; the next loop() calls on_connect(0), as a real client does.
    bool connect_pending = false;

    // An exception that came out of derived_on_message, swallowed as the library does.
    unsigned escaped_exceptions = 0;

    std::function<void()> before_loop;                            // runs first in every loop()
    std::function<void(const published_message &)> after_publish; // runs last in send_message
};

mqtt_state &mqtt();
void reset_mqtt();

} // namespace fakes

// A message as the library hands it to a handler, alive as long as this object.
class test_message {
public:
    explicit test_message(std::string topic, std::string payload = "");
    test_message(const test_message &) = delete;
    test_message &operator=(const test_message &) = delete;
    const mosquitto_message *get() const { return &message; }

private:
    std::string own_topic;
    std::string own_payload;
    mosquitto_message message{};
};

// All publishes so far, and those on one topic.
std::vector<fakes::published_message> published();
std::vector<fakes::published_message> published_on(const std::string &topic);

// The topics of all publishes, in order.
std::vector<std::string> published_topics();
