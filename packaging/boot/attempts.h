// What a boot tries again when it finds it undone: bounded, or a device on which it has no effect would do nothing
// else.
//
// "/var/data/boot/attempts"  {"tried", "job", "installed", "count"}: what was tried last, for which job, the line of
//                            "/var/data/boot/installed" then, and how many times. Of another job or installation it
//                            counts anew. Nobody else's.
#pragma once

#include <string>

enum class attempt {
    NOTED,     // to be made: it counts from now on, also when a cut prevents it
    GIVEN_UP,  // made too often already
    NOT_NOTED, // nothing would bound it: it must not be made
};

// On the flash when it returns. Anything but NOTED is said in the log. `what` goes into the note and the log.
attempt note_attempt(const char *what, const std::string &job_id);
