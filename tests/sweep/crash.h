// What a kill, a reboot and a power cut leave of the file system, and what boot makes of it.
//
// Beside /var/data/orv lies a second copy of it: what has reached the flash. What write_json_file and
// copy_file write is there at once; everything else (files written in place, by commands too, renames,
// deletions) is there after the next sync_to_fs.
#pragma once

#include <string>

namespace sweep {

enum class restart {
    KILL,      // the agent alone; nothing is lost
    REBOOT,    // nothing is lost but /var/volatile, /run and /tmp
    POWER_CUT, // what has not reached the flash is lost as well
    TORN,      // a power cut that keeps what has not reached the flash, but of the last file written
               // in place one half only
    STALL,     // nothing ends: the thread alone is held up, the other goes on
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

// From here on, in the life that calls it, the copy on the flash follows.
void follow_writes();

// Ends what a life leaves. False when this restart leaves nothing else than a reboot would.
bool crash(restart kind);

// Boot's steps before the agent starts; `kind` is what came before.
void boot(restart kind, const surroundings &around = {});

// Keeps the file system as a cut has left it, and goes back to that; as often as needed.
void save_files();
void restore_files();

// All that stands below /var/data/orv is on the flash, as after sync.
void flush_files();

// A file that the world writes, on the flash at once.
void put_file(const std::string &path, const std::string &text);

// Takes all room on /var/data, gives it back.
void fill_disk();
void free_disk();

} // namespace sweep
