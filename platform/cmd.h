// The maker's configuration library (libcmd).
//
// Configuration paths are dotted ("system.failsafe"). Functions that return int return 0 for
// success and non-zero (-1) for failure; none throws; all may be called from the main thread and
// from the job manager thread at once.
#pragma once

#include <json/json.h>

#include <cstddef>
#include <memory>
#include <string>

// --- The running configuration, read anew at each call.

int cmd_get_value_json(const char *path, Json::Value &value);
int cmd_get_value(const char *path, char *buffer, size_t size);

// --- Members of a JSON object by dotted key. True when found with that type; else *value stays as
// it was.

bool config_get_bool(const Json::Value &object, bool *value, const char *key);
bool config_get_int(const Json::Value &object, int *value, const char *key);
bool config_get_string(const Json::Value &object, std::string *value, const char *key);
bool config_get_object(const Json::Value &object, Json::Value *value, const char *key);

// --- Comparing, checking and identifying configurations.

// Fills changes with an array of {"path", "cmd_apply": [...]}, one element for every changed area,
// in a fixed order.
int get_config_change_list(const char *old_path, const char *new_path, Json::Value &changes);

// 0 when valid; else the explanation stands in result.
int config_validator(const char *path, std::string &result);

// One hash in one form everywhere: the same document gives the same text however its members are
// ordered, and whether or not its sensitive fields are in their stored form.
int calculate_and_write_config_hash(const char *config_path, const char *hash_path);
int read_hash(const char *hash_path, char *buffer); // buffer holds 128 bytes
std::string config_hash(const Json::Value &config);
std::string current_config_hash();

// --- The system-wide mark and progress text of a configuration apply, which other components show.

void set_config_apply_in_progress(const char *text);
void clear_config_apply_in_progress();
void update_config_apply_status(const char *text);

// A cloud job is being run: FW_JOBID or one of the four executing markers exists.
bool iot_job_in_progress();

// --- Meta data and the hardware section.

int store_meta_file();
int restore_meta_file();
int restore_meta_file_or_regenerate_from_meta_folder_in_ram();
int save_hw_config_section_to_nv();
int cmd_hwconfig();
int cmd_metainit();

// --- The failsafe configuration and the resets.

int restore_failsafe_files_to_nv();      // failsafe configuration and hash over the persistent ones
int restore_failsafe_files_to_running(); // the same over the running ones
int cmd_reset_to_default(const char *request);
int cmd_factory_reset(int mode);

// Meta data of a configuration file. A missing file is no exception.
class metaConfig {
public:
    // prepare: build the meta data of the configuration at path (a candidate) anew.
    metaConfig(bool prepare, const char *path, const char *text);
    ~metaConfig();
    metaConfig(const metaConfig &) = delete;
    metaConfig &operator=(const metaConfig &) = delete;

    // The access level of a configuration path; 0 ok.
    int getAccessLevel(const char *path, int &level);

private:
    struct state;
    std::unique_ptr<state> own;
};
