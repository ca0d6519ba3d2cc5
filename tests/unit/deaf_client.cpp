// Handlers that handle nothing, for tests that need a client but define routines of the agent themselves,
// which the real handlers would bring in a second time.
#include "agent/acknowledgements.h"
#include "agent/config_topics.h"
#include "agent/job_intake.h"
#include "agent/requests/abort_request.h"

int job_apply(tessard &, const mosquitto_message *) {
    return 0;
}
void job_update(tessard &, const mosquitto_message *) {}
void job_pub_ack(tessard &, const mosquitto_message *) {}
void cmd_ack(tessard &, const mosquitto_message *) {}
void cmd_apply_topic(tessard &, const mosquitto_message *) {}
void request_abort(tessard &) {}
void publish_config(tessard &, const char *) {}
void process_config_reset(tessard &, const char *) {}
void process_attribute(tessard &, const Json::Value &) {}
