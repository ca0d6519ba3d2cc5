#include "tests/fakes/mqtt.h"

#include "platform/mqtt_orv.h"
#include "tests/fakes/calls.h"
#include "tests/fakes/clock.h"

#include <memory>
#include <utility>

namespace {

fakes::mqtt_state state_now;

bool parse(const std::string &text, Json::Value &value) try {
    static const Json::CharReaderBuilder builder = [] {
        Json::CharReaderBuilder whole;
        whole["allowComments"] = false;
        whole["failIfExtra"] = true;
        return whole;
    }();
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    return reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
} catch (const Json::Exception &) {
    return false;
}

} // namespace

namespace fakes {

mqtt_state &mqtt() {
    return state_now;
}

void reset_mqtt() {
    const auto held = hold();
    state_now = {};
}

} // namespace fakes

test_message::test_message(std::string topic, std::string payload)
    : own_topic(std::move(topic)), own_payload(std::move(payload)) {
    message.topic = own_topic.data();
    message.payload = own_payload.data();
    message.payloadlen = static_cast<int>(own_payload.size());
}

std::vector<fakes::published_message> published() {
    const auto held = fakes::hold();
    return state_now.published;
}

std::vector<fakes::published_message> published_on(const std::string &topic) {
    std::vector<fakes::published_message> found;
    for (auto &message : published())
        if (message.topic == topic)
            found.push_back(message);
    return found;
}

std::vector<std::string> published_topics() {
    std::vector<std::string> topics;
    for (auto &message : published())
        topics.push_back(message.topic);
    return topics;
}

// --- mosqpp::mosquittopp, as far as the agent uses it

namespace mosqpp {

mosquittopp::mosquittopp(const char *id, bool) : m_mosq(nullptr) {
    state_now.client_id = id != nullptr ? id : "";
}

mosquittopp::~mosquittopp() = default;

int mosquittopp::loop(int timeout, int max_packets) {
    if (state_now.before_loop)
        state_now.before_loop();
    std::optional<fakes::incoming_message> next;
    bool connected = false;
    {
        const auto held = fakes::hold();
        state_now.loops++;
        if (state_now.loop_arguments.size() < 10)
            state_now.loop_arguments.emplace_back(timeout, max_packets);
        if (const auto answer = fakes::set_answer("loop", ""); answer.value_or(0) != 0)
            return *answer;
        connected = std::exchange(state_now.connect_pending, false);
        if (!connected && !state_now.incoming.empty()) {
            next = state_now.incoming.front();
            state_now.incoming.pop_front();
        }
    }
    if (connected)
        on_connect(0);
    if (next)
        on_message(test_message(next->topic, next->payload).get());
    return 0;
}

int mosquittopp::reconnect() {
    const auto held = fakes::hold();
    fakes::record(fakes::call_kind::QUERY, "reconnect", "");
    state_now.reconnects++;
    const int result = fakes::set_answer("reconnect", "").value_or(0);
    state_now.connect_pending = result == 0;
    return result;
}

int mosquittopp::subscribe(int *message_id, const char *topic, int qos) {
    const auto held = fakes::hold();
    fakes::record(fakes::call_kind::QUERY, "subscribe", topic);
    state_now.subscriptions.push_back({topic, qos, message_id});
    return fakes::set_answer("subscribe", topic).value_or(0);
}

} // namespace mosqpp

// --- mqtt_orv

struct mqtt_orv::state {};

mqtt_orv::mqtt_orv(const char *client_id, const char *host, int port, bool flag)
    : mosqpp::mosquittopp(client_id), own(std::make_unique<state>()) {
    const auto held = fakes::hold();
    state_now.host = host;
    state_now.port = port;
    state_now.flag = flag;
}

mqtt_orv::~mqtt_orv() = default;

int mqtt_orv::start_mqtt_connection() {
    const auto held = fakes::hold();
    fakes::record(fakes::call_kind::QUERY, "start_mqtt_connection", "");
    const int result = fakes::set_answer("start_mqtt_connection", "").value_or(0);
    state_now.connect_pending = result == 0;
    return result;
}

std::string mqtt_orv::serialize(const Json::Value &value) {
    static const Json::StreamWriterBuilder builder = [] {
        Json::StreamWriterBuilder one_line;
        one_line["indentation"] = "";
        return one_line;
    }();
    return Json::writeString(builder, value);
}

bool mqtt_orv::deserialize(const std::string &text, Json::Value &value) {
    return parse(text, value);
}

int mqtt_orv::send_message(int *message_id, const std::string &topic, const std::string &payload) {
    fakes::published_message message{topic, payload, {}, message_id, 0, fakes::now()};
    parse(payload, message.json);
    fakes::change("send_message", topic + " " + payload);
    {
        const auto held = fakes::hold();
        if (message_id != nullptr)
            message.message_id_value = __atomic_load_n(message_id, __ATOMIC_SEQ_CST);
        if (const auto answer = fakes::set_answer("send_message", topic); answer.value_or(0) != 0)
            return *answer;
        state_now.published.push_back(message);
    }
    if (state_now.after_publish)
        state_now.after_publish(message);
    return 0;
}

void mqtt_orv::ping_watchdog() {
    const auto held = fakes::hold();
    fakes::record(fakes::call_kind::QUERY, "ping_watchdog", "");
    state_now.watchdog_pings.push_back(fakes::now());
}

void mqtt_orv::on_connect(int rc) {
    derived_on_connect(rc);
}
void mqtt_orv::on_disconnect(int rc) {
    derived_on_disconnect(rc);
}
void mqtt_orv::on_publish(int) {}

void mqtt_orv::on_message(const struct mosquitto_message *message) try {
    derived_on_message(message);
} catch (...) {
    const auto held = fakes::hold();
    state_now.escaped_exceptions++;
}

void mqtt_orv::derived_on_connect(int) {}
void mqtt_orv::derived_on_disconnect(int) {}
void mqtt_orv::derived_on_message(const struct mosquitto_message *) {}
