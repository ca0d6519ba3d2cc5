#include "packaging/boot/slots.h"

#include "jobs/job_record.h"
#include "jobs/job_store.h"
#include "packaging/boot/files.h"
#include "platform/vantrel.h"

#include <charconv>
#include <optional>
#include <string>

namespace {

constexpr char ROOTFS2_FILE[] = "/var/data/orv/ROOTFS2";
constexpr char TRIAL_FILE[] = "/var/data/boot/trial";
constexpr char INSTALLED_FILE[] = "/var/data/boot/installed";

std::string line_of(const char *path) {
    char text[VAR_FILE_SIZE] = "";
    if (!is_regular_file(path) || read_var_file(path, text) != 0)
        return "";
    return text;
}

std::string mark_of(int slot) {
    return "slot " + std::to_string(slot);
}

struct installation {
    bool is_known = false;
    long long seconds = 0;
    std::optional<std::string> job; // nothing where the tool does not tell
};

installation latest_installation() {
    const std::string line = line_of_installation();
    installation latest;
    const char *const last = line.data() + line.size();
    const auto [end, error] = std::from_chars(line.data(), last, latest.seconds);
    latest.is_known = error == std::errc() && (end == last || *end == ' ');
    if (latest.is_known && end != last)
        latest.job = std::string(end + 1, last);
    return latest;
}

// The agent has made the record anew, because it could not be read: it tells of its failure and nothing before.
bool is_repaired(const Json::Value &job) {
    return text_of(job, KEY_STATUS) == STATUS_FAILED && !job.isMember(KEY_PARTITION2);
}

int slot_of_repaired(const Json::Value &job) {
    const int running = running_slot();
    const bool is_its_own = latest_installation().job == text_of(job, KEY_JOB_ID);
    return is_its_own && is_on_trial(running) ? running : NO_SLOT;
}

} // namespace

int running_slot() {
    return is_regular_file(ROOTFS2_FILE) ? 2 : 1;
}

int slot_in_mark(const char *path) {
    const std::string line = line_of(path);
    for (const int slot : {1, 2})
        if (line == mark_of(slot))
            return slot;
    return NO_SLOT;
}

bool set_mark(const char *path, int slot) {
    const bool written = write_line(path, mark_of(slot));
    flush();
    return written;
}

bool is_on_trial(int slot) {
    const std::string line = line_of(TRIAL_FILE);
    return line.substr(0, line.find(' ')) == std::to_string(slot);
}

std::string line_of_installation() {
    return line_of(INSTALLED_FILE);
}

bool nothing_was_installed_after(const Json::Value &job) {
    const installation latest = latest_installation();
    if (!latest.is_known)
        return false;
    if (latest.job)
        return *latest.job == text_of(job, KEY_JOB_ID);
    const Json::Value &ended = job[KEY_ACK_TS];
    return ended.isInt64() && latest.seconds < ended.asInt64();
}

int slot_of(const Json::Value &job) {
    if (is_repaired(job))
        return slot_of_repaired(job);
    const Json::Value &from_second = job[KEY_PARTITION2];
    if (!from_second.isBool())
        return NO_SLOT;
    return from_second.asBool() ? 1 : 2;
}
