// status, init.
#include "host/cmd/boot.h"
#include "host/cmd/config_copies.h"
#include "host/cmd/paths.h"
#include "host/cmd/vtrcfg/commands.h"
#include "host/cmd/vtrcfg/documents.h"

#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <array>
#include <ctime>
#include <iostream>

namespace vtrcfg {
namespace {

constexpr size_t SHOWN_DIGITS = 12;

void tell(const std::string &what, const std::string &answer) {
    std::cout << what << std::string(what.size() < 14 ? 14 - what.size() : 1, ' ') << answer << "\n";
}

void tell_configuration(const std::string &what, const char *config_path, const char *hash_path) {
    Json::Value config;
    if (!file_exists(config_path))
        return tell(what, "none");
    if (conf::read_config(config_path, config) != 0)
        return tell(what, "broken");
    const std::string hash = config_hash(config);
    std::array<char, 128> stored{};
    const bool matches = !hash_path || (read_hash(hash_path, stored.data()) == 0 && hash == stored.data());
    tell(what, hash.substr(0, SHOWN_DIGITS) + (matches ? "" : ", its hash file differs"));
}

// Something is edited or being applied, or the next boot will run another configuration than this one.
bool is_uncommitted() {
    Json::Value stored;
    return file_exists(conf::CONFIG_MODIFIED) || (conf::read_config(conf::STORED_CONFIG, stored) == 0 &&
                                                  config_hash(stored) != current_config_hash());
}

void tell_apply() {
    Json::Value status;
    std::string reason;
    std::string text;
    bool in_progress = false;
    read_json_file(conf::APPLY_STATUS, status);
    config_get_bool(status, &in_progress, "in_progress");
    config_get_string(status, &reason, "reason");
    config_get_string(status, &text, "status");
    tell("apply", in_progress ? "in progress: " + reason : "none");
    tell("last text", text.empty() ? "none" : text);
}

void tell_verification() {
    Json::Value timer;
    int end = 0;
    if (!file_exists(conf::FAILSAFE_TIMER))
        return tell("verification", "none");
    if (read_json_file(conf::FAILSAFE_TIMER, timer) != 0 || !config_get_int(timer, &end, "end_time"))
        return tell("verification", "running");
    tell("verification", "running, " + std::to_string(std::max<long>(0, end - time(nullptr))) + " s left");
}

} // namespace

int status() {
    tell_configuration("running", conf::RUNNING_CONFIG, conf::RUNNING_HASH);
    tell_configuration("persistent", conf::STORED_CONFIG, conf::STORED_HASH);
    tell_configuration("failsafe", conf::FAILSAFE_CONFIG, conf::FAILSAFE_HASH);
    tell_configuration("candidate", conf::NEW_CONFIG, nullptr);
    tell_configuration("edited", conf::EDITED_CONFIG, nullptr);
    tell("uncommitted", is_uncommitted() ? "yes" : "no");
    tell("cloud job", iot_job_in_progress() ? "running" : "none");
    tell_apply();
    tell_verification();
    return YES;
}

int init() {
    std::vector<std::string> notes;
    const int result = conf::boot_configuration(notes);
    for (const std::string &note : notes)
        std::cerr << "vtrcfg: " << note << "\n";
    return result == 0 ? YES : TROUBLE;
}

} // namespace vtrcfg
