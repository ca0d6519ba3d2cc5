// What breaks by design, row by row: in these scenarios, by these kinds of cut, with this outcome.
#include "tests/sweep/scenario.h"

#include "tests/sweep/row_words.h"

namespace sweep {

using namespace row_words;

namespace {

constexpr char NEVER_REPORTED[] = "FAILSAFE_CONFIG is never reported.";
constexpr char REQUEST_LOST[] =
    "The request died with the agent; its candidate waits for the next one, or for boot.";
constexpr char FINISHED_AGAIN[] =
    "The cut came after the end was stored and before the files of the apply were gone: it is done again.";
constexpr char ABORT_FORGOTTEN[] =
    "An abort is not kept over a restart: what is finished after it is applied.";
constexpr char LAST_WRITER_WINS[] =
    "The second request replaces the candidate and the record while the first one is at work on them.";
constexpr char NOT_REVERTED[] =
    "Failed without a way back: the new configuration runs, uncommitted, until the next boot.";
constexpr char KILLED_ALONE[] =
    "The candidate runs already, so the agent finds nothing to do: supervision has to reboot the device.";
constexpr char THREE_RESTARTS[] =
    "A way back restarts network, dialer and Wi-Fi only; the others have the former one after the next boot.";
constexpr char NO_HOST[] =
    "A configuration without the cloud's host: what happened is reported after the next boot.";

} // namespace

std::vector<known_exception> config_exceptions() {
    return {
        {in("a good one, requested"), by(KILL, REBOOT, POWER), REPORTED,
         "job FAILSAFE_CONFIG is archived as failed, of which no report was acknowledged", NEVER_REPORTED},
        {in("aborted before the validation", "aborted during the validation"),
         by(UNCUT, KILL, REBOOT, POWER, STALL), REPORTED,
         "job FAILSAFE_CONFIG is archived as failed, of which no report was acknowledged", NEVER_REPORTED},
        {in("a second one during the validation", "a second one during the restarts"), by(STALL), REPORTED,
         "job FAILSAFE_CONFIG is archived as failed, of which no report was acknowledged", NEVER_REPORTED},
        {in("a good one, requested", "a second one during the validation",
            "a second one during the restarts"),
         by(UNCUT, KILL, REBOOT, POWER, STALL), REPORTED,
         "job FAILSAFE_CONFIG is archived as success, of which no report was acknowledged", NEVER_REPORTED},
        {in("aborted before the validation", "aborted during the validation"), by(KILL, REBOOT, POWER),
         REPORTED, "job FAILSAFE_CONFIG is archived as success, of which no report was acknowledged",
         NEVER_REPORTED},
        {in("a good one, requested", "aborted before the validation", "aborted during the validation"),
         by(KILL), NO_APPLY_LEFT, "/var/volatile/config/config.new is left", REQUEST_LOST},
        {in("aborted before the validation", "aborted during the validation"), by(KILL, REBOOT, POWER), FINAL,
         "job FAILSAFE_CONFIG was failed and became success", ABORT_FORGOTTEN},
        {in("a second one during the validation", "a second one during the restarts"), by(STALL), CONFIG_ENDS,
         "after FAILSAFE_CONFIG failed the persistent configuration is a candidate", LAST_WRITER_WINS},
        {in("a second one during the validation", "a second one during the restarts"), by(STALL), FINAL,
         "job FAILSAFE_CONFIG was success and became failed", LAST_WRITER_WINS},
        {in("a second one during the validation", "a second one during the restarts"), by(STALL), FINAL,
         "job FAILSAFE_CONFIG was success and became received", LAST_WRITER_WINS},
        {in("a second one during the validation"), by(UNCUT, KILL, REBOOT, POWER, STALL), HASHES,
         "/var/data/orv/config.hash does not match", LAST_WRITER_WINS},
        {in("a second one during the restarts"), by(KILL, REBOOT, POWER, STALL), HASHES,
         "/var/data/orv/config.hash does not match", LAST_WRITER_WINS},
        {in("a second one during the validation"), by(UNCUT, KILL, STALL), HASHES,
         "/var/volatile/config/config.running.hash does not match", LAST_WRITER_WINS},
        {in("a second one during the restarts"), by(KILL, STALL), HASHES,
         "/var/volatile/config/config.running.hash does not match", LAST_WRITER_WINS},
        {in("a second one during the restarts"), by(STALL), SERVICES, "a service has another apps",
         LAST_WRITER_WINS},
        {in("one whose hardware cannot be applied"), by(UNCUT, KILL, REBOOT, POWER, STALL), PERSISTENT,
         "the running configuration is a candidate, the persistent one is the former one", NOT_REVERTED},
        {in("one whose hardware cannot be applied"), by(UNCUT, KILL, REBOOT, POWER, STALL), SERVICES,
         "a service has another hardware, network.interfaces, network.wireless.cell, network.wireless.wifi",
         NOT_REVERTED},
        {in("a good one, agent killed alone"), by(KILL), CONFIG_ENDS,
         "after 55 success the persistent configuration is the former one", KILLED_ALONE},
        {in("a good one, agent killed alone"), by(KILL), NO_APPLY_LEFT, "/var/data/orv/config.new is left",
         KILLED_ALONE},
        {in("a good one, agent killed alone"), by(KILL), NO_APPLY_LEFT,
         "/var/volatile/config/config.new is left", KILLED_ALONE},
        {in("a good one, agent killed alone"), by(KILL), NO_APPLY_LEFT,
         "/var/volatile/config/config.new.hash is left", KILLED_ALONE},
        {in("a good one, agent killed alone"), by(KILL), NO_MARKER, "/var/run/ACTIVE_JOB is left",
         KILLED_ALONE},
        {in("a good one, agent killed alone"), by(KILL), NO_MARKER, "CONFIG_JOB_EXECUTING is left",
         KILLED_ALONE},
        {in("a good one, agent killed alone"), by(KILL), PERSISTENT,
         "the running configuration is a candidate, the persistent one is the former one", KILLED_ALONE},
        {in("a good one, agent killed alone"), by(KILL), SERVICES,
         "a service has another network.interfaces, network.wireless.cell, network.wireless.wifi",
         KILLED_ALONE},
        {in("a good one, agent killed alone"), by(KILL), SERVICES,
         "a service has another network.wireless.cell", KILLED_ALONE},
        {in("a good one, agent killed alone"), by(KILL), SERVICES,
         "a service has another network.wireless.cell, network.wireless.wifi", KILLED_ALONE},
        {in("a good one", "a good one, requested", "two, one after the other"), by(KILL, REBOOT, POWER),
         HASHES, "/var/data/orv/config.hash does not match", BETWEEN_COPIES},
        {in("a good one, agent killed alone"), by(KILL), HASHES, "/var/data/orv/config.hash does not match",
         BETWEEN_COPIES},
    };
}

std::vector<known_exception> failsafe_exceptions() {
    return {
        {in("a lock-out, aborted"), by(UNCUT, KILL, REBOOT, POWER, STALL), REPORTED,
         "job FAILSAFE_CONFIG is archived as failed, of which no report was acknowledged", NEVER_REPORTED},
        {in("a lock-out, aborted"), by(KILL), NO_APPLY_LEFT, "/var/volatile/config/config.new is left",
         REQUEST_LOST},
        {in("a lock-out", "a lock-out, auto_mode", "a lock-out, failsafe copy kept",
            "a lock-out that changes services"),
         by(KILL, REBOOT, POWER), FINAL, "job 55 was failed and became executed", FINISHED_AGAIN},
        {in("a good one, verified", "a good one, auto_mode"), by(KILL, REBOOT, POWER), FINAL,
         "job 55 was success and became executed", FINISHED_AGAIN},
        {in("a good one, verified", "a good one, auto_mode"), by(POWER), FINAL,
         "job 55 was told as success and became executed", FINISHED_AGAIN},
        {in("a lock-out, aborted"), by(KILL, REBOOT, POWER), FINAL,
         "job FAILSAFE_CONFIG was failed and became executed", FINISHED_AGAIN},
        {in("no timer file", "no destination"), by(UNCUT, KILL, REBOOT, POWER, STALL), PERSISTENT,
         "the running configuration is a candidate, the persistent one is the former one", NOT_REVERTED},
        {in("a lock-out, failsafe copy kept", "a lock-out that changes services"),
         by(UNCUT, KILL, REBOOT, POWER, STALL), SERVICES, "a service has another apps", THREE_RESTARTS},
        {in("no destination"), by(UNCUT, KILL, REBOOT, POWER, STALL), ARCHIVED,
         "job 55 is still active: failed", NO_HOST},
        {in("a good one, verified", "a lock-out", "a lock-out, auto_mode", "a good one, auto_mode",
            "a lock-out, aborted", "a lock-out that changes services", "no timer file", "no destination"),
         by(KILL, REBOOT, POWER), HASHES, "/var/data/orv/config.failsafe.hash does not match",
         BETWEEN_COPIES},
        {in("a good one, verified", "a lock-out, failsafe copy kept", "a good one, auto_mode"),
         by(KILL, REBOOT, POWER), HASHES, "/var/data/orv/config.hash does not match", BETWEEN_COPIES},
    };
}

} // namespace sweep
