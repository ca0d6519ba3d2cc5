#include "tests/unit/job_manager_fixture.h"

#include "actions/dispatch.h"
#include "actions/firmware_job.h"
#include "config/apply.h"
#include "jobs/job_store.h"
#include "jobs/manager/reset_button.h"

#include <future>

namespace neighbours {

std::vector<std::string> called;
std::vector<time_t> called_at;
std::function<void(Json::Value &job)> inside;
const tessard *client = nullptr;

void reset() {
    called.clear();
    called_at.clear();
    inside = nullptr;
    client = nullptr;
}

namespace {

void note(const char *routine, const std::string &text, Json::Value &job) {
    fakes::record(fakes::call_kind::QUERY, routine, text);
    called.push_back(text.empty() ? routine : std::string(routine) + " " + text);
    called_at.push_back(fakes::now() - START_TIME);
    if (inside)
        inside(job);
}

} // namespace
} // namespace neighbours

void execute_job_action(tessard &client, Json::Value &job) {
    neighbours::client = &client;
    neighbours::note("execute_job_action", job_id_of(job), job);
}

void check_fw_upgrade_result(tessard &client, Json::Value &job) {
    neighbours::client = &client;
    neighbours::note("check_fw_upgrade_result", job_id_of(job), job);
}

void cmd_apply(tessard &client, Json::Value &job, bool after_fw_upgrade) {
    neighbours::client = &client;
    neighbours::note("cmd_apply", job_id_of(job) + (after_fw_upgrade ? " after an upgrade" : ""), job);
}

void poll_reset_button() {
    Json::Value none;
    neighbours::note("poll_reset_button", "", none);
}

JobManagerTest::JobManagerTest() {
    neighbours::reset();
    iot_client = &client;
}

JobManagerTest::~JobManagerTest() {
    iot_client = nullptr;
    fakes::before_change = nullptr;
    for (const auto set : {set_fw_job_executing, set_config_job_executing, set_radiofw_job_executing,
                           set_critical_job_executing})
        set(0);
}

void JobManagerTest::given_repeat_is_due() {
    // The time of the next repeat lives as long as the process: no earlier test may have come so far.
    static time_t later = START_TIME;
    later += 1000;
    set_time(later - 1);
    Json::Value no_job(Json::objectValue);
    update_job_status(no_job, 0); // the first call of the process
    set_time(later);
    fakes::reset_log();
}

bool JobManagerTest::manager_mutex_is_free() {
    return std::async(std::launch::async,
                      [] {
                          const bool locked = job_manager_mutex.try_lock();
                          if (locked)
                              job_manager_mutex.unlock();
                          return locked;
                      })
        .get();
}

std::vector<std::string> JobManagerTest::reported(const std::string &job_id) {
    std::vector<std::string> statuses;
    for (const auto &message : published_on("v1/device/job/" + job_id + "/ack"))
        statuses.push_back(message.json["params"]["status"].asString());
    return statuses;
}
