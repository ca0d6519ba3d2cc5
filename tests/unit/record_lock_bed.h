// job_record_mutex made visible: that it is locked and unlocked stands in the journal of the fakes, as "lock record"
// and "unlock record", and a test can ask for it. By the linker's --wrap, which CMakeLists.txt names for each program
// that has this file.
#pragma once

#include <functional>

namespace record_lock_bed {

// This thread holds the record's mutex.
bool held_here();

// Called on a thread that is about to wait for the record's mutex, because the other has it. Set before threads start.
extern std::function<void()> on_wait;

// Called on a thread that is about to take job_file_mutex, for the write of a job file. Set before threads start.
extern std::function<void()> before_write;

} // namespace record_lock_bed
