// What a kill and a reboot leave of the file system, and what boot makes of it. What a power cut leaves: flash.h.
#pragma once

#include "tests/sweep/tree.h"

#include <string>

namespace sweep {

enum class restart {
    KILL,      // the agent alone; nothing is lost
    REBOOT,    // nothing is lost but /var/volatile, /run and /tmp
    POWER_CUT, // what has not reached the flash is lost as well
    TORN,      // a power cut that keeps all of it, but of a file written in place one half only, or nothing
    STALL,     // nothing ends: the thread alone is held up before the change, the other goes on
    HELD,      // the same at a lock, or before a job file is read; at a tie the other thread goes first
    NONE,      // a run without a cut
    AGAIN,     // of an exception: a recovery was cut again
};

const char *name_of(restart kind);

// What the device does around the agent. The agent relies on both; a scenario may do without, to show why.
struct surroundings {
    bool supervised = true; // an agent that dies in the middle of an apply or of a firmware job takes the
                            // device with it
    bool cleaned = true;    // boot removes what an agent that was cut has left and no longer looks at
};

// A device never used, with this configuration.
void make_new_device(const std::string &config);

// From here on, in the life that calls it, the ledger tells what is written and what has reached the flash.
void follow_writes();

// Boot's steps before the agent starts; `kind` is what came before. False when the agent alone starts again.
bool boot(restart kind, const surroundings &around = {});

// The file system as it stands, and back to that; as often as needed.
tree read_world();
void put_back_world(const tree &kept);

// Makes /var/data/orv hold this and nothing else; a disk that was full still is.
void put_on_flash(const tree &kept);

// All that stands below /var/data/orv is on the flash, as after sync.
void flush_files();

// A program other than the agent writes a file in place (0 ok), or removes it.
int write_in_place(const std::string &path, const std::string &text);
void remove_file(const std::string &path);

// A file that the world writes, on the flash at once.
void put_file(const std::string &path, const std::string &text);

// Takes all room on /var/data, gives it back.
void fill_disk();
void free_disk();

} // namespace sweep
