// The system database: the maps of config_state.
#include "platform/sysdb.h"

#include "tests/fakes/calls.h"
#include "tests/fakes/config.h"

#include <cstring>

int sysdb_read_int(int, const char *key, int *value) {
    const auto held = fakes::hold();
    fakes::record(fakes::call_kind::QUERY, "sysdb_read_int", key);
    if (const auto answer = fakes::set_answer("sysdb_read_int", key); answer.value_or(0) != 0)
        return *answer;
    const auto found = fakes::config().database_ints.find(key);
    if (found == fakes::config().database_ints.end())
        return -1;
    *value = found->second;
    return 0;
}

int sysdb_read_str(int, const char *key, char *buffer, int max) {
    const auto held = fakes::hold();
    fakes::record(fakes::call_kind::QUERY, "sysdb_read_str", key);
    if (const auto answer = fakes::set_answer("sysdb_read_str", key); answer.value_or(0) != 0)
        return *answer;
    const auto found = fakes::config().database_texts.find(key);
    if (found == fakes::config().database_texts.end() || max < 0)
        return -1;
    const std::string text = found->second.substr(0, static_cast<size_t>(max));
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    return 0;
}

int sysdb_namedb_write_int(void *, const char *group, const char *key, int value, int) {
    const std::string text = std::string(group) + " " + key + " " + std::to_string(value);
    fakes::change("sysdb_namedb_write_int", text);
    const auto held = fakes::hold();
    if (const auto answer = fakes::set_answer("sysdb_namedb_write_int", text); answer.value_or(0) != 0)
        return *answer;
    fakes::config().database_ints[key] = value;
    return 0;
}
