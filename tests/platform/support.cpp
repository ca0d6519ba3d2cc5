#include "tests/platform/support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace fs = std::filesystem;

namespace {

void mount_or_throw(const char *source, const char *target, const char *type, unsigned long flags,
                    const char *options) {
    if (mount(source, target, type, flags, options) != 0)
        throw std::system_error(errno, std::generic_category(), target);
}

} // namespace

std::string read_text(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void write_text(const std::string &path, const std::string &text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream file(path, std::ios::binary);
    if (!(file << text << std::flush))
        throw std::runtime_error("cannot write " + path);
}

std::vector<std::string> names_in(const std::string &folder) {
    std::vector<std::string> names;
    std::error_code missing;
    for (const auto &entry : fs::directory_iterator(folder, missing))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

int wait_status_of(const std::function<int()> &body) {
    const pid_t child = fork();
    if (child < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (child == 0)
        _exit(body());
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

int exit_status_of(const std::function<int()> &body) {
    const int status = wait_status_of(body);
    EXPECT_TRUE(WIFEXITED(status)) << "wait status " << status;
    return WEXITSTATUS(status);
}

// Not moved aside: the file of another user cannot be renamed inside a user namespace.
missing_command::missing_command(const std::string &name)
    : path(fs::canonical("/usr/bin/" + name)), in_sbin("/usr/sbin/" + name), bytes(read_text(path)) {
    fs::remove(path);
}

missing_command::~missing_command() {
    fs::remove(path);
    fs::remove(in_sbin);
    write_text(path, bytes);
    fs::permissions(path, fs::perms(0755));
}

void set_kernel_command_line(const std::string &text) {
    write_text("/tmp/.cmdline", text);
    mount_or_throw("/tmp/.cmdline", "/proc/cmdline", nullptr, MS_BIND, nullptr);
}

void make_etc_private() {
    static bool done = false;
    if (std::exchange(done, true))
        return;
    fs::create_directories("/tmp/.etc/upper");
    fs::create_directories("/tmp/.etc/work");
    mount_or_throw("overlay", "/etc", "overlay", 0,
                   "lowerdir=/etc,upperdir=/tmp/.etc/upper,workdir=/tmp/.etc/work,userxattr");
}
