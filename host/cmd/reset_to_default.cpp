// Areas of the configuration back to what was delivered, while the router runs.
#include "host/cmd/config_copies.h"
#include "host/cmd/dotted.h"
#include "host/cmd/fault.h"
#include "host/cmd/paths.h"

#include "host/vantrel/json_text.h"

#include "platform/cmd.h"
#include "platform/vantrel.h"
#include "platform/vtrsec.h"

#include <algorithm>

namespace {

constexpr char SCRATCH[] = "/var/volatile/config/config.reset";

// A lone word stands for the JSON document {"reset": word}.
Json::Value wanted_areas(const std::string &request) {
    Json::Value parsed;
    if (!parse_json(request, parsed))
        parsed = request;
    return parsed.isObject() ? parsed["reset"] : parsed;
}

// The areas that a request names; empty when one of them does not exist.
std::vector<const conf::area *> areas_of(const conf::meta_data &meta, Json::Value wanted) {
    std::vector<const conf::area *> areas;
    if (wanted == "all") {
        for (const conf::area &area : meta.areas)
            areas.push_back(&area);
        return areas;
    }
    if (wanted.isString()) {
        const Json::Value one = wanted;
        wanted = Json::Value(Json::arrayValue);
        wanted.append(one);
    }
    if (!wanted.isArray())
        return {};
    for (const Json::Value &path : wanted) {
        const auto area =
            std::ranges::find_if(meta.areas, [&](const conf::area &one) { return path == one.path; });
        if (area == meta.areas.end())
            return {};
        areas.push_back(&*area);
    }
    return areas;
}

bool apply_is_under_way() {
    return file_exists(conf::CONFIG_JOB_EXECUTING) || file_exists(conf::FAILSAFE_TIMER) ||
           file_exists(conf::NEW_CONFIG) || file_exists(conf::STORED_NEW_CONFIG);
}

// The persistent configuration with the areas as delivered, encoded, in the scratch file.
int write_scratch(const std::vector<const conf::area *> &areas) {
    Json::Value config;
    Json::Value delivered;
    if (conf::read_config(conf::STORED_CONFIG, config) != 0 ||
        conf::read_config(conf::DEFAULT_CONFIG, delivered) != 0)
        return -1;
    for (const conf::area *area : areas) {
        const Json::Value *value = conf::find_member(delivered, area->path);
        if (!value)
            conf::remove_member(config, area->path);
        else if (!conf::set_member(config, area->path, *value))
            return -1;
    }
    if (write_json_file(SCRATCH, config) != 0 || encode_encrypt_fields_config_file(SCRATCH, nullptr) != 0)
        return -1;
    return conf::configuration_faults(SCRATCH).empty() ? 0 : -1;
}

// Each line once, in the order of the areas. A line that fails or hangs does not undo the reset.
void restart_services(const conf::meta_data &meta, const Json::Value &changes) {
    std::vector<std::string> done;
    for (const Json::Value &change : changes)
        for (const std::string &line : meta.area_of(change["path"].asString())->cmd_restart)
            if (std::ranges::find(done, line) == done.end()) {
                orvsys("timeout 60 %s", line.c_str());
                done.push_back(line);
            }
}

int install_scratch(const conf::meta_data &meta) {
    Json::Value changes;
    if (get_config_change_list(conf::RUNNING_CONFIG, SCRATCH, changes) != 0 ||
        conf::install_config(SCRATCH, conf::STORED_CONFIG, conf::STORED_HASH) != 0 ||
        conf::install_config(SCRATCH, conf::RUNNING_CONFIG, conf::RUNNING_HASH) != 0)
        return -1;
    sync_to_fs(2);
    const Json::Value hardware = "hardware";
    const bool hardware_changed = std::any_of(changes.begin(), changes.end(), [&](const Json::Value &change) {
        return change["path"] == hardware;
    });
    int result = 0;
    if (hardware_changed)
        result = cmd_hwconfig() == 0 ? save_hw_config_section_to_nv() : -1;
    restart_services(meta, changes);
    return result;
}

} // namespace

// The request is {"reset": "all"}, {"reset": "AREA"} or {"reset": ["AREA", ...]}, or the lone word all or
// AREA; an area is named by its path, as in network.wireless.wifi. The named areas of the persistent
// configuration become those of the delivered one (an area that it lacks is removed), the result becomes
// the running configuration too, each with its hash, and the services of what changed are restarted.
//
// Refused, with nothing changed, when the request names anything else, while an apply runs or a candidate
// waits, and when the result would not be valid. Fails too when a configuration cannot be read or written.
int cmd_reset_to_default(const char *request) try {
    const auto meta = conf::load_meta();
    if (!request || !meta || apply_is_under_way())
        return -1;
    const auto areas = areas_of(*meta, wanted_areas(request));
    if (areas.empty())
        return -1;
    const int result = write_scratch(areas) == 0 ? install_scratch(*meta) : -1;
    delete_file(SCRATCH);
    return result;
} catch (...) {
    return -1;
}
