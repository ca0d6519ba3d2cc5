#include "agent/requests/checkin.h"

#include "jobs/job_status.h"

void send_checkin(tessard &client) {
    Json::Value request;
    request["session"] = "iot-client";
    client.send_message(next_status_message_id(), "v1/device/cmd/checkin/apply", client.serialize(request));
}
