#include "actions/requests/device_requests.h"

#include "jobs/job_record.h"
#include "jobs/job_status.h"

#include <ctime>

int cmd_message_id = 1000;

void request_full_cfgpush() {
    Json::Value command;
    command[KEY_VALUE] = "/";
    command["session"] = static_cast<Json::Int>(time(nullptr));
    publish_command(nullptr, CFGPUSH_TOPIC, command_text(command));
}

std::string command_text(const Json::Value &command) {
    tessard *client = iot_client;
    return client ? client->serialize(command) : std::string();
}

void publish_command(int *message_id, const char *topic, const std::string &payload) {
    if (tessard *client = iot_client)
        client->send_message(message_id, topic, payload);
}
