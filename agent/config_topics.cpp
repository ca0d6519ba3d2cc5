#include "agent/config_topics.h"

// The configuration topics are not handled yet: their messages are dropped here.

void cmd_apply_topic(tessard &, const mosquitto_message *) {}

void publish_config(tessard &, const char *) {}

void process_config_reset(tessard &, const char *) {}

void process_attribute(tessard &, const Json::Value &) {}
