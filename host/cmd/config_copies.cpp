#include "host/cmd/config_copies.h"
#include "host/cmd/host_cmd.h"

#include "host/cmd/paths.h"
#include "host/cmd/text_file.h"

#include "platform/vantrel.h"

namespace conf {

int read_config(const char *path, Json::Value &config) {
    Json::Value read;
    if (read_json_file(path, read) != 0 || !read.isObject())
        return -1;
    config.swap(read);
    return 0;
}

int install_config(const char *from, const char *config_path, const char *hash_path) {
    Json::Value config;
    if (read_config(from, config) != 0 || copy_if_different(from, config_path) != 0)
        return -1;
    return calculate_and_write_config_hash(config_path, hash_path);
}

int install_config(const Json::Value &config, const char *config_path, const char *hash_path) {
    if (!config.isObject() || write_json_file(config_path, config) != 0)
        return -1;
    return calculate_and_write_config_hash(config_path, hash_path);
}

} // namespace conf

int restore_failsafe_files_to_nv() try {
    if (conf::install_config(conf::FAILSAFE_CONFIG, conf::STORED_CONFIG, conf::STORED_HASH) == 0)
        return 0;
    Json::Value saved;
    if (conf::read_config(conf::FAILSAFE_CONFIG, saved) == 0)
        return -1; // it is there: writing failed
    // While a verification runs, the persistent configuration still is the last committed one.
    if (file_exists(conf::FAILSAFE_TIMER) && conf::read_config(conf::STORED_CONFIG, saved) == 0)
        return calculate_and_write_config_hash(conf::STORED_CONFIG, conf::STORED_HASH);
    return conf::install_config(conf::DEFAULT_CONFIG, conf::STORED_CONFIG, conf::STORED_HASH);
} catch (...) {
    return -1;
}

int restore_failsafe_files_to_running() try {
    Json::Value saved;
    const bool is_saved = conf::read_config(conf::FAILSAFE_CONFIG, saved) == 0;
    const char *from = is_saved ? conf::FAILSAFE_CONFIG : conf::STORED_CONFIG;
    if (conf::install_config(from, conf::RUNNING_CONFIG, conf::RUNNING_HASH) != 0)
        return -1;
    return conf::refresh_hardware_settings();
} catch (...) {
    return -1;
}
