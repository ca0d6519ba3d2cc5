// The device library (libvantrel), and the C library's system().
//
// Files are real, on the private file system; what these functions write bears the virtual time as
// its modification time. Journal entries (all changes): "write_json_file PATH", "delete_file PATH",
// "copy_file FROM TO", "create_pidfile PATH", "sync_to_fs 2", "orvsys COMMAND", "system COMMAND",
// "execute_systemctl_reload UNIT", "switch_firmware_partition", "request_reboot_blocking",
// "stop_watchdog_and_force_hw_reboot_blocking". Queries: "ping_test COUNT HOST", "fwtime_s DEADLINE".
// will_return and always_returns work for all that return int; a write that is told to fail leaves
// the old file. For orvsys and system the value is the command's exit status, and the command is
// then not run.
#pragma once

#include <functional>
#include <string>
#include <vector>

// What the functions that do not return throw. Not derived from std::exception, so that only a
// catch-all can hold it up.
struct fake_reboot {
    std::string function;
};

namespace fakes {

enum class reboot_mode {
    THROWS,  // fake_reboot
    EXITS,   // ends the process at once with REBOOT_EXIT
    RETURNS, // recorded, and the caller goes on
};

constexpr int REBOOT_EXIT = 70;

struct device_state {
    int device_type = 1;
    std::string cloud_host = "cloud.test"; // what get_iot_url_sim1_or_sim2_from_config returns
    int ping_result = 0;                   // unless will_return or always_returns says otherwise

    // request_reboot_blocking and stop_watchdog_and_force_hw_reboot_blocking.
    reboot_mode reboots = reboot_mode::THROWS;
    // switch_firmware_partition; with RETURNS it gives 0.
    reboot_mode partition_switch = reboot_mode::RETURNS;

    // Called first in each of the three, with its name.
    std::function<void(const std::string &function)> on_reboot;

    // Called by execute_systemctl_reload with the unit.
    std::function<void(const std::string &unit)> on_reload;

    // Looked at before anything else; true when it has taken the call, with the status set.
    std::function<bool(const std::string &command, int &status)> run_command;
};

device_state &device();

// Runs a text by /bin/sh and waits; the exit status as orvsys returns it.
int run_shell(const std::string &command);

void reset_device();

} // namespace fakes

// Commands (orvsys and system alike) that contain the text end with this status and are not run.
void answer_command(const std::string &containing, int status);

// The same, with the effect and the status that `action` gives.
void answer_command(const std::string &containing, std::function<int(const std::string &)> action);

// Every command so far, run or not.
std::vector<std::string> commands();

// Every call that rebooted or switched the partition, by function name.
std::vector<std::string> reboots();
