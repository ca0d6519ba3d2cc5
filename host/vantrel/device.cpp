#include "host/vantrel/atomic_file.h"
#include "host/vantrel/process.h"
#include "platform/vantrel.h"

#include <charconv>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr const char *BOOT_FOLDER = "/var/data/boot";
constexpr const char *BOOT_SLOT_FILE = "/var/data/boot/slot";
constexpr const char *DEVICE_TYPE_FILE = "/var/data/factory/device_type";
constexpr unsigned REBOOT_RETRY_SECONDS = 10;

// The value of root= ends with the number of the slot: "root=/dev/mmcblk0p2" runs slot 2.
char running_slot() {
    std::ifstream command_line("/proc/cmdline");
    std::string word;
    char slot = '\0';
    while (command_line >> word)
        if (word.compare(0, 5, "root=") == 0)
            slot = word.back();
    return slot;
}

[[noreturn]] void reboot_blocking() {
    for (;;) {
        try {
            const int status = run_program({"/sbin/reboot", "-f"});
            if (status != 0)
                syslog(LOG_CRIT, "/sbin/reboot -f failed: %d", status);
        } catch (...) {
            syslog(LOG_CRIT, "/sbin/reboot -f could not be run"); // out of memory: tried again below
        }
        sleep(REBOOT_RETRY_SECONDS);
    }
}

} // namespace

int switch_firmware_partition() try {
    const char running = running_slot();
    if (running != '1' && running != '2')
        return -1;
    mkdir(BOOT_FOLDER, 0755);
    if (replace_file(BOOT_SLOT_FILE, running == '1' ? "2\n" : "1\n") != 0)
        return -1;
    request_reboot_blocking();
    return 0;
} catch (...) {
    return -1;
}

void request_reboot_blocking() {
    sync_to_fs(2);
    reboot_blocking();
}

// The host's watchdog is the service manager's, which ends with the system.
void stop_watchdog_and_force_hw_reboot_blocking() {
    reboot_blocking();
}

int execute_systemctl_reload(const char *unit) try {
    const std::string name = unit;
    if (name.empty() || name[0] == '-')
        return -1;
    return run_program({"systemctl", "reload", name}) == 0 ? 0 : -1;
} catch (...) {
    return -1;
}

time_t fwtime_s(time_t) {
    return time(nullptr);
}

// 0, a device that takes no upgrades and has no button, when the file is missing or says no number.
int get_vantrel_dev_type_as_enum() {
    char line[256];
    if (read_var_file(DEVICE_TYPE_FILE, line) != 0)
        return 0;
    int type = 0;
    const std::string_view text = line;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), type);
    return error == std::errc() && end == text.data() + text.size() ? type : 0;
}
