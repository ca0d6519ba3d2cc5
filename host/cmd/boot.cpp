#include "host/cmd/boot.h"

#include "host/cmd/config_copies.h"
#include "host/cmd/judgement.h"
#include "host/cmd/paths.h"
#include "host/cmd/text_file.h"

#include "platform/cmd.h"
#include "platform/vantrel.h"
#include "platform/vtrsec.h"

namespace conf {
namespace {

// The configuration to run; empty when there is none at all. What is not valid is better than nothing.
std::string best_config(std::vector<std::string> &notes) {
    const bool readable = is_readable(STORED_CONFIG);
    if (readable && (upgrade_is_under_way() || defect_of(STORED_CONFIG).empty()))
        return STORED_CONFIG;
    const choice found = choose_from({STORED_CONFIG, FAILSAFE_CONFIG});
    notes.insert(notes.end(), found.refused.begin(), found.refused.end());
    if (!found.paths.empty())
        return found.paths.front();
    for (const char *path : {STORED_CONFIG, FAILSAFE_CONFIG, DEFAULT_CONFIG})
        if (is_readable(path))
            return path;
    return "";
}

// 0 when the persistent configuration is the one to run.
int mend_stored_config(const std::string &best, std::vector<std::string> &notes) {
    if (best == STORED_CONFIG)
        return 0;
    const char *missing = file_exists(STORED_CONFIG) ? "" : "missing, and ";
    if (install_config(best.c_str(), STORED_CONFIG, STORED_HASH) != 0) {
        notes.push_back(std::string(STORED_CONFIG) + " cannot be replaced by " + best + ", which runs now");
        return -1;
    }
    notes.push_back(std::string(STORED_CONFIG) + " is " + missing + "replaced by " + best);
    return 0;
}

int encode_running(std::vector<std::string> &notes) {
    bool changed = false;
    if (encode_encrypt_fields_config_file(RUNNING_CONFIG, &changed) != 0) {
        notes.push_back("the sensitive fields could not be encoded");
        return -1;
    }
    return changed ? copy_file(RUNNING_CONFIG, STORED_CONFIG) : 0;
}

int note_failure(int result, const char *text, std::vector<std::string> &notes) {
    if (result != 0)
        notes.push_back(text);
    return result;
}

} // namespace

int boot_configuration(std::vector<std::string> &notes) {
    const std::string best = best_config(notes);
    if (best.empty()) {
        notes.push_back(std::string("there is no ") + STORED_CONFIG + ", and nothing to replace it by");
        return -1;
    }
    int result = mend_stored_config(best, notes);
    if (note_failure(copy_file(best.c_str(), RUNNING_CONFIG),
                     "the running configuration could not be written", notes) != 0)
        return -1;
    result |= note_failure(cmd_metainit(), "the image's meta data cannot be used", notes);
    result |= encode_running(notes);
    result |= note_failure(refresh_hash(RUNNING_CONFIG, RUNNING_HASH),
                           "the running hash could not be written", notes);
    result |= note_failure(refresh_hash(STORED_CONFIG, STORED_HASH),
                           "the persistent hash could not be written", notes);
    if (file_exists(FAILSAFE_CONFIG))
        result |=
            note_failure(refresh_hash(FAILSAFE_CONFIG, FAILSAFE_HASH),
                         "the failsafe configuration cannot be read, or its hash not be written", notes);
    result |= note_failure(refresh_hardware_settings(), "the hardware settings could not be written", notes);
    result |= note_failure(save_hw_config_section_to_nv(), "the hardware section could not be stored", notes);
    sync_to_fs(2);
    return result == 0 ? 0 : -1;
}

} // namespace conf
