#include "host/cmd/config_copies.h"

#include "host/cmd/paths.h"
#include "host/cmd/text_file.h"

#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <array>

namespace conf {

int read_config(const char *path, Json::Value &config) {
    Json::Value read;
    if (read_json_file(path, read) != 0 || !read.isObject())
        return -1;
    config.swap(read);
    return 0;
}

bool is_readable(const char *path) {
    Json::Value config;
    return read_config(path, config) == 0;
}

int install_config(const char *from, const char *config_path, const char *hash_path) {
    Json::Value config;
    if (read_config(from, config) != 0 || copy_if_different(from, config_path) != 0)
        return -1;
    return refresh_hash(config_path, hash_path);
}

bool holds_same_config(const char *one, const char *other) {
    Json::Value of_one;
    Json::Value of_other;
    return read_config(one, of_one) == 0 && read_config(other, of_other) == 0 && of_one == of_other;
}

int refresh_hash(const char *config_path, const char *hash_path) {
    Json::Value config;
    if (read_config(config_path, config) != 0)
        return -1;
    std::array<char, 128> stored{};
    if (read_hash(hash_path, stored.data()) == 0 && config_hash(config) == stored.data())
        return 0;
    return calculate_and_write_config_hash(config_path, hash_path);
}

} // namespace conf
