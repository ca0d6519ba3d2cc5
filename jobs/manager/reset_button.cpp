#include "jobs/manager/reset_button.h"

#include "jobs/job_status.h"
#include "jobs/job_store.h"
#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <cstdio>
#include <mutex>

#include <syslog.h>
#include <unistd.h>

namespace {

constexpr char BUTTON_DEVICE[] = "/dev/reset_button_dev";

// Event codes of the button's driver.
constexpr int SHORT_PRESS = 2;
constexpr int FAILSAFE_PRESS = 3;
constexpr int FACTORY_PRESS = 4;

int read_event() {
    FILE *device = fopen(BUTTON_DEVICE, "r");
    if (!device)
        return -1;
    int code = -1;
    if (fscanf(device, "%d", &code) != 1)
        code = -1;
    fclose(device);
    return code;
}

// The driver takes the code back as one raw byte, not as a digit.
void acknowledge(int code) {
    FILE *device = fopen(BUTTON_DEVICE, "w");
    if (!device)
        return;
    fputc(code, device);
    fclose(device);
}

int restore_failsafe() {
    return restore_failsafe_files_to_nv();
}
int reset_to_factory() {
    return cmd_factory_reset(1);
}

// No cloud message is handled from here to the reboot.
void restore_and_reboot(int (*restore)()) {
    std::unique_lock<std::mutex> lock;
    if (tessard *client = iot_client)
        lock = std::unique_lock(client->message_mutex);
    while (restore() != 0)
        sleep(1);
    sync_to_fs(SYNC_PERSISTENT);
    stop_watchdog_and_force_hw_reboot_blocking();
}

} // namespace

void poll_reset_button() {
    const int code = read_event();
    if (code != SHORT_PRESS && code != FAILSAFE_PRESS && code != FACTORY_PRESS)
        return;
    acknowledge(code);

    if (code == SHORT_PRESS) {
        syslog(LOG_ALERT, "Reset button detected:reboot");
        stop_watchdog_and_force_hw_reboot_blocking();
    } else if (code == FAILSAFE_PRESS) {
        syslog(LOG_ALERT, "Reset button detected:failsafe");
        restore_and_reboot(restore_failsafe);
    } else {
        syslog(LOG_ALERT, "Reset button detected:factory");
        restore_and_reboot(reset_to_factory);
    }
}
