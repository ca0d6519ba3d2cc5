// What must hold of the firmware.
#include "tests/sweep/invariants.h"

#include "tests/sweep/names.h"

#include "tests/fakes/files.h"
#include "tests/sweep/firmware.h"

#include <algorithm>

namespace sweep {

namespace {

using breakages = std::vector<std::string>;

const char *const OLD_SLOT = "1";
const char *const NEW_SLOT = "2";

breakages whole_slot_boots(const evidence &) {
    const std::string slot = slot_to_boot();
    return is_whole(slot) ? breakages() : breakages{"slot " + slot + " is to boot and not whole"};
}

breakages whole_configuration_runs(const evidence &) {
    breakages broken;
    for (const char *path : {"/var/data/orv/config.json", "/var/volatile/config/config.running"})
        if (!file_json(path).isObject())
            broken.push_back(std::string(path) + " is broken");
    return broken;
}

bool has_booted_new_slot(const evidence &seen) {
    return std::any_of(seen.ledger.begin(), seen.ledger.end(), [](const entry &each) {
        return each.kind == entry_kind::BOOT && each.what == std::string("slot ") + NEW_SLOT;
    });
}

void check_end(const evidence &seen, const std::string &id, const Json::Value &status, breakages &broken) {
    const bool wrong = (status == "success" && booted_slot() != NEW_SLOT) ||
                       (status == "failed" && booted_slot() != OLD_SLOT);
    if (wrong)
        broken.push_back("job " + id + " is a " + status.asString() + ", and slot " + booted_slot() +
                         " runs" + (has_booted_new_slot(seen) ? " now" : " as ever"));
}

// The record of an upgrade at the router itself is gone at its end.
breakages end_tells_slot(const evidence &seen) {
    breakages broken;
    for (const std::string folder : {ACTIVE_FOLDER, ARCHIVE_FOLDER})
        for (const std::string &id : names_in(folder))
            if (const Json::Value job = file_json(folder + id); job.isObject() && job["action"] == "FW")
                check_end(seen, id, job["status"], broken);
    Json::Value local_end;
    for (const entry &each : seen.ledger)
        if (each.kind == entry_kind::STORED && each.what == "LOCAL_FW_UPGRADE")
            local_end = json(each.text)["status"];
    check_end(seen, "LOCAL_FW_UPGRADE", local_end, broken);
    if (booted_slot() != slot_to_boot())
        broken.push_back("slot " + booted_slot() + " runs, and slot " + slot_to_boot() + " is to boot");
    return broken;
}

breakages nothing_of_an_upgrade_is_left(const evidence &) {
    breakages broken;
    for (const std::string path :
         {"/var/data/orv/FIRMWARE_UPDATED", "/var/data/orv/LOCAL_FW_UPGRADE", "/var/data/orv/config.staged",
          "/var/data/orv/config.staged.hash", "/var/run/FW_ERR_CODE"})
        if (exists(path))
            broken.push_back(path + " is left");
    return broken;
}

} // namespace

std::vector<invariant> firmware_invariants() {
    return {
        {WHOLE_SLOT, moment::AT_CUT, whole_slot_boots},
        {WHOLE_CONFIG, moment::AT_REST, whole_configuration_runs},
        {SLOT_ENDS, moment::AT_REST, end_tells_slot},
        {NO_UPGRADE_LEFT, moment::AT_REST, nothing_of_an_upgrade_is_left},
    };
}

} // namespace sweep
