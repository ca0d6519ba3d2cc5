// What breaks by design, row by row: in these scenarios, by these kinds of cut, with this outcome.
#include "tests/sweep/scenario.h"

#include "tests/sweep/row_words.h"

namespace sweep {

using namespace row_words;

namespace {

constexpr char SUCCESS_UNMARKED[] =
    "A cut between the recorded success and the deletion of FIRMWARE_UPDATED: once the job is acknowledged and archived, the mark has no job and the former firmware boots.";
constexpr char STORED_AS_IT_IS[] =
    "A job that does not say which partition it left ends with the record as it stands: with the session of \"executed\", and archived unreported when that was acknowledged.";
constexpr char NOT_SWITCHED_BACK[] =
    "The end is stored and the mark deleted before the slot is switched back: a cut between them leaves the new one.";
constexpr char OWN_RECORD[] = "The device's own record, deleted at the end of the apply.";
constexpr char NOT_LOOKED_AT[] =
    "Cut between the mark and the switch: the recovery does not look at the slot and verifies the old firmware.";
constexpr char MARK_SURVIVES[] =
    "LOCAL_FW_UPGRADE survives its recovery's reboot, which comes before its deletion; boot has to remove it.";
constexpr char UNTIL_BOOT[] = "What a cut upgrade has left goes at the next boot.";
constexpr char NEVER_ENDS[] =
    "A modem job stays \"executed\" when its tool is done, and is looked at on each pass.";
constexpr char TAKEN_FOR_SYSTEM[] =
    "Without the top-level key the next pass takes it for a system upgrade without a new slot, and switches.";
constexpr char NEVER_CHECKED[] =
    "With the top-level key alone a system upgrade is started and never checked.";

} // namespace

std::vector<known_exception> upgrade_exceptions() {
    return {
        {in("a good upgrade", "switched and rebooted late"), by(KILL, REBOOT, POWER), SLOT_ENDS,
         "job 66 is a success, and slot 1 runs now", SUCCESS_UNMARKED},
        {in("a configuration with another hash", "a configuration that is invalid",
            "a configuration that locks out"),
         by(KILL, REBOOT), SLOT_ENDS, "job 66 is a failed, and slot 2 runs now", NOT_SWITCHED_BACK},
        {in("a configuration that locks out"), by(KILL, REBOOT, POWER), HASHES,
         "/var/data/orv/config.failsafe.hash does not match", BETWEEN_COPIES},
        {in("a good upgrade", "switched and rebooted late"), by(KILL, REBOOT, POWER), HASHES,
         "/var/data/orv/config.hash does not match", BETWEEN_COPIES},
    };
}

std::vector<known_exception> other_firmware_exceptions() {
    return {
        {in("modem firmware, params only"), by(UNCUT, KILL, REBOOT, POWER, STALL), REPORTED,
         "job 66 is archived as failed, of which no report was acknowledged", STORED_AS_IT_IS},
        {in("modem firmware, params only"), by(KILL, REBOOT, POWER), SESSIONS,
         "job 66: one session for executed and failed", STORED_AS_IT_IS},
        {in("a local upgrade, configuration refused"), by(KILL, REBOOT, POWER), SLOT_ENDS,
         "job LOCAL_FW_UPGRADE is a failed, and slot 2 runs now", NOT_SWITCHED_BACK},
        {in("a local upgrade", "a local upgrade, configuration refused"),
         by(UNCUT, KILL, REBOOT, POWER, TORN, STALL), ARCHIVED, "job LOCAL_FW_UPGRADE is lost", OWN_RECORD},
        {in("a local upgrade, boot cleans nothing"), by(UNCUT, REBOOT), ARCHIVED,
         "job LOCAL_FW_UPGRADE is lost", OWN_RECORD},
        {in("a local upgrade", "a local upgrade, configuration refused"), by(KILL, REBOOT, TORN), SLOT_ENDS,
         "job LOCAL_FW_UPGRADE is a success, and slot 1 runs as ever", NOT_LOOKED_AT},
        {in("a local upgrade, boot cleans nothing"), by(REBOOT), SLOT_ENDS,
         "job LOCAL_FW_UPGRADE is a success, and slot 1 runs as ever", NOT_LOOKED_AT},
        {in("a local upgrade, boot cleans nothing"), by(UNCUT, REBOOT), NO_UPGRADE_LEFT,
         "/var/data/orv/LOCAL_FW_UPGRADE is left", MARK_SURVIVES},
        {in("a local upgrade", "a local upgrade, configuration refused", "a local upgrade, not installed"),
         by(KILL), NO_UPGRADE_LEFT, "/var/data/orv/LOCAL_FW_UPGRADE is left", UNTIL_BOOT},
        {in("a local upgrade", "a local upgrade, configuration refused", "a local upgrade, not installed"),
         by(KILL), NO_UPGRADE_LEFT, "/var/data/orv/config.staged is left", UNTIL_BOOT},
        {in("a local upgrade, boot cleans nothing"), by(REBOOT), NO_UPGRADE_LEFT,
         "/var/data/orv/config.staged is left", UNTIL_BOOT},
        {in("a local upgrade", "a local upgrade, configuration refused"), by(KILL, REBOOT, POWER),
         NO_UPGRADE_LEFT, "/var/data/orv/config.staged.hash is left", UNTIL_BOOT},
        {in("a local upgrade, not installed"), by(KILL), NO_UPGRADE_LEFT,
         "/var/data/orv/config.staged.hash is left", UNTIL_BOOT},
        {in("a local upgrade, boot cleans nothing"), by(REBOOT), NO_UPGRADE_LEFT,
         "/var/data/orv/config.staged.hash is left", UNTIL_BOOT},
        {in("a local upgrade, not installed"), by(KILL), NO_UPGRADE_LEFT, "/var/run/FW_ERR_CODE is left",
         UNTIL_BOOT},
        {in("modem firmware"), by(UNCUT, KILL, REBOOT, POWER, STALL), ARCHIVED,
         "job 66 is still active: executed", NEVER_ENDS},
        {in("modem firmware", "modem firmware, top level only"), by(KILL), NO_MARKER, "FW_JOBID is left",
         NEVER_ENDS},
        {in("modem firmware", "modem firmware, top level only"), by(STALL), NO_MARKER,
         "FW_JOB_EXECUTING is left", NEVER_ENDS},
        {in("modem firmware"), by(UNCUT, KILL, REBOOT, POWER, STALL), NO_MARKER,
         "RADIOFW_JOB_EXECUTING is left", NEVER_ENDS},
        {in("modem firmware, params only"), by(UNCUT, KILL, REBOOT, POWER, STALL), SLOT_ENDS,
         "job 66 is a failed, and slot 2 runs now", TAKEN_FOR_SYSTEM},
        {in("modem firmware, top level only"), by(UNCUT, KILL, REBOOT, POWER, TORN, STALL), ARCHIVED,
         "job 66 is still active: executed", NEVER_CHECKED},
        {in("modem firmware, top level only"), by(UNCUT, KILL, REBOOT, POWER, TORN, STALL), NO_UPGRADE_LEFT,
         "/var/data/orv/FIRMWARE_UPDATED is left", NEVER_CHECKED},
    };
}

} // namespace sweep
