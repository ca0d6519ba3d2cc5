// Every file of the configuration library, named once.
#pragma once

namespace conf {

// --- In RAM: emptied at every boot and rebuilt from the persistent files by boot_configuration().
constexpr char RUNNING_CONFIG[] = "/var/volatile/config/config.running";
constexpr char RUNNING_HASH[] = "/var/volatile/config/config.running.hash";
constexpr char NEW_CONFIG[] = "/var/volatile/config/config.new";
constexpr char NEW_HASH[] = "/var/volatile/config/config.new.hash";
// The document that a person is editing, and what it was built from.
constexpr char EDITED_CONFIG[] = "/var/volatile/config/config.edited";
constexpr char EDITED_BASE_HASH[] = "/var/volatile/config/config.edited.base";
constexpr char APPLY_STATUS[] = "/var/volatile/config/apply.status";
constexpr char META_FOLDER[] = "/var/volatile/config/meta";
constexpr char META_FILE[] = "/var/volatile/config/config.meta";
constexpr char HARDWARE_SETTINGS[] = "/var/volatile/config/hardware.running";

// --- Persistent.
constexpr char STORED_CONFIG[] = "/var/data/orv/config.json";
constexpr char STORED_HASH[] = "/var/data/orv/config.hash";
constexpr char STORED_NEW_CONFIG[] = "/var/data/orv/config.new";
constexpr char FAILSAFE_CONFIG[] = "/var/data/orv/config.failsafe";
constexpr char FAILSAFE_HASH[] = "/var/data/orv/config.failsafe.hash";
constexpr char STAGED_CONFIG[] = "/var/data/orv/config.staged";
constexpr char STAGED_HASH[] = "/var/data/orv/config.staged.hash";
constexpr char STORED_META_FILE[] = "/var/data/orv/config.meta";
constexpr char STORED_HARDWARE[] = "/var/data/orv/config.hardware";
constexpr char STORED_ACTIVE_JOB[] = "/var/data/orv/ACTIVE_JOB";
constexpr char FAILSAFE_TIMER[] = "/var/data/orv/FAILSAFE_TIMER";
// A firmware that was installed and is not verified yet; one that needs the configuration in another form.
constexpr char FIRMWARE_UPDATED[] = "/var/data/orv/FIRMWARE_UPDATED";
constexpr char MIGRATE[] = "/var/data/orv/MIGRATE";
constexpr char ACTIVE_JOBS[] = "/var/data/orv/vantrel_iot/jobs/active";
constexpr char ARCHIVED_JOBS[] = "/var/data/orv/vantrel_iot/jobs/archive";

// What happens in applies, for who must not miss any of it: see apply_status.cpp.
constexpr char APPLY_EVENTS[] = "/var/run/config-apply.events";

// --- Markers.
constexpr char CONFIG_MODIFIED[] = "/var/run/CONFIG_MODIFIED";
constexpr char FW_JOBID[] = "/var/volatile/orv/FW_JOBID";
constexpr char FW_JOB_EXECUTING[] = "/var/volatile/orv/FW_JOB_EXECUTING";
constexpr char CONFIG_JOB_EXECUTING[] = "/var/volatile/orv/CONFIG_JOB_EXECUTING";
constexpr char RADIOFW_JOB_EXECUTING[] = "/var/volatile/orv/RADIOFW_JOB_EXECUTING";
constexpr char CRITICAL_JOB_EXECUTING[] = "/var/volatile/orv/CRITICAL_JOB_EXECUTING";

// --- In the image, read only.
constexpr char IMAGE_META_FOLDER[] = "/usr/share/vantrel/meta";
constexpr char DEFAULT_CONFIG[] = "/usr/share/vantrel/default-config.json";

} // namespace conf
