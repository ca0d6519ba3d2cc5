// The configuration library (libcmd), the security library (libvtrsec) and the system database
// (libsysdb).
//
// will_return and always_returns work for every function here that returns int, by its name.
// Journal entries: every function that changes something, with its arguments ("cmd_hwconfig",
// "update_config_apply_status TEXT", "sysdb_namedb_write_int SYS SYS_JOB_COUNT 3"); queries: the
// others, as "cmd_get_value_json iot.vantrel_iot".
#pragma once

#include <json/json.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace fakes {

struct config_state {
    // The running configuration. While it is null, the file /var/volatile/config/config.running is.
    Json::Value running;

    // What get_config_change_list fills in. Null: one element for every top-level member that
    // differs between the two files, with an empty cmd_apply.
    Json::Value change_list;

    // Take the place of change_list and of the two lines below, when set.
    std::function<Json::Value(const Json::Value &before, const Json::Value &after)> list_changes;
    std::function<int(const Json::Value &config, std::string &result)> validate;

    // Called by cmd_hwconfig, and gives its result.
    std::function<int()> apply_hardware;

    int validator_status = 0;
    std::string validator_result; // empty: the caller's text stays

    // Progress texts and marks, in order: "set TEXT", "update TEXT", "clear".
    std::vector<std::string> apply_progress;

    // metaConfig: access level by path; any other path is a failure. "BUILD PATH TEXT" of each.
    std::map<std::string, int> access_levels;
    std::vector<std::string> metas_built;

    std::string device_token = "token-of-a-test";

    std::map<std::string, int> database_ints;
    std::map<std::string, std::string> database_texts;
};

config_state &config();

// The one hash: of the document, however its members are ordered.
std::string hash_of(const Json::Value &document);

void reset_config();

} // namespace fakes

// Sets a value of the running configuration: set_config("iot.vantrel_iot.enabled", "true").
void set_config(const std::string &dotted_path, const std::string &json_text);

// Puts a configuration and its hash in two files, as the library would.
void given_config(const std::string &path, const std::string &hash_path, const std::string &json_text);
