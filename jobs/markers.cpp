#include "jobs/markers.h"

#include "platform/sysdb.h"
#include "platform/vantrel.h"

#include <atomic>
#include <cstring>
#include <filesystem>

#include <syslog.h>

namespace {

std::atomic<unsigned char> fw_job_executing{0};
std::atomic<unsigned char> config_job_executing{0};
std::atomic<unsigned char> radiofw_job_executing{0};
std::atomic<unsigned char> critical_job_executing{0};

void set_busy(std::atomic<unsigned char> &flag, const char *marker, int on) {
    flag = on != 0;
    if (on != 0)
        orvsys("echo 1 > %s", marker);
    else
        delete_file(marker);
}

bool is_regular_file(const char *path) {
    std::error_code error;
    return std::filesystem::is_regular_file(path, error);
}

} // namespace

void set_fw_job_executing(int on) {
    set_busy(fw_job_executing, FW_JOB_MARKER, on);
}
void set_config_job_executing(int on) {
    set_busy(config_job_executing, CONFIG_JOB_MARKER, on);
}
void set_radiofw_job_executing(int on) {
    set_busy(radiofw_job_executing, RADIOFW_JOB_MARKER, on);
}
void set_critical_job_executing(int on) {
    set_busy(critical_job_executing, CRITICAL_JOB_MARKER, on);
}

bool is_fw_job_executing() {
    return fw_job_executing != 0;
}
bool is_config_job_executing() {
    return config_job_executing != 0;
}
bool is_radiofw_job_executing() {
    return radiofw_job_executing != 0;
}
bool is_critical_job_executing() {
    return critical_job_executing != 0;
}

void set_dev_mgmt_flags(const char *value) {
    const bool only_existing = strcmp(value, "#FLAG_VALUE2") == 0;
    for (const char *path : {"/var/volatile/orv/DEV_MGMT", "/var/volatile/orv/WD_MGMT"}) {
        if (!only_existing || is_regular_file(path))
            orvsys("echo '%s' > %s", value, path);
    }
    syslog(LOG_DEBUG, "set dev mgmt flag files: %s", value);
}

bool is_cell_connected() {
    int connected = 0;
    return sysdb_read_int(0, "CELL_CONNECTED", &connected) == 0 && connected != 0;
}

int get_current_partition(char *buffer) {
    constexpr char PARTITION_FILE[] = "/tmp/.current_part";
    // sic: the quote stands before the closing brace
    orvsys("/bin/cat /proc/cmdline|awk -F'root=' '{print $2}'|awk '{print $1'} > %s", PARTITION_FILE);
    const int result = read_var_file(PARTITION_FILE, buffer);
    if (result != 0)
        syslog(LOG_ERR, "error querying current partition");
    return result;
}

bool is_rootfs2() {
    return is_regular_file("/var/data/orv/ROOTFS2");
}
