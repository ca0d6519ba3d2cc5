// What happened in one run, over all its lives: every change the agent made, every input it got. Lies in
// memory that the processes of the sweep share, so that it outlives a life that is cut.
#pragma once

#include <ctime>
#include <string>
#include <vector>

namespace sweep {

enum class entry_kind {
    CHANGE,  // the agent changes something: the platform function and its arguments, logged before it is done
    STORED,  // a job record now stands in the active job directory: its id and its JSON
    SCRIPT,  // a script "started", "ended" or was "killed": the job id first
    INPUT,   // the world acts: the input's or answer's key, and its text
    BOOT,    // a life begins
    END,     // a life ends, and how
    LOG,     // a line of the agent's log
    HANDLED, // the agent has done with the message that came last
    REPLACED, // a file was replaced as a whole: its path and content
    WRITTEN,  // a file was written in place: its path and content
    SYNCED,   // all that was written before is on the flash
    LOST,     // by a power cut: of this job the "record" that was stored last, or its "move" to the archive
};

struct entry {
    entry_kind kind;
    time_t at;
    std::string what;
    std::string text;
};

void open_ledger();  // once, before the first fork
void clear_ledger(); // at the start of a run

void write_ledger(entry_kind kind, const std::string &what, const std::string &text = "");

// All of them, good until the next call.
const std::vector<entry> &read_ledger();

// One line for people.
std::string line_of(const entry &entry);

// Where the run stands: what is written after it is forgotten by going back to it.
struct ledger_mark {
    size_t used = 0;
    long changes = 0;
    long places = 0;
    time_t now = 0;
};

ledger_mark mark_ledger();
void rewind_ledger(const ledger_mark &mark);

// The number of CHANGE entries.
long changes_so_far();

// Places where a thread may be held up, other than changes: counted, not written down.
long count_place();
long places_so_far();

// The virtual time at which the run stands, kept over the lives.
void keep_time(time_t now);
time_t kept_time();

} // namespace sweep
