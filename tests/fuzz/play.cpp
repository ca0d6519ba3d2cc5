#include "tests/fuzz/play.h"

#include "agent/active_job_count.h"
#include "config/config_files.h"
#include "jobs/job_record.h"
#include "jobs/job_status.h"
#include "jobs/job_store.h"
#include "jobs/manager/job_manager.h"
#include "jobs/markers.h"
#include "tests/fakes/clock.h"
#include "tests/fakes/config.h"
#include "tests/fakes/device.h"
#include "tests/fakes/files.h"
#include "tests/fakes/mqtt.h"
#include "tests/fuzz/areas.h"
#include "tests/fuzz/arrivals.h"
#include "tests/fuzz/broken.h"
#include "tests/fuzz/commands.h"
#include "tests/fuzz/execution.h"
#include "tests/fuzz/failures.h"
#include "tests/fuzz/known_files.h"
#include "tests/fuzz/reports.h"

#include <algorithm>

namespace fuzz {
namespace {

constexpr int MOST_BOOTS = 4;
constexpr time_t LONGEST_WAIT = 1000;
constexpr char ACTIVE_JOBS[] = "/var/data/orv/vantrel_iot/jobs/active";
constexpr char ARCHIVED_JOBS[] = "/var/data/orv/vantrel_iot/jobs/archive";

const std::vector<std::string> FOLDERS = {
    "/var/data",
    "/var/data/.tmp",
    "/var/data/orv",
    "/var/data/orv/vantrel_iot",
    "/var/data/orv/vantrel_iot/jobs",
    ACTIVE_JOBS,
    ARCHIVED_JOBS,
    "/var/volatile",
    "/var/volatile/.tmp",
    "/var/volatile/orv",
    "/var/volatile/config",
    "/var/run",
    "/tmp",
};

Json::Value parsed(const std::string &text) try { return json(text); } catch (const std::exception &) {
    return {};
}

void remember(const std::string &topic, const Json::Value &payload) {
    if (topic.find("attributes") != topic.npos)
        arrived().take_attributes(payload);
    else
        arrived().take_job(payload);
}

bool is_free(std::mutex &mutex) {
    const std::unique_lock lock(mutex, std::try_to_lock);
    return lock.owns_lock();
}

void clear_flags() {
    set_fw_job_executing(0);
    set_config_job_executing(0);
    set_radiofw_job_executing(0);
    set_critical_job_executing(0);
}

// What boot does before it starts the agent.
void make_running(const char *saved, const char *running) {
    std::string text;
    if (fakes::read_all(saved, text) == 0)
        fakes::write_all(running, text);
}

// The job of a local upgrade is not the agent's: an input puts anything there.
void judge_file(const std::string &folder, const std::string &name) {
    if (name == ID_LOCAL_FW_UPGRADE)
        return;
    const Json::Value job = file_json(folder + name);
    if (!job.isObject())
        broken("a job file that is no JSON object: " + folder + name);
    if (text_of(job, KEY_JOB_ID) != name)
        broken("a job file named by another id: " + folder + name);
}

} // namespace

play::play() : files(FOLDERS, is_known_file) {
    const std::string hash = fakes::hash_of(json(RUNNING_AT_FIRST));
    files.keep(SAVED_CONFIG.config, RUNNING_AT_FIRST);
    files.keep(SAVED_CONFIG.hash, hash);
    files.keep(RUNNING_CONFIG.config, RUNNING_AT_FIRST);
    files.keep(RUNNING_CONFIG.hash, hash);
    files.restore();
}

void play::begin() {
    fakes::reset_mqtt();
    fakes::reset_device();
    fakes::reset_config();
    let_all_work();
    arrived().forget();
    forget_reports();
    shell() = {};
    clear_flags();
    fakes::device().run_command = run_known_command;
    fakes::mqtt().after_publish = take_report;
    fakes::config().list_changes = list_changes;
    fakes::config().validate = validate;
    fakes::config().database_texts = {{"SYS_FW_VER", "1.0.0"}, {"SYS_FW_LABEL", "one"}};
    fakes::config().database_ints = {{"CELL_CONNECTED", 1}};
    boots = 0;
    clears = false;
    over = false;
    client.emplace("tessard", "localhost", 1883);
    iot_client = &*client;
}

void play::judge_jobs() const {
    if (time_is_up())
        return;
    for (const char *folder : {ACTIVE_JOBS, ARCHIVED_JOBS})
        for (const std::string &name : files.names_in(folder))
            judge_file(std::string(folder) + "/", name);
}

void play::end() {
    iot_client = nullptr;
    client.reset();
}

void play::restore() {
    files.restore();
}

void play::start_agent() {
    iot_client = nullptr;
    client.emplace("tessard", "localhost", 1883);
    clear_flags();
    shell().rebooted = false;
}

template <typename deed> void play::act(const char *what, deed what_is_done) {
    const auto before = files.names_in(ACTIVE_JOBS);
    try {
        what_is_done();
    } catch (...) {
        broken(std::string("an exception came out of ") + what);
    }
    if (time_is_up()) {
        over = true;
        return;
    }
    judge_rest(before, clears);
    if (shell().rebooted || !reboots().empty())
        boot();
}

void play::judge_rest(const std::vector<std::string> &active_before, bool may_clear) {
    if (!is_free(client->message_mutex) || !is_free(job_manager_mutex) || !is_free(job_file_mutex))
        broken("a mutex is held by nobody at work");
    if (is_config_job_executing() || is_critical_job_executing())
        broken("the flag of a job that has ended is set");
    for (const std::string &name : active_before) {
        const std::string path = ACTIVE_FOLDER + name;
        const bool may_go = may_clear || name == ID_LOCAL_FW_UPGRADE || arrived().scripts.contains(path);
        if (!may_go && !exists(path) && !exists(ARCHIVE_FOLDER + name))
            broken("an active job is gone and not archived: " + name);
    }
}

void play::deliver(const std::string &topic, const std::string &payload) {
    remember(topic, parsed(payload.c_str())); // the handlers read up to a zero byte, too
    const test_message message(topic, payload);
    clears =
        topic.find("/CLEAR_ACTIVE_JOBS/") != topic.npos || topic.find("/CLEAR_RUNNING_JOB/") != topic.npos;
    act("the message hook", [&] { client->derived_on_message(message.get()); });
    clears = false;
}

void play::pass() {
    act("a pass", [&] { process_jobs(*client); });
}

void play::wait(time_t seconds) {
    advance(std::clamp<time_t>(seconds, 0, LONGEST_WAIT));
}

void play::count_jobs() {
    act("the count of jobs", update_active_job_count);
}

void play::boot() {
    if (++boots > MOST_BOOTS) {
        over = true;
        return;
    }
    fakes::reset_device();
    fakes::device().run_command = run_known_command;
    files.empty("/var/volatile/");
    files.empty("/var/run/");
    files.empty("/tmp/");
    make_running(SAVED_CONFIG.config, RUNNING_CONFIG.config);
    make_running(SAVED_CONFIG.hash, RUNNING_CONFIG.hash);
    start_agent();
    const auto at_rest = [] { return is_free(job_manager_mutex); };
    act("the job manager", [&] { run_until(10, at_rest, [&] { job_mgr_main(*client); }); });
    iot_client = &*client;
}

} // namespace fuzz
