// The maker's device library (libvantrel): files, shell commands, network checks, reboot.
//
// Functions that return int return 0 for success and non-zero (-1) for failure unless stated
// otherwise. None throws; all may be called from the main thread and from the job manager thread
// at once.
#pragma once

#include <json/json.h>

#include <ctime>
#include <string>

// Formats like printf, runs the text by /bin/sh and waits. Returns the exit status: 124 for a
// command ended by `timeout`, 128 + n for one ended by signal n, -1 when it could not be run. The
// text may be of any length.
int orvsys(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Reads the first line without its line end, at most 255 characters and a terminating zero: every
// caller's buffer holds 256 bytes or more.
int read_var_file(const char *path, char *buffer);

// A missing or broken file is a failure.
int read_json_file(const char *path, Json::Value &value);

// A reader, and a restart after a power cut, sees the old file or the new one, never a part; a
// failed write (a full disk too) leaves the old file. The temporary file stands in a folder of its
// own on the same file system (/var/data/.tmp, /var/volatile/.tmp), never in the target's.
int write_json_file(const char *path, const Json::Value &value);

// Non-zero when the path exists.
int file_exists(const char *path);

// Removes a file, or the link itself. A missing one is no error.
int delete_file(const char *path);

// Whole or not at all, as write_json_file; a missing source leaves the target as it was.
int copy_file(const char *from, const char *to);

// Returns when what was written to persistent storage is there. The agent passes 2.
void sync_to_fs(int mode);

// Writes the process id.
int create_pidfile(const char *path);

// 0 when the host answers one of count echo requests. Bounded in time; runs no shell.
int ping_test(int count, const char *host);

// The bare host name of the cloud for the SIM in use, from the "iot.vantrel_iot" settings; empty
// when none is configured.
std::string get_iot_url_sim1_or_sim2_from_config(const Json::Value &iot);

// The other root file system becomes the one to boot, and the device is rebooted into it.
int switch_firmware_partition();

// Both reboot the device and do not return.
void request_reboot_blocking();
void stop_watchdog_and_force_hw_reboot_blocking();

// Reloads a service by its unit name, as in "qtel-mgr".
int execute_systemctl_reload(const char *unit);

// The current time in seconds, on the same clock as time().
time_t fwtime_s(time_t deadline);

// The device type; 1, 2 and 5 take firmware upgrades, 5 has the reset button.
int get_vantrel_dev_type_as_enum();
