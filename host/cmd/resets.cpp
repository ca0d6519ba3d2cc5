// Back to the delivered configuration.
#include "host/cmd/config_copies.h"
#include "host/cmd/paths.h"

#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <filesystem>
#include <initializer_list>

namespace {

constexpr int RESET_CONFIGURATION = 0;
constexpr int RESET_ALL = 1;

int delete_files_in(const char *folder) {
    int result = 0;
    std::error_code missing;
    for (const auto &entry : std::filesystem::directory_iterator(folder, missing))
        if (!entry.is_directory() && delete_file(entry.path().c_str()) != 0)
            result = -1;
    return result;
}

int delete_files(std::initializer_list<const char *> paths) {
    int result = 0;
    for (const char *path : paths)
        if (delete_file(path) != 0)
            result = -1;
    return result;
}

// What would go on after the next boot as if nothing had been reset.
int delete_what_is_under_way() {
    return delete_files({conf::STORED_ACTIVE_JOB, conf::STORED_NEW_CONFIG, conf::NEW_CONFIG, conf::NEW_HASH,
                         conf::STAGED_CONFIG, conf::STAGED_HASH, conf::FAILSAFE_TIMER});
}

int delete_former_configuration() {
    return delete_files({conf::FAILSAFE_CONFIG, conf::FAILSAFE_HASH, conf::STORED_META_FILE,
                         conf::STORED_HARDWARE, conf::EDITED_CONFIG, conf::EDITED_BASE_HASH,
                         conf::CONFIG_MODIFIED});
}

} // namespace

// Mode 0 resets the configuration, mode 1 the jobs too; any other is refused. In this order, so that a cut
// leaves nothing under way that would undo the reset: candidates, an apply cut short and, with mode 1, the
// active job files are deleted; the default configuration of the image becomes the persistent one, with
// its hash; the failsafe copy and whatever else belongs to the former configuration is deleted, with mode
// 1 the archived job files too. The running configuration and the services stay as they are until the
// reboot that follows. What makes the device itself (its key and token in /var/data/factory, the system
// database, the firmware slots) is kept.
//
// Fails, and changes nothing, when the default configuration cannot be read; fails too when something
// cannot be written or deleted. It can be called again until it succeeds, also after a cut in the middle.
int cmd_factory_reset(int mode) try {
    Json::Value delivered;
    if ((mode != RESET_CONFIGURATION && mode != RESET_ALL) ||
        conf::read_config(conf::DEFAULT_CONFIG, delivered) != 0)
        return -1;
    int result = delete_what_is_under_way();
    if (mode == RESET_ALL)
        result |= delete_files_in(conf::ACTIVE_JOBS);
    result |= conf::install_config(conf::DEFAULT_CONFIG, conf::STORED_CONFIG, conf::STORED_HASH);
    if (result != 0)
        return -1; // the failsafe copy stays while the former configuration may still be there
    result = delete_former_configuration();
    if (mode == RESET_ALL)
        result |= delete_files_in(conf::ARCHIVED_JOBS);
    return result == 0 ? 0 : -1;
} catch (...) {
    return -1;
}
