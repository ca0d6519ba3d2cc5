#include "config/apply_progress.h"

#include "jobs/job_record.h"
#include "jobs/job_status.h"
#include "platform/cmd.h"

void show_progress(Json::Value &job, const char *msg) {
    job[KEY_MSG] = msg;
    update_config_apply_status(msg);
}

int post_status_of_apply(const Json::Value &job) {
    return text_of(job, KEY_ACTION) == ACTION_FW ? STORE_ONLY : POST_STATUS;
}

void publish_config_updates(tessard &client, const std::string &job_id, const Json::Value &changes) {
    for (const Json::Value &change : changes)
        client.send_message(nullptr, "v1/device/config/" + change["path"].asString() + "/update", job_id);
}
