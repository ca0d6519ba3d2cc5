#include "agent/client/tessard.h"

#include "agent/client/topics.h"

#include <syslog.h>
#include <unistd.h>

tessard::tessard(const char *client_id, const char *host, int port)
    : mqtt_orv(client_id, host, port, false) {}

tessard::~tessard() = default;

void tessard::derived_on_connect(int rc) {
    if (rc != 0)
        return;
    for (const char *topic : SUBSCRIBED_TOPICS)
        subscribe(nullptr, topic, 0);
}

void tessard::derived_on_message(const mosquitto_message *message) {
    syslog(LOG_DEBUG, "%d on_message: topic[%s]", getpid(), message->topic);
    const std::lock_guard lock(message_mutex);
    try {
        route_message(*this, message);
    } catch (...) {
        syslog(LOG_NOTICE, "on_message: exception handler");
    }
}
