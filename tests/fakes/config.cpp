#include "tests/fakes/config.h"

#include "platform/cmd.h"
#include "platform/vtrsec.h"
#include "tests/fakes/calls.h"
#include "tests/fakes/files.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

constexpr const char *RUNNING = "/var/volatile/config/config.running";
constexpr size_t HASH_BUFFER = 128;

fakes::config_state state_now;

Json::Value running_config() {
    const auto held = fakes::hold();
    return state_now.running.isNull() ? file_json(RUNNING) : state_now.running;
}

const Json::Value *member(const Json::Value &object, const std::string &dotted) {
    const Json::Value *found = &object;
    size_t start = 0;
    while (start <= dotted.size()) {
        const size_t dot = std::min(dotted.find('.', start), dotted.size());
        const std::string key = dotted.substr(start, dot - start);
        if (!found->isObject() || !found->isMember(key))
            return nullptr;
        found = &(*found)[key];
        start = dot + 1;
    }
    return found;
}

std::string compact(const Json::Value &value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

bool same_member(const Json::Value &left, const Json::Value &right, const std::string &key) {
    const Json::Value *first = member(left, key);
    const Json::Value *second = member(right, key);
    return first != nullptr && second != nullptr && *first == *second;
}

Json::Value changed_members(const Json::Value &before, const Json::Value &after) {
    auto keys = before.isObject() ? before.getMemberNames() : std::vector<std::string>();
    const auto more = after.isObject() ? after.getMemberNames() : std::vector<std::string>();
    keys.insert(keys.end(), more.begin(), more.end());
    std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    Json::Value list(Json::arrayValue);
    for (const auto &key : keys) {
        if (same_member(before, after, key))
            continue;
        Json::Value element;
        element["path"] = key;
        element["cmd_apply"] = Json::Value(Json::arrayValue);
        list.append(element);
    }
    return list;
}

int changing(const char *function, const std::string &text = "") {
    fakes::change(function, text);
    return fakes::set_answer(function, text).value_or(0);
}

int asking(const char *function, const std::string &text) {
    const auto held = fakes::hold();
    fakes::record(fakes::call_kind::QUERY, function, text);
    return fakes::set_answer(function, text).value_or(0);
}

int restore_failsafe(const char *function, const std::string &config, const std::string &hash) {
    if (const int result = changing(function); result != 0)
        return result;
    std::string text;
    if (fakes::read_all("/var/data/orv/config.failsafe", text) == 0)
        fakes::replace_file(config, text);
    if (fakes::read_all("/var/data/orv/config.failsafe.hash", text) == 0)
        fakes::replace_file(hash, text);
    return 0;
}

} // namespace

namespace fakes {

config_state &config() {
    return state_now;
}

std::string hash_of(const Json::Value &document) {
    uint64_t hash = 1469598103934665603U;
    for (const char c : compact(document))
        hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211U;
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
    return text;
}

void reset_config() {
    const auto held = hold();
    state_now = {};
}

} // namespace fakes

void set_config(const std::string &dotted_path, const std::string &json_text) {
    const auto held = fakes::hold();
    Json::Value *place = &state_now.running;
    size_t start = 0;
    while (start <= dotted_path.size()) {
        const size_t dot = std::min(dotted_path.find('.', start), dotted_path.size());
        place = &(*place)[dotted_path.substr(start, dot - start)];
        start = dot + 1;
    }
    *place = json(json_text);
}

void given_config(const std::string &path, const std::string &hash_path, const std::string &json_text) {
    write_text(path, json_text);
    write_text(hash_path, fakes::hash_of(json(json_text)));
}

// --- the running configuration and members of objects

int cmd_get_value_json(const char *path, Json::Value &value) {
    if (const int result = asking("cmd_get_value_json", path); result != 0)
        return result;
    const Json::Value running = running_config();
    const Json::Value *found = member(running, path);
    if (found == nullptr)
        return -1;
    value = *found;
    return 0;
}

int cmd_get_value(const char *path, char *buffer, size_t size) {
    if (const int result = asking("cmd_get_value", path); result != 0)
        return result;
    const Json::Value running = running_config();
    const Json::Value *found = member(running, path);
    if (found == nullptr || size == 0)
        return -1;
    const std::string text = found->isConvertibleTo(Json::stringValue) ? found->asString() : compact(*found);
    if (text.size() >= size)
        return -1;
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    return 0;
}

bool config_get_bool(const Json::Value &object, bool *value, const char *key) {
    const Json::Value *found = member(object, key);
    if (found == nullptr || !found->isBool())
        return false;
    *value = found->asBool();
    return true;
}

bool config_get_int(const Json::Value &object, int *value, const char *key) {
    const Json::Value *found = member(object, key);
    if (found == nullptr || !found->isInt())
        return false;
    *value = found->asInt();
    return true;
}

bool config_get_string(const Json::Value &object, std::string *value, const char *key) {
    const Json::Value *found = member(object, key);
    if (found == nullptr || !found->isString())
        return false;
    *value = found->asString();
    return true;
}

bool config_get_object(const Json::Value &object, Json::Value *value, const char *key) {
    const Json::Value *found = member(object, key);
    if (found == nullptr || !found->isObject())
        return false;
    *value = *found;
    return true;
}

// --- comparing, checking, hashing

int get_config_change_list(const char *old_path, const char *new_path, Json::Value &changes) {
    const auto held = fakes::hold();
    if (const int result = asking("get_config_change_list", std::string(old_path) + " " + new_path);
        result != 0)
        return result;
    if (state_now.list_changes)
        changes = state_now.list_changes(file_json(old_path), file_json(new_path));
    else if (state_now.change_list.isNull())
        changes = changed_members(file_json(old_path), file_json(new_path));
    else
        changes = state_now.change_list;
    return 0;
}

int config_validator(const char *path, std::string &result) {
    asking("config_validator", path);
    if (state_now.validate)
        return state_now.validate(file_json(path), result);
    const auto held = fakes::hold();
    if (!state_now.validator_result.empty())
        result = state_now.validator_result;
    return state_now.validator_status;
}

int calculate_and_write_config_hash(const char *config_path, const char *hash_path) {
    if (const int result =
            changing("calculate_and_write_config_hash", std::string(config_path) + " " + hash_path);
        result != 0)
        return result;
    const Json::Value document = file_json(config_path);
    if (document.isNull())
        return -1;
    return fakes::replace_file(hash_path, fakes::hash_of(document));
}

int read_hash(const char *hash_path, char *buffer) {
    if (const int result = asking("read_hash", hash_path); result != 0)
        return result;
    std::string text;
    if (fakes::read_all(hash_path, text) != 0)
        return -1;
    text = text.substr(0, text.find('\n')).substr(0, HASH_BUFFER - 1);
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    return 0;
}

std::string config_hash(const Json::Value &document) {
    return fakes::hash_of(document);
}
std::string current_config_hash() {
    return fakes::hash_of(running_config());
}

int encode_encrypt_fields_config_file(const char *path, bool *changed) {
    if (changed != nullptr)
        *changed = false;
    return changing("encode_encrypt_fields_config_file", path);
}

// --- marks and progress

void set_config_apply_in_progress(const char *text) {
    changing("set_config_apply_in_progress", text);
    const auto held = fakes::hold();
    state_now.apply_progress.push_back(std::string("set ") + text);
}

void clear_config_apply_in_progress() {
    changing("clear_config_apply_in_progress");
    const auto held = fakes::hold();
    state_now.apply_progress.emplace_back("clear");
}

void update_config_apply_status(const char *text) {
    changing("update_config_apply_status", text);
    const auto held = fakes::hold();
    state_now.apply_progress.push_back(std::string("update ") + text);
}

bool iot_job_in_progress() {
    const std::string folder = "/var/volatile/orv/";
    for (const char *name : {"FW_JOBID", "FW_JOB_EXECUTING", "CONFIG_JOB_EXECUTING", "RADIOFW_JOB_EXECUTING",
                             "CRITICAL_JOB_EXECUTING"})
        if (exists(folder + name))
            return true;
    return false;
}

// --- meta data, hardware section, resets

int store_meta_file() {
    return changing("store_meta_file");
}
int restore_meta_file() {
    return changing("restore_meta_file");
}
int restore_meta_file_or_regenerate_from_meta_folder_in_ram() {
    return changing("restore_meta_file_or_regenerate_from_meta_folder_in_ram");
}
int save_hw_config_section_to_nv() {
    return changing("save_hw_config_section_to_nv");
}
int cmd_hwconfig() {
    const int result = changing("cmd_hwconfig");
    return result == 0 && state_now.apply_hardware ? state_now.apply_hardware() : result;
}
int cmd_metainit() {
    return changing("cmd_metainit");
}

int restore_failsafe_files_to_nv() {
    return restore_failsafe("restore_failsafe_files_to_nv", "/var/data/orv/config.json",
                            "/var/data/orv/config.hash");
}

int restore_failsafe_files_to_running() {
    return restore_failsafe("restore_failsafe_files_to_running", RUNNING,
                            "/var/volatile/config/config.running.hash");
}

int cmd_reset_to_default(const char *request) {
    return changing("cmd_reset_to_default", request);
}
int cmd_factory_reset(int mode) {
    return changing("cmd_factory_reset", std::to_string(mode));
}

struct metaConfig::state {};

metaConfig::metaConfig(bool prepare, const char *path, const char *text) : own(std::make_unique<state>()) {
    const auto held = fakes::hold();
    state_now.metas_built.push_back(std::string(prepare ? "true " : "false ") + path + " " +
                                    (text != nullptr ? text : ""));
}

metaConfig::~metaConfig() = default;

int metaConfig::getAccessLevel(const char *path, int &level) {
    const auto held = fakes::hold();
    if (const int result = asking("getAccessLevel", path); result != 0)
        return result;
    const auto found = state_now.access_levels.find(path);
    if (found == state_now.access_levels.end())
        return -1;
    level = found->second;
    return 0;
}

// --- vtrsec

int get_device_token(int size, char *buffer) {
    const auto held = fakes::hold();
    if (const int result = asking("get_device_token", ""); result != 0)
        return result;
    if (size <= 0 || state_now.device_token.size() >= static_cast<size_t>(size))
        return -1;
    std::memcpy(buffer, state_now.device_token.c_str(), state_now.device_token.size() + 1);
    return 0;
}
