#include "agent/config_topics.h"

#include "agent/job_intake.h"
#include "config/config_files.h"
#include "jobs/job_record.h"
#include "jobs/job_status.h"
#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <cstdio>
#include <cstring>

#include <syslog.h>

namespace {

constexpr int CONFIG_PUBLISH_TOPIC_SIZE = 128;

// An attribute is a job when its text is JSON with an "action"; its name is the job's id.
void take_attribute(tessard &client, const std::string &name, const Json::Value &value) {
    syslog(LOG_DEBUG, "property: %s", name.c_str());
    const std::string text = value.asString();
    if (name == "deleted") {
        syslog(LOG_DEBUG, "attribute %s has been deleted", text.c_str());
        return;
    }
    Json::Value job;
    if (!client.deserialize(text, job) || !job.isObject() || !job.isMember(KEY_ACTION))
        return;
    syslog(LOG_DEBUG, "property is jobId: %s", text.c_str());
    job[KEY_JOB_ID] = name;
    new_job_file(job);
}

void request_config_change(tessard &client, const mosquitto_message *message) {
    if (file_exists(FAILSAFE_TIMER_FILE)) {
        syslog(LOG_NOTICE, "failsafe config apply already in progess"); // sic
        return;
    }
    Json::Value command;
    if (!client.deserialize(static_cast<const char *>(message->payload), command))
        return;
    set_config_apply_in_progress("config change is queued");
    if (iot_job_in_progress())
        set_config_apply_in_progress(
            "a job is currently in progress, the config change will be delayed until current job completes");
    queue_failsafe_config_job(client, command);
}

} // namespace

void cmd_apply_topic(tessard &client, const mosquitto_message *message) {
    syslog(LOG_NOTICE, "cmd_apply: %s", message->topic);
    if (strstr(message->topic, "metainit")) {
        if (cmd_metainit() == 0)
            syslog(LOG_NOTICE, "cmd metainit OK");
        else
            syslog(LOG_NOTICE, "cmd metainit FAIL");
        return;
    }
    if (strstr(message->topic, "config"))
        request_config_change(client, message);
}

void queue_failsafe_config_job(tessard &, const Json::Value &command) {
    Json::Value job;
    if (command.isObject() && command.isMember(KEY_SOURCE))
        job[KEY_SOURCE] = command[KEY_SOURCE];
    job[KEY_JOB_NAME] = ID_FAILSAFE_CONFIG;
    job[KEY_ACTION] = ACTION_FAILSAFE_CONFIG;
    job[KEY_CFG_VERIFIED] = false;
    job[KEY_PAYLOAD] = Json::Value(); // carried empty
    job[KEY_JOB_ID] = ID_FAILSAFE_CONFIG;
    new_job_file(job);
}

void publish_config(tessard &client, const char *suffix) {
    Json::Value config;
    if (read_json_file(SAVED_CONFIG.config, config) != 0)
        return;
    const std::string payload = client.serialize(config);
    char topic[CONFIG_PUBLISH_TOPIC_SIZE] = "v1/device/config/publish/0";
    if (suffix)
        snprintf(topic, sizeof topic, "v1/device/config/publish/%s", suffix);
    client.send_message(next_status_message_id(), topic, payload);
}

void process_config_reset(tessard &client, const char *request) {
    syslog(LOG_DEBUG, "process_config_reset %s", request);
    if (cmd_reset_to_default(request) != 0) {
        syslog(LOG_DEBUG, "error on reset %s", request);
        return;
    }
    publish_config(client, nullptr);
}

void process_attribute(tessard &client, const Json::Value &attributes) try {
    syslog(LOG_DEBUG, "process_attribute");
    for (const std::string &name : attributes.getMemberNames())
        take_attribute(client, name, attributes[name]);
} catch (...) {
    syslog(LOG_DEBUG, "process_attribute: exception handler");
}

bool config_acl_level_is(tessard &, const char *path, int level) {
    metaConfig meta(false, RUNNING_CONFIG.config, nullptr);
    int found = 0;
    if (meta.getAccessLevel(path, found) != 0)
        return false;
    syslog(LOG_DEBUG, "config: %s acl level:%d", path, found);
    return found == level;
}
