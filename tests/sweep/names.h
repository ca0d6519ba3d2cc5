// The names of the invariants, by which an exception says what it is an exception to.
#pragma once

namespace sweep {

// Jobs.
inline constexpr char JOB_FILES[] = "every job file parses and bears its own jobId";
inline constexpr char STORED[] = "a job that arrives is stored";
inline constexpr char ARCHIVED[] = "a stored job is archived, or cleared";
inline constexpr char LAST[] = "the archive holds what was stored last";
inline constexpr char ONCE[] = "one intake starts its script at most once";
inline constexpr char CUT_SCRIPTS[] = "a script that was cut means failed";
inline constexpr char SESSIONS[] = "a session names one status of one job";
inline constexpr char FINAL[] = "a final status does not change";
inline constexpr char REPORTED[] = "archived means reported and acknowledged";
inline constexpr char NO_MARKER[] = "when nothing runs, no marker is left";

// Configurations.
inline constexpr char CONFIG_ENDS[] =
    "success means the candidate, failed the former or the failsafe configuration";
inline constexpr char WAY_BACK[] = "the failsafe copy is the configuration to go back to";
inline constexpr char PERSISTENT[] = "the running configuration is the persistent one";
inline constexpr char SERVICES[] = "the services have the running configuration";
inline constexpr char HASHES[] = "every configuration matches its hash";
inline constexpr char NO_APPLY_LEFT[] = "when nothing runs, nothing of an apply is left";

// Firmware.
inline constexpr char WHOLE_SLOT[] = "a slot boots that is whole";
inline constexpr char WHOLE_CONFIG[] = "a whole configuration runs";
inline constexpr char SLOT_ENDS[] = "success means the new slot, failed the old one";
inline constexpr char NO_UPGRADE_LEFT[] = "when nothing runs, nothing of an upgrade is left";

// The run without a cut.
inline constexpr char ENDS[] = "without a cut it ends as its name says";
inline constexpr char CHECKS_IN[] = "a job that is archived leads to a check-in";

// A reason that configurations and firmware share.
inline constexpr char BETWEEN_COPIES[] =
    "A cut between a configuration and its hash; boot computes both hashes anew.";

} // namespace sweep
