// The check-in: tells the cloud that the device is ready for its next job.
#pragma once

#include "agent/client/tessard.h"

// Publishes {"session": "iot-client"} on "v1/device/cmd/checkin/apply". The answer arrives as a
// command acknowledgement on a topic that contains "/checkin/".
void send_checkin(tessard &client);
