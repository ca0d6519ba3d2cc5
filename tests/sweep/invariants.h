// What must hold after every cut and every recovery, as named statements.
#pragma once

#include "tests/sweep/ledger.h"
#include "tests/sweep/scenario.h"

#include <json/json.h>

#include <map>
#include <string>
#include <vector>

namespace sweep {

enum class moment {
    AT_CUT,     // between the crash and the next boot
    AT_REST,    // all has come to rest
    WITHOUT_CUT // the same, for the first time in a run that nothing has disturbed
};

// What an invariant looks at, besides the file system as it stands.
struct evidence {
    evidence(const scenario &given, const std::vector<entry> &all, moment when);

    const scenario &given;
    std::vector<entry> ledger; // what counts of it
    moment when;

    // Whether an invariant may look at it. Two recoveries before which the same counted are the same.
    static bool counts(const entry &each);
};

struct invariant {
    const char *name;
    moment since; // AT_CUT: holds always; AT_REST: not between the crash and the next boot
    std::vector<std::string> (*broken)(const evidence &); // what breaks it; empty: it holds
};

std::vector<invariant> job_invariants();
std::vector<invariant> config_invariants();
std::vector<invariant> firmware_invariants();
std::vector<invariant> end_invariants();

const std::vector<invariant> &invariants();

} // namespace sweep
