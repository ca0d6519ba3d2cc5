// The configuration topics: change, publish and reset the device's configuration, and jobs that
// arrive as device attributes.
//
// All run on the main thread inside the message hook, with the client's message_mutex held.
#pragma once

#include "agent/client/tessard.h"

// v1/device/cmd/<name>/apply, but not the abort topic. A name with "metainit" rebuilds the meta data; one
// with "config" queues a configuration change, which is refused while a failsafe verification runs.
void cmd_apply_topic(tessard &client, const mosquitto_message *message);

// Stores the one configuration job, "FAILSAFE_CONFIG"; a second request replaces it as received.
void queue_failsafe_config_job(tessard &client, const Json::Value &command);

// Publishes the persistent configuration whole on "v1/device/config/publish/" + suffix; a null suffix
// stands for 0. Nothing is published when the file cannot be read.
void publish_config(tessard &client, const char *suffix);

// v1/device/config/reset: the payload is the library's reset request. On success the configuration is
// published.
void process_config_reset(tessard &client, const char *request);

// v1/devices/me/attributes: every member whose text value is JSON with an "action" becomes a job named by
// the member, also over an active one. Never throws.
void process_attribute(tessard &client, const Json::Value &attributes);

// True when the access level of the path in the running configuration equals level. May run on any
// thread. Nobody in the agent calls it.
bool config_acl_level_is(tessard &client, const char *path, int level);
