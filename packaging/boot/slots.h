// The two firmware slots, as the boot loader and the upgrade tools tell of them.
//
// "/var/data/boot/trial"      "SLOT TRIES": the slot that an upgrade has chosen and that has not proved itself yet,
//                             and how many boots it has left. The boot loader's.
// "/var/data/boot/installed"  "SECONDS JOB": when the latest installation was made, and for which job; "-" in the
//                             place of a job is an upgrade that was started on the device. The upgrade tool's.
//
// The marks FIRMWARE_UPDATED and LOCAL_FW_UPGRADE hold the slot that they are about, as "slot 2". A bare number may be a
// truth value.
#pragma once

#include <json/json.h>

#include <string>

inline constexpr int NO_SLOT = 0;

// 2 when "/var/data/orv/ROOTFS2" is there, else 1.
int running_slot();

// NO_SLOT when there is no such mark, or it names none.
int slot_in_mark(const char *path);

// Sets the mark and flushes it. False when it cannot be written.
bool set_mark(const char *path, int slot);

// An upgrade has chosen this slot, and it has not proved itself yet.
bool is_on_trial(int slot);

// The slot that a firmware job has installed into; NO_SLOT before it has begun. Of a failed job whose record does not
// tell it, the running one, if that is on trial and the latest installation was for this job.
int slot_of(const Json::Value &job);

// The line of "/var/data/boot/installed"; empty when there is none.
std::string line_of_installation();

// The latest installation was made for this job, or, where the tool does not tell for which, before the job ended.
// False when there is no stamp.
bool nothing_was_installed_after(const Json::Value &job);
