// The first rule that matches a message's topic decides which handler gets it.
#include "agent/acknowledgements.h"
#include "agent/client/tessard.h"
#include "agent/client/topics.h"
#include "agent/config_topics.h"
#include "agent/job_intake.h"
#include "agent/requests/abort_request.h"

#include <string_view>

#include <syslog.h>

namespace {

bool contains(std::string_view topic, std::string_view part) {
    return topic.find(part) != topic.npos;
}

const char *payload_text(const mosquitto_message *message) {
    return static_cast<const char *>(message->payload);
}

void dispatch_job(tessard &client, const mosquitto_message *message) {
    const std::string_view topic = message->topic;
    if (contains(topic, "/apply")) {
        syslog(LOG_DEBUG, "tessard job apply message %s", message->topic);
        job_apply(client, message);
    } else if (contains(topic, "/update")) {
        syslog(LOG_DEBUG, "tessard job update message %s", message->topic);
        job_update(client, message);
    } else if (contains(topic, "/pub_ack")) {
        syslog(LOG_DEBUG, "tessard job pub ack message %s", message->topic);
        job_pub_ack(client, message);
    }
}

void dispatch_command(tessard &client, const mosquitto_message *message) {
    const std::string_view topic = message->topic;
    if (topic == CONFIG_ABORT_TOPIC)
        request_abort(client);
    else if (contains(topic, "/apply"))
        cmd_apply_topic(client, message);
    else if (contains(topic, "/ack"))
        cmd_ack(client, message);
}

void dispatch_attributes(tessard &client, const mosquitto_message *message) {
    Json::Value attributes;
    if (client.deserialize(payload_text(message), attributes))
        process_attribute(client, attributes);
}

} // namespace

void route_message(tessard &client, const mosquitto_message *message) {
    const std::string_view topic = message->topic;
    if (contains(topic, JOB_TOPIC))
        dispatch_job(client, message);
    else if (contains(topic, CMD_TOPIC))
        dispatch_command(client, message);
    else if (contains(topic, CONFIG_PUBLISH_TOPIC))
        publish_config(client, nullptr);
    else if (contains(topic, CONFIG_RESET_TOPIC))
        process_config_reset(client, payload_text(message));
    else if (contains(topic, ATTRIBUTES_TOPIC))
        dispatch_attributes(client, message);
}
