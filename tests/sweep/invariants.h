// What must hold after every cut and every recovery, as named statements.
#pragma once

#include "tests/sweep/ledger.h"
#include "tests/sweep/scenario.h"

#include <json/json.h>

#include <map>
#include <string>
#include <vector>

namespace sweep {

// What an invariant looks at, besides the file system as it stands.
struct evidence {
    const scenario &given;
    std::vector<entry> ledger;
    bool at_cut = false; // between the crash and the next boot
};

struct invariant {
    const char *name;
    bool at_cut; // holds between the crash and the next boot too, not only when all has come to rest
    std::vector<std::string> (*broken)(const evidence &); // what breaks it; empty: it holds
};

std::vector<invariant> job_invariants();
std::vector<invariant> config_invariants();
std::vector<invariant> firmware_invariants();

const std::vector<invariant> &invariants();

} // namespace sweep
