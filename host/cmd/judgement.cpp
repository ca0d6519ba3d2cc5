#include "host/cmd/judgement.h"

#include "host/cmd/config_copies.h"
#include "host/cmd/fault.h"
#include "host/cmd/meta.h"
#include "host/cmd/paths.h"
#include "host/cmd/schema.h"

#include "platform/vantrel.h"

namespace conf {
namespace {

bool can_be_judged() {
    const auto meta = load_meta();
    return meta && schema_defect(root_schema(*meta)).empty();
}

} // namespace

std::string defect_of(const char *path) {
    if (!is_readable(path))
        return "it is no JSON object";
    if (!can_be_judged())
        return "";
    const auto faults = configuration_faults(path);
    if (faults.empty())
        return "";
    return to_text(faults.front()) +
           (faults.size() == 1 ? "" : ", and " + std::to_string(faults.size() - 1) + " more");
}

bool upgrade_is_under_way() {
    return file_exists(FIRMWARE_UPDATED) || file_exists(MIGRATE);
}

choice choose_from(const std::vector<const char *> &own_copies) {
    choice result;
    std::vector<std::string> doubtful;
    const auto judge = [&](const char *path) {
        const std::string defect = defect_of(path);
        if (defect.empty()) {
            result.paths.push_back(path);
            return;
        }
        result.refused.push_back(std::string(path) + " cannot be used: " + defect);
        if (is_readable(path))
            doubtful.push_back(path);
    };
    for (const char *path : own_copies)
        if (file_exists(path))
            judge(path);
    if (upgrade_is_under_way())
        result.paths.insert(result.paths.end(), doubtful.begin(), doubtful.end());
    if (file_exists(DEFAULT_CONFIG))
        judge(DEFAULT_CONFIG);
    return result;
}

} // namespace conf
