// What a power cut may leave of /var/data/orv.
//
// What has been changed is on the flash after the next sync_to_fs; until then a power cut may lose it, in part too.
// Of one folder the changes reach the flash in their order, of different folders in any. What write_json_file and
// copy_file write is there whole or not at all; a rename counts for both of its folders, and is never done by half;
// what a file written in place holds may come later than its name.
#pragma once

#include "tests/sweep/tree.h"

#include <map>
#include <string>
#include <vector>

namespace sweep {

inline const std::string PERSISTENT_FOLDER = "/var/data/orv";

class flash {
public:
    // After a boot: all that lies there is on the flash. What comes later is read from the ledger.
    void settle();

    // Every state that a power cut may leave here and that is not what lies there; the one that loses most first.
    // At most MOST_STATES: beyond that, those that lose the changes of whole folders, and the first ones.
    std::vector<tree> after_power_cut() const;

    // The states in which everything is there but the content of one file that was written in place: half of it, and
    // none.
    std::vector<tree> torn() const;

    // What the ledger does not explain of what lies there; empty when it tells all.
    std::string unexplained() const;

    static constexpr size_t MOST_STATES = 32;

private:
    tree settled;
    size_t known_entries = 0; // of the ledger, when it settled
};

} // namespace sweep
