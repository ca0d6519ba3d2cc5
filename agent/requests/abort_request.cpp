#include "agent/requests/abort_request.h"

#include "jobs/job_record.h"
#include "platform/cmd.h"

#include <ctime>

#include <syslog.h>

void request_abort(tessard &client) {
    const auto now = static_cast<int32_t>(time(nullptr));
    client.abort_request_time = now;
    syslog(LOG_DEBUG, "Abort cmd apply requested at time %d", now);
}

bool check_abort(tessard &client, const Json::Value &job) {
    std::string action;
    if (!config_get_string(job, &action, KEY_ACTION) || action != ACTION_FAILSAFE_CONFIG)
        return false;
    int received = 0;
    if (!config_get_int(job, &received, KEY_TIMESTAMP))
        return false;

    const int32_t requested = client.abort_request_time;
    if (requested <= received)
        return false;
    syslog(LOG_DEBUG, "Need to abort (job time:%d abort request time:%d)", received, requested);
    return true;
}

void clear_abort_request(tessard &client) {
    client.abort_request_time = 0;
}
