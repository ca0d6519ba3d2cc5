#include "agent/checkin.h"

#include "agent/topics.h"
#include "jobs/job_status.h"

void send_checkin(tessard &client) {
    Json::Value request;
    request["session"] = "iot-client";
    client.send_message(next_status_message_id(), CHECKIN_TOPIC, client.serialize(request));
}
