// Which areas differ between two configurations.
#include "host/cmd/canonical.h"
#include "host/cmd/config_copies.h"
#include "host/cmd/dotted.h"
#include "host/cmd/meta.h"

#include "platform/cmd.h"

namespace {

// Empty where the configuration has no such area, which differs from any value.
std::string area_text(const Json::Value &canonical_config, const std::string &path) {
    const Json::Value *value = conf::find_member(canonical_config, path);
    return value ? conf::one_line(*value) : "";
}

} // namespace

// Compares canonical values, so encoded and plain sensitive fields are equal. The order is that of the
// areas' "order". A former configuration that is missing or broken counts as empty: every area is
// applied then. Fails, with an empty list, when the new one is missing or no JSON object, or there is no
// meta data.
int get_config_change_list(const char *old_path, const char *new_path, Json::Value &changes) try {
    changes = Json::Value(Json::arrayValue);
    const auto meta = conf::load_meta();
    Json::Value old_config(Json::objectValue);
    Json::Value new_config;
    if (!meta || conf::read_config(new_path, new_config) != 0)
        return -1;
    conf::read_config(old_path, old_config);
    old_config = conf::canonical(old_config);
    new_config = conf::canonical(new_config);

    for (const conf::area &area : meta->areas) {
        if (area_text(old_config, area.path) == area_text(new_config, area.path))
            continue;
        Json::Value change;
        change["path"] = area.path;
        change["cmd_apply"] = area.cmd_apply;
        changes.append(change);
    }
    return 0;
} catch (...) {
    return -1;
}
