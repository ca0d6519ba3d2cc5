// The configuration that comes with a firmware: staged and checked, applied under the new firmware, and
// the end of the installation. Runs inside a pass or a boot recovery; job_manager_mutex is held where a
// job is being handled, and not when the installation of a lost or corrupt job is given up.
#pragma once

#include "agent/client/tessard.h"

// Writes params.cfg to the staged configuration and compares its hash with params.hashAtFwVer. 0; -1 with
// the job's "status" "failed" and "msg" set.
int stage_upgrade_config(Json::Value &job);

// Applies the staged configuration. 0; -1 when the job came out "failed", with "msg" set. Never throws: an
// exception counts as a configuration that does not work.
int verify_upgrade_config(tessard &client, Json::Value &job);

// switch_partition of finalise_fw_install.
inline constexpr bool SWITCH_PARTITION = true;
inline constexpr bool KEEP_PARTITION = false;

// Stores the job, deletes the staged files and the mark of the installation, then boots the other firmware
// (switch_partition) or reboots this one. May return while the reboot is under way.
void finalise_fw_install(const Json::Value &job, bool switch_partition);

void reboot_after_fw_upgrade();

// Deletes the staged files and FIRMWARE_UPDATED.
void delete_upgrade_files();
