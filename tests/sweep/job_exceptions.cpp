// What breaks by design, row by row: in these scenarios, by these kinds of cut, with this outcome.
#include "tests/sweep/scenario.h"

#include "tests/sweep/row_words.h"

namespace sweep {

using namespace row_words;

namespace {

constexpr char NOT_STAMPED[] =
    "A critical job is not stamped at its intake: all its reports bear the session it came with, mostly none.";
constexpr char ARCHIVED_AS_STORED[] =
    "It goes to the archive as soon as its script has ended, as it was stored before; nobody waits for an answer.";
constexpr char MARKER_SURVIVES[] =
    "Markers of an earlier life are neither read nor removed by an agent that starts again.";
constexpr char RUNS_AGAIN[] =
    "Its record is stored as \"received\" while it runs: cut, it is an ordinary job that waits, and runs again.";
constexpr char REFUSED[] =
    "A refusal is only counted when it is the 101st, and the count before it is never stored.";
constexpr char REPEATED[] = "It is reported again until it is acknowledged.";
constexpr char JOBID_OF_KILLED[] = "The marker of a killed script goes when its job is archived.";
constexpr char GIVEN_UP[] = "Given up: the job is archived without an acknowledgement.";
constexpr char TAKEN_FOR_CORRUPT[] =
    "Each pass has a list of its own: a job that the other one has archived since is missing, and is repaired as one that failed.";
constexpr char INTAKE_IS_BLIND[] =
    "The intake does not look at the result of the write; the cloud hears nothing.";
constexpr char NOT_STORED[] =
    "What cannot be stored did not happen: the job is still \"received\" at the next pass.";
constexpr char REPORTED_UNSTORED[] = "A report goes out although its record could not be stored.";
constexpr char CLEARED_AT_ONCE[] =
    "It is cleared in the second in which its last status was stored, and that second is the session of both.";
constexpr char CLEARED_TOO_EARLY[] =
    "The end of a job that is cleared is told before its file is deleted, and whoever works on it stores it again.";
constexpr char NO_ACTION[] =
    "Nobody knows what to do with it; it stays until it is cleared, and holds up all others while it is the oldest.";
constexpr char ASKS_AGAIN[] =
    "It ends with the answer of the service that does the work, and asks again until then.";

} // namespace

std::vector<known_exception> script_exceptions() {
    return {
        {in("passes on both threads"), by(KILL, REBOOT, POWER, STALL, HELD), FINAL,
         "job 77 was success and became failed", TAKEN_FOR_CORRUPT},
        {in("a critical script"), by(UNCUT, KILL, REBOOT, POWER, STALL), SESSIONS,
         "job 77: one session for received and executed", NOT_STAMPED},
        {in("a critical script"), by(UNCUT, KILL, REBOOT, POWER, STALL), SESSIONS,
         "job 77: one session for received and success", NOT_STAMPED},
        {in("a critical script among others"), by(UNCUT, KILL, REBOOT, POWER, STALL), SESSIONS,
         "job 78: one session for received and executed", NOT_STAMPED},
        {in("a critical script among others"), by(UNCUT, KILL, REBOOT, POWER, STALL), SESSIONS,
         "job 78: one session for received and success", NOT_STAMPED},
        {in("a critical script"), by(UNCUT, KILL, REBOOT, STALL), REPORTED,
         "job 77 is archived as received, of which no report was acknowledged", ARCHIVED_AS_STORED},
        {in("a critical script among others"), by(UNCUT, KILL, REBOOT, POWER, STALL), REPORTED,
         "job 78 is archived as received, of which no report was acknowledged", ARCHIVED_AS_STORED},
        {in("a critical script", "a critical script among others"), by(KILL), NO_MARKER,
         "CRITICAL_JOB_EXECUTING is left", MARKER_SURVIVES},
        {in("a critical script"), by(KILL, REBOOT), CUT_SCRIPTS,
         "job 77 was cut in its script and is a success", RUNS_AGAIN},
        {in("a critical script among others"), by(KILL, REBOOT), CUT_SCRIPTS,
         "job 78 was cut in its script and is a success", RUNS_AGAIN},
        {in("a critical script"), by(KILL, REBOOT, POWER), FINAL,
         "job 77 was told as success and became executed", RUNS_AGAIN},
        {in("a critical script among others"), by(KILL, REBOOT, POWER), FINAL,
         "job 78 was told as success and became executed", RUNS_AGAIN},
        {in("a critical script"), by(KILL, REBOOT, POWER), ONCE, "job 77 started its script more than once",
         RUNS_AGAIN},
        {in("a critical script among others"), by(KILL, REBOOT, POWER), ONCE,
         "job 78 started its script more than once", RUNS_AGAIN},
    };
}

std::vector<known_exception> acknowledgement_exceptions() {
    return {
        {in("refused for ever"), by(KILL, REBOOT, POWER), ARCHIVED, "job 77 is still active: failed",
         REFUSED},
        {in("refused for ever"), by(UNCUT, KILL, REBOOT, POWER, STALL), ARCHIVED,
         "job 77 is still active: success", REFUSED},
        {in("never acknowledged"), by(KILL, REBOOT, POWER), ARCHIVED, "job 77 is still active: failed",
         REPEATED},
        {in("never acknowledged"), by(UNCUT, KILL, REBOOT, POWER, STALL), ARCHIVED,
         "job 77 is still active: success", REPEATED},
        {in("refused for ever", "never acknowledged"), by(KILL), NO_MARKER, "FW_JOBID is left",
         JOBID_OF_KILLED},
        {in("refused for the 101st time"), by(UNCUT, KILL, REBOOT, POWER, STALL), REPORTED,
         "job 9 is archived as failed, of which no report was acknowledged", GIVEN_UP},
    };
}

std::vector<known_exception> delivery_exceptions() {
    return {
        {in("full disk at the intake"), by(UNCUT, KILL, REBOOT, STALL), STORED,
         "job 77 arrived and was not stored", INTAKE_IS_BLIND},
        {in("full disk during the script"), by(REBOOT), STORED, "job 77 arrived and was not stored",
         INTAKE_IS_BLIND},
        {in("full disk from the intake on"), by(REBOOT, STALL), STORED, "job 77 arrived and was not stored",
         INTAKE_IS_BLIND},
        {in("full disk during the script", "full disk from the intake on"), by(KILL, REBOOT, POWER, STALL),
         ONCE, "job 77 started its script more than once", NOT_STORED},
        {in("full disk during the script", "full disk from the intake on"), by(KILL, REBOOT, POWER, STALL),
         FINAL, "job 77 was told as success and became executed", REPORTED_UNSTORED},
        {in("full disk during the script", "full disk from the intake on"), by(REBOOT, POWER), FINAL,
         "job 77 was told as success and became received", REPORTED_UNSTORED},
        {in("full disk during the script", "full disk from the intake on"), by(STALL), SESSIONS,
         "job 77: one session for executed and received", REPORTED_UNSTORED},
        {in("full disk during the script", "full disk from the intake on"), by(HELD), ONCE,
         "job 77 started its script more than once", NOT_STORED},
        {in("full disk during the script", "full disk from the intake on"), by(HELD), FINAL,
         "job 77 was told as success and became executed", REPORTED_UNSTORED},
        {in("full disk during the script", "full disk from the intake on"), by(HELD), SESSIONS,
         "job 77: one session for executed and received", REPORTED_UNSTORED},
        {in("clear all"), by(HELD), FINAL, "job 77 was told as failed and became executed",
         CLEARED_TOO_EARLY},
        {in("clear all"), by(HELD), FINAL, "job 77 was told as failed and became success", CLEARED_TOO_EARLY},
        {in("clear all"), by(HELD), FINAL, "job 78 was told as failed and became executed",
         CLEARED_TOO_EARLY},
        {in("clear all"), by(HELD), FINAL, "job 78 was told as failed and became success", CLEARED_TOO_EARLY},
        {in("clear the running one"), by(KILL), SESSIONS, "job 178: one session for executed and failed",
         CLEARED_AT_ONCE},
        {in("clear the running one"), by(KILL), FINAL, "job 178 was told as failed and became executed",
         CLEARED_TOO_EARLY},
        {in("clear the running one"), by(KILL), FINAL, "job 178 was told as failed and became success",
         CLEARED_TOO_EARLY},
        {in("clear all"), by(REBOOT, STALL), FINAL, "job 77 was told as failed and became executed",
         CLEARED_TOO_EARLY},
        {in("clear all"), by(REBOOT, STALL), FINAL, "job 77 was told as failed and became success",
         CLEARED_TOO_EARLY},
        {in("clear all"), by(KILL, REBOOT, POWER, STALL), FINAL,
         "job 78 was told as failed and became executed", CLEARED_TOO_EARLY},
        {in("clear all"), by(KILL, REBOOT, POWER, STALL), FINAL,
         "job 78 was told as failed and became success", CLEARED_TOO_EARLY},
    };
}

std::vector<known_exception> staller_exceptions() {
    return {
        {in("a job without action"), by(KILL), NO_MARKER, "FW_JOBID is left", JOBID_OF_KILLED},
        {in("a job without action"), by(UNCUT, KILL, REBOOT, POWER, STALL), ARCHIVED,
         "job 1 is still active: received", NO_ACTION},
        {in("a job without action"), by(KILL, REBOOT, POWER), ARCHIVED, "job 77 is still active: executed",
         NO_ACTION},
        {in("a job without action"), by(UNCUT, KILL, REBOOT, POWER, STALL), ARCHIVED,
         "job 77 is still active: success", NO_ACTION},
        {in("a file push"), by(UNCUT, KILL, REBOOT, POWER, STALL), ARCHIVED,
         "job 1 is still active: received", ASKS_AGAIN},
        {in("a file push"), by(STALL, HELD), NO_MARKER, "FW_JOBID is left", ASKS_AGAIN},
    };
}

} // namespace sweep
