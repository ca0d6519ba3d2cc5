// The cloud's answers to what the agent reported, and its job updates.
//
// All run on the main thread, inside the message hook, with the client's message_mutex held. An
// acknowledgement counts only if its "session" equals the job record's "ackId"; any other changes
// nothing. Each holds job_record_mutex from its read of the record to the end of its change.
#pragma once

#include "agent/client/tessard.h"

// v1/device/job/<id>/pub_ack: the answer to a status report. rc 200 marks the stored job acknowledged;
// the 101st refusal fails and archives it. A refusal before that changes nothing on disk. Never throws.
void job_pub_ack(tessard &client, const mosquitto_message *message);

// v1/device/cmd/<name>/ack: the answer to a device command; ends the job as "success" or "failed".
// Throws Json::Exception when "session" is no number, and on a payload or record of other wrong types.
void cmd_ack(tessard &client, const mosquitto_message *message);

// v1/device/job/<id>/update: the end of a firmware or getConfig job (rc 0: success). The end of a firmware
// job clears its busy flag whatever rc is. On a topic with
// "/all/" and "connected" true, runs a pass of the job manager at once, on this thread. Never throws.
void job_update(tessard &client, const mosquitto_message *message);
