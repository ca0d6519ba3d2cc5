// The busy flags, and the marker files by which the device's services see what the agent does.
//
// A flag is a process-wide byte that both threads read and write without a lock; its marker
// file holds "1". The flag is always changed before the file. Flags start at 0: markers that an earlier run
// left are not read back.
#pragma once

inline constexpr char FW_JOB_MARKER[] = "/var/volatile/orv/FW_JOB_EXECUTING";
inline constexpr char CONFIG_JOB_MARKER[] = "/var/volatile/orv/CONFIG_JOB_EXECUTING";
inline constexpr char RADIOFW_JOB_MARKER[] = "/var/volatile/orv/RADIOFW_JOB_EXECUTING";
inline constexpr char CRITICAL_JOB_MARKER[] = "/var/volatile/orv/CRITICAL_JOB_EXECUTING";

// Holds the id of the command, firmware or configuration job in progress.
inline constexpr char FW_JOBID_FILE[] = "/var/volatile/orv/FW_JOBID";

// A new firmware has been installed and is not verified yet; written by the installation.
inline constexpr char FIRMWARE_UPDATED_FILE[] = "/var/data/orv/FIRMWARE_UPDATED";
// That firmware came from an upgrade that was started on the device; written by that upgrade.
inline constexpr char LOCAL_FW_UPGRADE_FILE[] = "/var/data/orv/LOCAL_FW_UPGRADE";

// on: non-zero sets flag and marker, zero clears them (a marker that is gone already is no error).
void set_fw_job_executing(int on);
void set_config_job_executing(int on);
void set_radiofw_job_executing(int on);
void set_critical_job_executing(int on);

// Sets a flag and its marker for the life of this object: busy_mark mark(set_fw_job_executing).
class busy_mark {
public:
    explicit busy_mark(void (*set_executing)(int)) : set(set_executing) { set(1); }
    ~busy_mark() { set(0); }
    busy_mark(const busy_mark &) = delete;
    busy_mark &operator=(const busy_mark &) = delete;

private:
    void (*set)(int);
};

bool is_fw_job_executing();
bool is_config_job_executing();
bool is_radiofw_job_executing();
bool is_critical_job_executing();

// Writes the value into DEV_MGMT and WD_MGMT; "#FLAG_VALUE2" only into those that exist. Nobody in the agent
// calls it.
void set_dev_mgmt_flags(const char *value);

// "CELL_CONNECTED" in the system database is not zero; false when it cannot be read. Nobody in the
// agent calls it.
bool is_cell_connected();

// The root device named on the kernel's command line, into a buffer of VAR_FILE_SIZE bytes. 0 ok. Nobody
// in the agent calls it.
int get_current_partition(char *buffer);

// The device runs from the second root file system.
bool is_rootfs2();
