// The file helpers of libvantrel, on the private file system.
//
// They work on file descriptors throughout: the sweep counts the stdio calls of the agent, and must
// not count these.
#include "tests/fakes/calls.h"
#include "tests/fakes/clock.h"
#include "tests/fakes/files.h"

#include "platform/vantrel.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace {

constexpr size_t LINE_MAX_LENGTH = 255;

const Json::CharReaderBuilder &whole_documents() {
    static const Json::CharReaderBuilder builder = [] {
        Json::CharReaderBuilder whole;
        whole["failIfExtra"] = true;
        return whole;
    }();
    return builder;
}

} // namespace

namespace fakes {

std::function<int(const std::string &, const std::string &)> instead_of_replacing;
std::function<void(const std::string &)> after_replacing;
std::function<void()> after_sync;

} // namespace fakes

// Whole or not at all, as the device does it: beside the target, never in its folder.
int fakes::replace_file(const std::string &path, const std::string &text) {
    if (fakes::instead_of_replacing)
        return fakes::instead_of_replacing(path, text);
    static const std::string VAR_DATA = "/var/data/";
    static const std::string VAR_VOLATILE = "/var/volatile/";
    std::string folder = path.substr(0, path.rfind('/'));
    if (path.compare(0, VAR_DATA.size(), VAR_DATA) == 0)
        folder = "/var/data/.tmp";
    else if (path.compare(0, VAR_VOLATILE.size(), VAR_VOLATILE) == 0)
        folder = "/var/volatile/.tmp";
    mkdir(folder.c_str(), 0755);
    const std::string temporary = folder + "/" + std::to_string(gettid()) + ".new";
    if (fakes::write_all(temporary, text) != 0 ||
        renameat(AT_FDCWD, temporary.c_str(), AT_FDCWD, path.c_str()) != 0) {
        unlinkat(AT_FDCWD, temporary.c_str(), 0);
        return -1;
    }
    if (fakes::after_replacing)
        fakes::after_replacing(path);
    return 0;
}

int fakes::write_all(const std::string &path, const std::string &text) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (file < 0)
        return -1;
    const bool whole = write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const timespec stamps[2] = {{now(), 0}, {now(), 0}};
    futimens(file, stamps);
    return close(file) == 0 && whole ? 0 : -1;
}

int fakes::read_all(const std::string &path, std::string &text) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return -1;
    text.clear();
    char part[4096];
    ssize_t size = 0;
    while ((size = read(file, part, sizeof part)) > 0)
        text.append(part, static_cast<size_t>(size));
    close(file);
    return size == 0 ? 0 : -1;
}

int read_var_file(const char *path, char *buffer) {
    fakes::record(fakes::call_kind::QUERY, "read_var_file", path);
    if (const auto answer = fakes::set_answer("read_var_file", path); answer.value_or(0) != 0)
        return *answer;
    std::string text;
    if (fakes::read_all(path, text) != 0)
        return -1;
    text = text.substr(0, text.find('\n')).substr(0, LINE_MAX_LENGTH);
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    return 0;
}

int read_json_file(const char *path, Json::Value &value) try {
    fakes::record(fakes::call_kind::QUERY, "read_json_file", path);
    if (const auto answer = fakes::set_answer("read_json_file", path); answer.value_or(0) != 0)
        return *answer;
    std::string text;
    if (fakes::read_all(path, text) != 0)
        return -1;
    const std::unique_ptr<Json::CharReader> reader(whole_documents().newCharReader());
    Json::Value parsed;
    if (!reader->parse(text.data(), text.data() + text.size(), &parsed, nullptr))
        return -1;
    value = parsed;
    return 0;
} catch (const Json::Exception &) {
    return -1;
}

int write_json_file(const char *path, const Json::Value &value) {
    fakes::change("write_json_file", path);
    if (const auto answer = fakes::set_answer("write_json_file", path); answer.value_or(0) != 0)
        return *answer;
    return fakes::replace_file(path, value.toStyledString());
}

int file_exists(const char *path) {
    struct stat status {};
    return stat(path, &status) == 0 ? 1 : 0;
}

int delete_file(const char *path) {
    fakes::change("delete_file", path);
    if (const auto answer = fakes::set_answer("delete_file", path); answer.value_or(0) != 0)
        return *answer;
    return unlinkat(AT_FDCWD, path, 0) == 0 || errno == ENOENT ? 0 : -1;
}

int copy_file(const char *from, const char *to) {
    const std::string both = std::string(from) + " " + to;
    fakes::change("copy_file", both);
    if (const auto answer = fakes::set_answer("copy_file", both); answer.value_or(0) != 0)
        return *answer;
    std::string text;
    if (fakes::read_all(from, text) != 0)
        return -1;
    return fakes::replace_file(to, text);
}

void sync_to_fs(int mode) {
    fakes::change("sync_to_fs", std::to_string(mode));
    if (fakes::after_sync)
        fakes::after_sync();
}

int create_pidfile(const char *path) {
    fakes::change("create_pidfile", path);
    if (const auto answer = fakes::set_answer("create_pidfile", path); answer.value_or(0) != 0)
        return *answer;
    return fakes::write_all(path, std::to_string(getpid()) + "\n");
}
