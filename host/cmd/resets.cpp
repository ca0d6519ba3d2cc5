// Back to the delivered configuration.
#include "host/cmd/config_copies.h"
#include "host/cmd/paths.h"

#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <filesystem>

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

// What belongs to the former configuration: copies to fall back on, candidates, an apply cut short.
int delete_former_configuration() {
    int result = 0;
    for (const char *path :
         {conf::STORED_NEW_CONFIG, conf::STORED_ACTIVE_JOB, conf::FAILSAFE_TIMER, conf::FAILSAFE_CONFIG,
          conf::FAILSAFE_HASH, conf::STAGED_CONFIG, conf::STAGED_HASH, conf::STORED_META_FILE,
          conf::STORED_HARDWARE, conf::NEW_CONFIG, conf::NEW_HASH, conf::EDITED_CONFIG,
          conf::EDITED_BASE_HASH, conf::CONFIG_MODIFIED})
        if (delete_file(path) != 0)
            result = -1;
    return result;
}

} // namespace

// Mode 0 resets the configuration, mode 1 the jobs too; any other is refused. The default configuration
// of the image becomes the persistent one, with its hash; then what belongs to the former one is
// deleted, and with mode 1 the active and the archived job files. The running configuration and the
// services stay as they are until the reboot that follows. What makes the device itself (its key and
// token in /var/data/factory, the system database, the firmware slots) is kept.
//
// Fails when the default configuration cannot be read or something cannot be written or deleted; it can
// be called again until it succeeds, also after a cut in the middle.
int cmd_factory_reset(int mode) try {
    if (mode != RESET_CONFIGURATION && mode != RESET_ALL)
        return -1;
    if (conf::install_config(conf::DEFAULT_CONFIG, conf::STORED_CONFIG, conf::STORED_HASH) != 0)
        return -1;
    const bool configuration_gone = delete_former_configuration() == 0;
    if (mode == RESET_CONFIGURATION)
        return configuration_gone ? 0 : -1;
    const bool active_gone = delete_files_in(conf::ACTIVE_JOBS) == 0;
    const bool archive_gone = delete_files_in(conf::ARCHIVED_JOBS) == 0;
    return configuration_gone && active_gone && archive_gone ? 0 : -1;
} catch (...) {
    return -1;
}
