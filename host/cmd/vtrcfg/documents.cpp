#include "host/cmd/vtrcfg/documents.h"

#include "host/cmd/config_copies.h"
#include "host/cmd/paths.h"
#include "host/cmd/vtrcfg/commands.h"
#include "host/vantrel/atomic_file.h"

#include "platform/cmd.h"
#include "platform/vantrel.h"
#include "platform/vtrsec.h"

#include <array>

namespace vtrcfg {

bool has_edited() {
    return file_exists(conf::EDITED_CONFIG) != 0;
}

Json::Value read_document(const std::string &file) {
    Json::Value document;
    if (!file_exists(file.c_str()))
        throw trouble("there is no file " + file);
    if (conf::read_config(file.c_str(), document) != 0)
        throw trouble(file + " is no JSON object ('vtrcfg validate " + file + "' says where)");
    return document;
}

Json::Value running_document() {
    return read_document(conf::RUNNING_CONFIG);
}

std::string edited_is_stale() {
    std::array<char, 128> base{};
    if (read_hash(conf::EDITED_BASE_HASH, base.data()) == 0 && current_config_hash() == base.data())
        return "";
    return "the running configuration has changed since the editing began; "
           "'vtrcfg diff' shows what would be taken back, 'vtrcfg discard' begins anew";
}

Json::Value document_to_edit() {
    if (!has_edited())
        return running_document();
    Json::Value edited = read_document(conf::EDITED_CONFIG);
    const std::string stale = edited_is_stale();
    if (stale.empty())
        return edited;
    if (config_hash(edited) != current_config_hash())
        throw trouble(stale);
    forget_edited();
    return running_document();
}

void keep_edited(const Json::Value &document) {
    if (!has_edited() && replace_file(conf::EDITED_BASE_HASH, current_config_hash() + "\n") != 0)
        throw trouble(std::string(conf::EDITED_BASE_HASH) + " cannot be written");
    if (write_json_file(conf::EDITED_CONFIG, document) != 0)
        throw trouble(std::string(conf::EDITED_CONFIG) + " cannot be written");
    if (encode_encrypt_fields_config_file(conf::EDITED_CONFIG, nullptr) != 0)
        throw trouble("the sensitive fields cannot be encoded");
    if (replace_file(conf::CONFIG_MODIFIED, "1\n") != 0)
        throw trouble(std::string(conf::CONFIG_MODIFIED) + " cannot be written");
}

void forget_edited() {
    delete_file(conf::EDITED_CONFIG);
    delete_file(conf::EDITED_BASE_HASH);
    delete_file(conf::CONFIG_MODIFIED);
}

bool has_candidate() {
    return file_exists(conf::NEW_CONFIG) || file_exists(conf::STORED_NEW_CONFIG);
}

bool apply_is_marked() {
    Json::Value status;
    bool in_progress = false;
    read_json_file(conf::APPLY_STATUS, status);
    config_get_bool(status, &in_progress, "in_progress");
    return in_progress;
}

bool is_lost_request() {
    const std::string queued = std::string(conf::ACTIVE_JOBS) + "/FAILSAFE_CONFIG";
    return (file_exists(conf::NEW_CONFIG) || apply_is_marked()) && !file_exists(conf::STORED_NEW_CONFIG) &&
           !file_exists(conf::FAILSAFE_TIMER) && !file_exists(queued.c_str()) && !iot_job_in_progress();
}

} // namespace vtrcfg
