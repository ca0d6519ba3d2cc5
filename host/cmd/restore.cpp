// Back to the failsafe configuration.
#include "host/cmd/config_copies.h"
#include "host/cmd/judgement.h"
#include "host/cmd/paths.h"

#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <syslog.h>

namespace {

// While a verification runs, the persistent configuration is the last committed one. At any other time, as when
// somebody has pressed the button, it is the one in force, which is to be left.
conf::choice what_to_go_back_to() {
    if (file_exists(conf::FAILSAFE_TIMER))
        return conf::choose_from({conf::FAILSAFE_CONFIG, conf::STORED_CONFIG});
    return conf::choose_from({conf::FAILSAFE_CONFIG});
}

int restore(const char *config_path, const char *hash_path) {
    const conf::choice choice = what_to_go_back_to();
    for (const std::string &text : choice.refused)
        syslog(LOG_ERR, "failsafe restore: %s", text.c_str());
    for (const std::string &path : choice.paths) {
        if (conf::install_config(path.c_str(), config_path, hash_path) == 0)
            return 0;
        if (conf::holds_same_config(path.c_str(), config_path)) {
            syslog(LOG_ERR, "failsafe restore: %s cannot be written; boot calculates it anew", hash_path);
            return 0;
        }
        syslog(LOG_ERR, "failsafe restore: %s cannot be copied to %s", path.c_str(), config_path);
    }
    return -1;
}

} // namespace

// The failsafe copy over config.json, its hash over config.hash. Where there is none that is valid: during a
// verification the persistent configuration stays, which is the last committed one; else the image's default
// configuration takes its place, as it does when the persistent one is not valid either. What was refused is
// told to the system log. Fails when none of them is valid or can be written; the persistent configuration
// is whole then all the same.
int restore_failsafe_files_to_nv() try {
    return restore(conf::STORED_CONFIG, conf::STORED_HASH);
} catch (...) {
    return -1;
}

// The same choice over config.running and its hash. The hardware settings in RAM follow.
int restore_failsafe_files_to_running() try {
    if (restore(conf::RUNNING_CONFIG, conf::RUNNING_HASH) != 0)
        return -1;
    return conf::refresh_hardware_settings();
} catch (...) {
    return -1;
}
