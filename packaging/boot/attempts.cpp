#include "packaging/boot/attempts.h"

#include "packaging/boot/files.h"
#include "packaging/boot/slots.h"
#include "platform/vantrel.h"

#include <syslog.h>

namespace {

constexpr char ATTEMPTS_FILE[] = "/var/data/boot/attempts";
constexpr unsigned MOST_ATTEMPTS = 3;

constexpr char KEY_TRIED[] = "tried";
constexpr char KEY_JOB[] = "job";
constexpr char KEY_INSTALLED[] = "installed";
constexpr char KEY_COUNT[] = "count";

// How many times it was tried; 0 when the note is of something else, or none.
unsigned attempts_at(const Json::Value &what) {
    const Json::Value noted = object_in(ATTEMPTS_FILE);
    for (const char *key : {KEY_TRIED, KEY_JOB, KEY_INSTALLED})
        if (!noted.isObject() || noted[key] != what[key])
            return 0;
    const Json::Value &count = noted[KEY_COUNT];
    return count.isUInt() ? count.asUInt() : 0;
}

} // namespace

attempt note_attempt(const char *what, const std::string &job_id) {
    Json::Value note;
    note[KEY_TRIED] = what;
    note[KEY_JOB] = job_id;
    note[KEY_INSTALLED] = line_of_installation();
    const unsigned before = attempts_at(note);
    if (before >= MOST_ATTEMPTS) {
        syslog(LOG_ERR, "job %s: %s was tried %u times: given up", job_id.c_str(), what, before);
        return attempt::GIVEN_UP;
    }
    note[KEY_COUNT] = before + 1;
    if (write_json_file(ATTEMPTS_FILE, note) != 0) {
        syslog(LOG_ERR, "job %s: %s is not tried: %s cannot be written", job_id.c_str(), what, ATTEMPTS_FILE);
        return attempt::NOT_NOTED;
    }
    flush();
    return attempt::NOTED;
}
