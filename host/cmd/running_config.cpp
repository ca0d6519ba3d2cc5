// What reads the running configuration, and the getters for members of a JSON object.
#include "host/cmd/canonical.h"
#include "host/cmd/dotted.h"
#include "host/cmd/paths.h"

#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <cstring>

namespace {

std::string as_text(const Json::Value &value) {
    return value.isString() ? value.asString() : conf::one_line(value);
}

const Json::Value *find_key(const Json::Value &object, const char *key) {
    return key && object.isObject() ? conf::find_member(object, key) : nullptr;
}

} // namespace

int cmd_get_value_json(const char *path, Json::Value &value) try {
    Json::Value running;
    if (!path || read_json_file(conf::RUNNING_CONFIG, running) != 0)
        return -1;
    const Json::Value *found = conf::find_member(running, path);
    if (!found)
        return -1;
    value = *found;
    return 0;
} catch (...) {
    return -1;
}

int cmd_get_value(const char *path, char *buffer, size_t size) try {
    Json::Value value;
    if (!buffer || cmd_get_value_json(path, value) != 0)
        return -1;
    const std::string text = as_text(value);
    if (text.size() >= size)
        return -1;
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    return 0;
} catch (...) {
    return -1;
}

bool config_get_bool(const Json::Value &object, bool *value, const char *key) try {
    const Json::Value *found = find_key(object, key);
    if (!found || !found->isBool())
        return false;
    *value = found->asBool();
    return true;
} catch (...) {
    return false;
}

bool config_get_int(const Json::Value &object, int *value, const char *key) try {
    const Json::Value *found = find_key(object, key);
    if (!found || !found->isInt())
        return false;
    *value = found->asInt();
    return true;
} catch (...) {
    return false;
}

bool config_get_string(const Json::Value &object, std::string *value, const char *key) try {
    const Json::Value *found = find_key(object, key);
    if (!found || !found->isString())
        return false;
    *value = found->asString();
    return true;
} catch (...) {
    return false;
}

bool config_get_object(const Json::Value &object, Json::Value *value, const char *key) try {
    const Json::Value *found = find_key(object, key);
    if (!found || !found->isObject())
        return false;
    Json::Value copy = *found; // value may be the object that it is read from
    value->swap(copy);
    return true;
} catch (...) {
    return false;
}
