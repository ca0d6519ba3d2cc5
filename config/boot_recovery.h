// What a reboot may have cut short. Both run once, at the start of the job manager thread, take
// job_manager_mutex around the apply, and let exceptions out to the thread's guard.
#pragma once

#include "agent/client/tessard.h"

// Verifies the configuration staged by a firmware upgrade that was started on the device; keeps the new
// firmware and reboots, or goes back to the former one.
void recover_local_fw_upgrade(tessard &client);

// Finishes a configuration apply of which the job's copy and the persistent candidate are left.
void recover_config_job(tessard &client);
