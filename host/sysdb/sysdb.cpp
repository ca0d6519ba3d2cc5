#include "platform/sysdb.h"
#include "host/sysdb/store.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string>

namespace {

constexpr int THE_STORE = 0;
constexpr const char *THE_GROUP = "SYS";

} // namespace

int sysdb_read_int(int database, const char *key, int *value) try {
    if (database != THE_STORE)
        return -1;
    const std::optional<std::string> text = read_pair(key);
    if (!text)
        return -1;
    int number = 0;
    const char *end = text->data() + text->size();
    const auto [stop, error] = std::from_chars(text->data(), end, number);
    if (error != std::errc() || stop != end)
        return -1;
    *value = number;
    return 0;
} catch (...) {
    return -1;
}

int sysdb_read_str(int database, const char *key, char *buffer, int max) try {
    if (database != THE_STORE || max < 0)
        return -1;
    const std::optional<std::string> text = read_pair(key);
    if (!text)
        return -1;
    const size_t length = std::min(text->size(), static_cast<size_t>(max));
    std::memcpy(buffer, text->data(), length);
    buffer[length] = '\0';
    return 0;
} catch (...) {
    return -1;
}

int sysdb_namedb_write_int(void *, const char *group, const char *key, int value, int) try {
    if (std::strcmp(group, THE_GROUP) != 0)
        return -1;
    return write_pair(key, std::to_string(value)) ? 0 : -1;
} catch (...) {
    return -1;
}
