#include "packaging/boot/slots.h"

#include "jobs/job_record.h"
#include "jobs/job_store.h"
#include "packaging/boot/files.h"
#include "platform/vantrel.h"

#include <charconv>
#include <string_view>

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

int slot_of(const Json::Value &job) {
    const Json::Value &from_second = job[KEY_PARTITION2];
    if (!from_second.isBool())
        return NO_SLOT;
    return from_second.asBool() ? 1 : 2;
}

std::string line_of_installation() {
    return line_of(INSTALLED_FILE);
}

bool nothing_was_installed_after(const Json::Value &job) {
    const std::string line = line_of_installation();
    long long seconds = 0;
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), seconds);
    if (error != std::errc())
        return false;
    const std::string_view rest(end, static_cast<size_t>(line.data() + line.size() - end));
    if (rest.empty()) {
        const Json::Value &ended = job[KEY_ACK_TS];
        return ended.isInt64() && seconds < ended.asInt64();
    }
    return rest.front() == ' ' && rest.substr(1) == text_of(job, KEY_JOB_ID);
}
