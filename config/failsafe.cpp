#include "config/failsafe.h"

#include "actions/requests/device_requests.h"
#include "agent/requests/abort_request.h"
#include "config/apply_progress.h"
#include "config/change_actions.h"
#include "config/commit.h"
#include "config/config_files.h"
#include "jobs/job_record.h"
#include "jobs/job_status.h"
#include "jobs/job_store.h"
#include "platform/cmd.h"
#include "platform/sysdb.h"
#include "platform/vantrel.h"

#include <cstdlib>
#include <ctime>

#include <syslog.h>
#include <unistd.h>

namespace {

constexpr int DEFAULT_PERIOD_MIN = 5;
constexpr size_t SHORTEST_DESTINATION = 2;
constexpr int DIALER_POLLS = 60;
constexpr unsigned PAUSE_BETWEEN_PASSES_S = 5;

// What the new configuration and its changes say about the modem.
struct modem_state {
    bool cell_enabled = false;
    bool gps_enabled = false;
    bool cell_gps_module_restart = false;
    bool iot_restart = false;
    int qtel_pid = 0;
};

struct verification {
    time_t deadline;
    std::string destination;
};

std::string verification_destination(const Json::Value &settings) {
    std::string destination;
    config_get_string(settings, &destination, "destination_ip");
    if (destination.size() >= SHORTEST_DESTINATION)
        return destination;
    Json::Value iot;
    if (cmd_get_value_json("iot.vantrel_iot", iot) != 0)
        return "";
    return get_iot_url_sim1_or_sim2_from_config(iot);
}

bool area_enabled(const Json::Value &config, const char *area) {
    Json::Value section;
    bool enabled = false;
    return config_get_object(config, &section, area) && config_get_bool(section, &enabled, "enable") &&
           enabled;
}

modem_state examine_modem(const Json::Value &changes, const Json::Value &job) {
    modem_state modem;
    Json::Value config;
    read_json_file(NEW_CONFIG.config, config);
    for (const Json::Value &change : changes) {
        const std::string path = change["path"].asString();
        syslog(LOG_DEBUG, "cmd apply %s", path.c_str());
        if (path == "network.wireless.cell" || path == "gps.gps") {
            modem.cell_gps_module_restart = true;
            config_get_int(job, &modem.qtel_pid, KEY_QTEL_MGR_PID);
        } else if (path == "iot.vantrel_iot") {
            modem.iot_restart = true;
        }
    }
    modem.cell_enabled = area_enabled(config, "network.wireless.cell");
    modem.gps_enabled = area_enabled(config, "gps.gps");
    if (!modem.cell_enabled)
        update_config_apply_status("cell is disabled, skipping cell connectivity checks");
    syslog(
        LOG_DEBUG,
        "failsafe config: cell_enabled = %d, gps_enabled = %d, cell_gps_module_restart = %d , qtel-pid = %d, iot_restart = %d\n",
        modem.cell_enabled, modem.gps_enabled, modem.cell_gps_module_restart, modem.qtel_pid,
        modem.iot_restart);
    return modem;
}

// Gives up without a verdict after the last poll.
void wait_for_dialer(const modem_state &modem, Json::Value &job) {
    if (!modem.cell_gps_module_restart || !(modem.cell_enabled || modem.gps_enabled))
        return;
    show_progress(job, "waiting for dialer to restart");
    for (int poll = 0; poll < DIALER_POLLS; ++poll) {
        syslog(LOG_NOTICE, "failsafe config: waiting for dialer to restart");
        int pid = 0;
        if (read_qtel_mgr_pid(pid) && pid > 0 && pid != modem.qtel_pid) {
            update_config_apply_status("dialer has restarted");
            return;
        }
        sleep(1);
    }
}

bool gave_up(tessard &client, const verification &test, Json::Value &job) {
    if (check_abort(client, job)) {
        clear_abort_request(client);
        show_progress(job, "aborted, reverting to config.failsafe");
        failsafe_failure(job);
        return true;
    }
    if (test.deadline <= fwtime_s(test.deadline)) {
        show_progress(job, "failsafe timer expired, reverting to config.failsafe");
        failsafe_failure(job);
        return true;
    }
    return false;
}

bool cell_is_up(Json::Value &job, bool first_pass) {
    int connected = 0;
    if (sysdb_read_int(0, "CELL_CONNECTED", &connected) == 0) {
        syslog(LOG_DEBUG, "failsafe config: cell connected %d", connected);
        if (connected == 1) {
            show_progress(job, "failsafe config detects cell is connected");
            return true;
        }
    }
    if (first_pass)
        update_config_apply_status("failsafe waiting for cell connection");
    return false;
}

bool passes_both_tests(const std::string &destination) {
    update_config_apply_status("performing connection test");
    syslog(LOG_ALERT, "failsafe config connection test 1 to %s", destination.c_str());
    if (ping_test(3, destination.c_str()) != 0)
        return false;
    sleep(1);
    update_config_apply_status("performing connection test 2");
    syslog(LOG_ALERT, "failsafe config connection test 2 to %s", destination.c_str());
    return ping_test(3, destination.c_str()) == 0;
}

// True when the configuration is verified; false when it was given up, and reverted.
bool verify_until_deadline(tessard &client, const verification &test, bool cell_enabled, Json::Value &job) {
    for (bool first_pass = true;; first_pass = false) {
        if (gave_up(client, test, job))
            return false;
        if ((!cell_enabled || cell_is_up(job, first_pass)) && passes_both_tests(test.destination))
            return true;
        sleep(PAUSE_BETWEEN_PASSES_S);
    }
}

void restore_failsafe_config() {
    restore_failsafe_files_to_nv();
    restore_failsafe_files_to_running();
    restore_meta_file_or_regenerate_from_meta_folder_in_ram();
    clear_failsafe_markers();
    delete_new_config_files();
    sync_to_fs(SYNC_PERSISTENT);
}

// False when there is no record to write it into.
bool write_result(const Json::Value &job, const std::string &path) {
    const record_lock record(job_record_mutex);
    Json::Value stored;
    if (read_json_file(path.c_str(), stored) != 0 || !stored.isObject())
        return false;
    stored[KEY_STATUS] = job[KEY_STATUS];
    if (stored.isMember(KEY_CFG_VERIFIED))
        stored[KEY_CFG_VERIFIED] = job[KEY_STATUS].asString() == STATUS_SUCCESS;
    const std::lock_guard lock(job_file_mutex);
    write_json_file(path.c_str(), stored);
    return true;
}

void restart_after_revert() {
    syslog(LOG_NOTICE, "failsafe restart network");
    (void)system("/usr/bin/cmd_netgen apply");
    syslog(LOG_NOTICE, "failsafe restart dialer");
    (void)system("/bin/systemctl reload qtel-mgr");
    syslog(LOG_NOTICE, "failsafe restart wifi");
    (void)system("/usr/bin/cmd_wifi apply");
}

} // namespace

void failsafe_verify(tessard &client, const Json::Value &settings, const Json::Value &changes,
                     Json::Value &job) {
    syslog(LOG_NOTICE, "start failsafe config verification");
    job[KEY_STATUS] = STATUS_FAILED; // until proved otherwise
    int period_minutes = DEFAULT_PERIOD_MIN;
    config_get_int(settings, &period_minutes, "timer");
    const std::string destination = verification_destination(settings);
    if (destination.size() < SHORTEST_DESTINATION) {
        constexpr char NO_DESTINATION_MSG[] = "no failsafe config destination IP defined";
        job[KEY_MSG] = NO_DESTINATION_MSG;
        syslog(LOG_NOTICE, "%s", NO_DESTINATION_MSG);
        return; // the new configuration stays, uncommitted
    }

    const time_t start = time(nullptr);
    job[KEY_ACK_TS] = static_cast<Json::Int>(start);
    if (write_failsafe_timer(start, period_minutes) != 0) {
        job[KEY_MSG] = "error writing failsafe timer file";
        return;
    }
    job[KEY_STATUS] = STATUS_EXECUTED;
    show_progress(job, "verifying new config");
    update_job_status(job, STORE_ONLY);

    const modem_state modem = examine_modem(changes, job);
    wait_for_dialer(modem, job);
    const verification test{start + time_t{60} * period_minutes, destination};
    if (!verify_until_deadline(client, test, modem.cell_enabled, job))
        return;

    constexpr char VERIFIED_MSG[] = "failsafe config verified";
    syslog(LOG_ALERT, "%s", VERIFIED_MSG);
    show_progress(job, VERIFIED_MSG);
    failsafe_success(job);
    publish_config_updates(client, job_id_of(job), changes);
}

int write_failsafe_timer(time_t start_time, int period_minutes) {
    Json::Value timer;
    timer["start_time"] = static_cast<Json::UInt>(start_time);
    timer["end_time"] = static_cast<Json::UInt>(start_time + time_t{60} * period_minutes);
    timer["period"] = period_minutes;
    const int result = write_json_file(FAILSAFE_TIMER_FILE, timer);
    sync_to_fs(SYNC_PERSISTENT);
    return result;
}

void failsafe_success(Json::Value &job) {
    syslog(LOG_NOTICE, "failsafe config: %s", job.get(KEY_MSG, "").asString().c_str());
    job[KEY_STATUS] = STATUS_SUCCESS;
    update_job_status(job, post_status_of_apply(job));
    commit_running_config();
    record_failsafe_result(job, true);
    request_full_cfgpush();
    if (job_id_of(job) != ID_FAILSAFE_CONFIG)
        syslog(LOG_ALERT, "job status success after failsafe verification");
}

void failsafe_failure(Json::Value &job) {
    syslog(LOG_NOTICE, "failsafe config: %s", job.get(KEY_MSG, "").asString().c_str());
    job[KEY_STATUS] = STATUS_FAILED;
    update_job_status(job, post_status_of_apply(job));
    if (job_id_of(job) != ID_FAILSAFE_CONFIG)
        syslog(LOG_ALERT, "job status failed after failsafe verification");
    record_failsafe_result(job, false);
    restore_failsafe_config();
    restart_after_revert();
}

void record_failsafe_result(const Json::Value &job, bool flush) {
    if (!job.isMember(KEY_JOB_ID) || job[KEY_JOB_ID].asString() == ID_FAILSAFE_CONFIG)
        return;
    if (write_result(job, active_job_path(job[KEY_JOB_ID].asString())) && flush)
        sync_to_fs(SYNC_PERSISTENT);
}
