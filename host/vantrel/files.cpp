#include "host/vantrel/atomic_file.h"
#include "host/vantrel/json_text.h"
#include "host/vantrel/retry.h"
#include "platform/vantrel.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t LONGEST_LINE = 255;

// What other services of the router read, whoever they run as. Every other document is for its owner alone:
// jobs and candidates hold passphrases in plain text, and a kind of file that comes later is not forgotten.
constexpr std::array<std::string_view, 7> READ_BY_OTHERS = {
    "/var/volatile/config/config.running", "/var/volatile/config/hardware.running",
    "/var/volatile/config/config.meta",    "/var/volatile/config/apply.status",
    "/var/data/orv/config.json",           "/var/data/orv/config.hardware",
    "/var/data/orv/FAILSAFE_TIMER",
};
constexpr mode_t FOR_ALL = 0644;
constexpr mode_t FOR_THE_OWNER = 0600;

// The mode of a file that is not there yet.
mode_t new_mode(std::string_view path, mode_t else_mode) {
    return std::ranges::find(READ_BY_OTHERS, path) != READ_BY_OTHERS.end() ? FOR_ALL : else_mode;
}

class open_file {
public:
    explicit open_file(const char *path) : fd(retried([&] { return open(path, O_RDONLY | O_CLOEXEC); })) {}
    ~open_file() {
        if (fd >= 0)
            close(fd);
    }
    open_file(const open_file &) = delete;
    open_file &operator=(const open_file &) = delete;

    bool is_open() const { return fd >= 0; }

    // The number of bytes read; 0 at the end, -1 on failure.
    ssize_t read(char *buffer, size_t size) const {
        return retried([&] { return ::read(fd, buffer, size); });
    }

    mode_t mode() const {
        struct stat status {};
        return fstat(fd, &status) == 0 ? status.st_mode & 07777 : FOR_THE_OWNER;
    }

private:
    int fd;
};

// Hands the file's content to take, piece by piece, until it returns false.
template <typename taker> bool read_whole(const open_file &file, taker take) {
    std::array<char, 65536> buffer;
    ssize_t got = 0;
    while ((got = file.read(buffer.data(), buffer.size())) > 0)
        if (!take(std::string_view(buffer.data(), static_cast<size_t>(got))))
            return false;
    return got == 0;
}

std::string styled(const Json::Value &value) {
    Json::StreamWriterBuilder builder;
    builder["commentStyle"] = "None";
    builder["indentation"] = "  ";
    return Json::writeString(builder, value) + "\n";
}

} // namespace

int read_var_file(const char *path, char *buffer) {
    const open_file file(path);
    std::array<char, LONGEST_LINE> line;
    size_t length = 0;
    while (length < line.size()) {
        const ssize_t got = file.read(line.data() + length, line.size() - length);
        if (got < 0)
            return -1;
        const void *end = std::memchr(line.data() + length, '\n', static_cast<size_t>(got));
        if (end != nullptr) {
            length = static_cast<size_t>(static_cast<const char *>(end) - line.data());
            break;
        }
        if (got == 0)
            break;
        length += static_cast<size_t>(got);
    }
    std::memcpy(buffer, line.data(), length);
    buffer[length] = '\0';
    return 0;
}

int read_json_file(const char *path, Json::Value &value) try {
    const open_file file(path);
    std::string text;
    const bool whole = file.is_open() && read_whole(file, [&](std::string_view piece) {
                           text += piece;
                           return true;
                       });
    return whole && parse_json(text, value) ? 0 : -1;
} catch (...) {
    return -1;
}

int write_json_file(const char *path, const Json::Value &value) try {
    file_replacement file(path, new_mode(path, FOR_THE_OWNER));
    return file.write(styled(value)) && file.commit() ? 0 : -1;
} catch (...) {
    return -1;
}

int file_exists(const char *path) {
    return access(path, F_OK) == 0 ? 1 : 0;
}

int delete_file(const char *path) {
    return unlink(path) == 0 || errno == ENOENT || errno == ENOTDIR ? 0 : -1;
}

int copy_file(const char *from, const char *to) try {
    const open_file source(from);
    if (!source.is_open())
        return -1;
    file_replacement copy(to, new_mode(to, source.mode()));
    const bool whole = read_whole(source, [&](std::string_view piece) { return copy.write(piece); });
    return whole && copy.commit() ? 0 : -1;
} catch (...) {
    return -1;
}

// Persistent storage is the file system of /var/data. syncfs(2) waits for its data and its journal, and
// leaves other file systems of the device alone. There is one kind of flush here, so every mode means it.
void sync_to_fs(int) {
    const int fd = retried([] { return open("/var/data", O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
    if (fd < 0)
        return;
    syncfs(fd);
    close(fd);
}

int create_pidfile(const char *path) try {
    return replace_file(path, std::to_string(getpid()) + "\n");
} catch (...) {
    return -1;
}
