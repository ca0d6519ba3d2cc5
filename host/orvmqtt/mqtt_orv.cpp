// The client runs in libmosquitto's threaded mode although it starts no thread of it: then publish()
// only queues the packet and wakes the loop() of the other thread by a socket pair, and the queues are
// locked.
#include "platform/mqtt_orv.h"
#include "host/orvmqtt/extra_subscriptions.h"
#include "host/vantrel/json_text.h"

#include <climits>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

namespace {

// A handler may block for many minutes, and nothing is sent meanwhile. The broker drops a client that
// was silent for one and a half keepalives (MQTT 3.1.1, 3.1.2.10): 90 minutes here. Nothing is lost by
// a long one, because the broker is on the same device: its end closes the connection at once.
constexpr int KEEPALIVE_SECONDS = 3600;

class mosquitto_library {
public:
    mosquitto_library() { mosqpp::lib_init(); }
    ~mosquitto_library() { mosqpp::lib_cleanup(); }
    mosquitto_library(const mosquitto_library &) = delete;
    mosquitto_library &operator=(const mosquitto_library &) = delete;
};

const char *with_library_ready(const char *client_id) {
    static const mosquitto_library library;
    return client_id;
}

// libmosquitto opens its socket, and the pair that wakes its loop, without close-on-exec: what the agent
// starts by system() would hold the broker's connection open for as long as it runs. Set for whatever
// this process has open, since the pair has no name outside libmosquitto. Another thread that starts a
// child at this moment is not disturbed: what a child is given on purpose is duplicated in the child itself,
// after the table of files was copied.
void keep_files_from_children() {
    if (close_range(STDERR_FILENO + 1, UINT_MAX, CLOSE_RANGE_CLOEXEC) != 0)
        syslog(LOG_ERR, "mqtt client: programs that are started inherit the connection: %m");
}

// Runs a hook of the derived class; nothing it throws may reach libmosquitto, which is C.
template <typename hook_type> void guarded(const char *name, hook_type hook) {
    try {
        hook();
    } catch (...) {
        syslog(LOG_ERR, "mqtt client: exception out of %s", name);
    }
}

} // namespace

struct mqtt_orv::state {
    std::string host;
    int port;
};

mqtt_orv::mqtt_orv(const char *client_id, const char *host, int port, bool)
    : mosqpp::mosquittopp(with_library_ready(client_id)),
      own(std::make_unique<state>(state{.host = host, .port = port})) {
    threaded_set(true);
}

mqtt_orv::~mqtt_orv() = default;

// The host is remembered by libmosquitto even when the broker is down: reconnect() goes there.
int mqtt_orv::start_mqtt_connection() {
    const int result = connect(own->host.c_str(), own->port, KEEPALIVE_SECONDS);
    keep_files_from_children();
    return result;
}

std::string mqtt_orv::serialize(const Json::Value &value) try {
    Json::StreamWriterBuilder builder;
    builder["commentStyle"] = "None";
    builder["indentation"] = "";
    return Json::writeString(builder, value);
} catch (...) {
    return "";
}

bool mqtt_orv::deserialize(const std::string &text, Json::Value &value) {
    return parse_json(text, value);
}

int mqtt_orv::send_message(int *, const std::string &topic, const std::string &payload) {
    if (payload.size() > INT_MAX)
        return MOSQ_ERR_PAYLOAD_SIZE;
    return publish(nullptr, topic.c_str(), static_cast<int>(payload.size()), payload.data(), 0, false);
}

void mqtt_orv::ping_watchdog() {
    sd_notify(0, "WATCHDOG=1");
}

// The first that the library hears of a reconnect: reconnect() is libmosquittopp's own.
void mqtt_orv::on_connect(int rc) {
    keep_files_from_children();
    // Nagle's algorithm would hold back the second of several SUBSCRIBEs until the first one's TCP
    // acknowledgement, which the broker's side delays by 40 ms.
    const int on = 1;
    setsockopt(socket(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    guarded("derived_on_connect", [&] { derived_on_connect(rc); });
    if (rc != 0)
        return;
    guarded("the extra subscriptions", [&] {
        for (const std::string &topic : extra_subscriptions())
            subscribe(nullptr, topic.c_str());
    });
}

void mqtt_orv::on_disconnect(int rc) {
    guarded("derived_on_disconnect", [&] { derived_on_disconnect(rc); });
}

void mqtt_orv::on_publish(int) {}

// libmosquitto hands over a null pointer for a payload of length 0, and documents no zero behind any
// other.
void mqtt_orv::on_message(const struct mosquitto_message *message) {
    guarded("derived_on_message", [&] {
        std::string payload;
        if (message->payload != nullptr)
            payload.assign(static_cast<const char *>(message->payload),
                           static_cast<size_t>(message->payloadlen));
        mosquitto_message terminated = *message;
        terminated.payload = payload.data();
        derived_on_message(&terminated);
    });
}

void mqtt_orv::derived_on_connect(int) {}
void mqtt_orv::derived_on_disconnect(int) {}
void mqtt_orv::derived_on_message(const struct mosquitto_message *) {}
