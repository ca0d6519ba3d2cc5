// The device's services, and what they make of a configuration.
//
// A service has the configuration that ran when it was last started or reloaded. That stands in /run, so it
// outlives the agent and goes with a reboot.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

namespace sweep {

// Boot's part: all of them start, on the running configuration.
void start_services();

// In the process of a life, after follow_writes: the configuration library's validator, change list and
// hardware, the modem's state, and what the network reaches follow what the services have. The validator
// rejects a configuration with "invalid" (true, or the version of the firmware that does), the hardware one with "hardware.broken"; both take time.
void enter_services();

// A service's restart command. False when it is none.
bool run_service_command(const std::string &command);

// The areas of this configuration of which a service has another state.
std::vector<std::string> areas_not_served(const Json::Value &config);

} // namespace sweep
