#include "host/vantrel/atomic_file.h"
#include "host/vantrel/retry.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <mutex>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr std::array<const char *, 4> FOLDERS_WITH_TEMPORARIES = {"/var/data", "/var/volatile", "/run",
                                                                  "/tmp"};

bool lies_below(const fs::path &path, const fs::path &folder) {
    const std::string prefix = folder.string() + "/";
    return path.string().compare(0, prefix.size(), prefix) == 0;
}

bool same_file_system(const fs::path &a, const fs::path &b) {
    struct stat status_a {};
    struct stat status_b {};
    return stat(a.c_str(), &status_a) == 0 && stat(b.c_str(), &status_b) == 0 &&
           status_a.st_dev == status_b.st_dev;
}

fs::path temporary_folder(const fs::path &target) {
    for (const char *name : FOLDERS_WITH_TEMPORARIES) {
        std::error_code missing;
        const fs::path folder = fs::canonical(name, missing);
        if (!missing && lies_below(target, folder) && same_file_system(folder, target.parent_path()))
            return folder / ".tmp";
    }
    return target.parent_path() / ".tmp";
}

// Temporary names are PID.NUMBER; nothing else in the folder is ours to remove.
bool is_left_behind(const std::string &name) {
    pid_t writer = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), writer);
    if (error != std::errc() || writer <= 0 || end == name.data() + name.size() || *end != '.')
        return false;
    return writer == getpid() || (kill(writer, 0) != 0 && errno == ESRCH);
}

// At this process's first use of the folder nothing in it can be its own, so its own id is a former
// process's as well.
void remove_what_was_left_behind(const fs::path &folder) {
    static std::mutex mutex;
    static std::set<std::pair<pid_t, fs::path>> cleaned;
    const std::lock_guard<std::mutex> lock(mutex);
    if (!cleaned.emplace(getpid(), folder).second)
        return;
    std::error_code ignored;
    for (const auto &entry : fs::directory_iterator(folder, ignored))
        if (is_left_behind(entry.path().filename().string()))
            unlink(entry.path().c_str());
}

std::string next_temporary_name() {
    static std::atomic<unsigned> counter{0};
    return std::to_string(getpid()) + "." + std::to_string(counter.fetch_add(1));
}

} // namespace

file_replacement::file_replacement(const std::string &path, mode_t new_mode) {
    target = fs::weakly_canonical(fs::absolute(path));
    failed = !open_temporary(new_mode);
}

file_replacement::~file_replacement() {
    if (fd >= 0)
        close(fd);
    if (!temporary.empty())
        unlink(temporary.c_str());
}

bool file_replacement::open_temporary(mode_t mode) {
    const fs::path folder = temporary_folder(target);
    if (mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST)
        return false;
    remove_what_was_left_behind(folder);
    do {
        temporary = folder / next_temporary_name();
        fd = retried([&] { return open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode); });
    } while (fd < 0 && errno == EEXIST);
    if (fd < 0)
        temporary.clear();
    else
        keep_mode_of_target();
    return fd >= 0;
}

void file_replacement::keep_mode_of_target() const {
    struct stat status {};
    if (stat(target.c_str(), &status) == 0 && S_ISREG(status.st_mode))
        fchmod(fd, status.st_mode & 07777);
}

bool file_replacement::write(std::string_view bytes) {
    while (!failed && !bytes.empty()) {
        const ssize_t written = retried([&] { return ::write(fd, bytes.data(), bytes.size()); });
        failed = written <= 0;
        if (!failed)
            bytes.remove_prefix(static_cast<size_t>(written));
    }
    return !failed;
}

bool file_replacement::commit() {
    if (failed || retried([&] { return fsync(fd); }) != 0)
        return false;
    // Opened before the rename: after it nothing but the flush itself may fail.
    const std::string folder = fs::path(target).parent_path();
    const int folder_fd = retried([&] { return open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
    if (folder_fd < 0)
        return false;
    bool done = rename(temporary.c_str(), target.c_str()) == 0;
    if (done) {
        temporary.clear();
        done = retried([&] { return fsync(folder_fd); }) == 0;
    }
    close(folder_fd);
    return done;
}

int replace_file(const std::string &path, std::string_view content) noexcept try {
    file_replacement file(path, 0644);
    return file.write(content) && file.commit() ? 0 : -1;
} catch (...) {
    return -1;
}
