#include "tests/fakes/private_root.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace fs = std::filesystem;

namespace {

// Where the upper layers lie while the overlays are mounted; a later mount on /tmp hides it.
const std::string LAYERS = "/tmp/.layers";

[[noreturn]] void refuse(const std::string &what) {
    std::fprintf(stderr,
                 "SKIPPED: no private file system for this test: %s: %s.\n"
                 "Mount and network namespaces are needed: run as root, or allow user namespaces.\n",
                 what.c_str(), std::strerror(errno));
    std::exit(PRIVATE_ROOT_REFUSED);
}

void mount_or_refuse(const char *source, const std::string &target, const char *type, unsigned long flags,
                     const std::string &options = "") {
    if (mount(source, target.c_str(), type, flags, options.empty() ? nullptr : options.c_str()) != 0)
        refuse("mount " + target);
}

void write_proc(const char *path, const std::string &text) {
    const int file = open(path, O_WRONLY | O_CLOEXEC);
    if (file < 0 || write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        refuse(path);
    close(file);
}

// Root of the machine needs no user namespace; root of a container may well need one.
bool unshare_namespaces() {
    constexpr int NAMESPACES = CLONE_NEWNS | CLONE_NEWNET;
    const auto uid = std::to_string(geteuid());
    const auto gid = std::to_string(getegid());
    if (geteuid() == 0 && unshare(NAMESPACES) == 0)
        return false;
    if (unshare(NAMESPACES | CLONE_NEWUSER) != 0)
        refuse("unshare");
    write_proc("/proc/self/setgroups", "deny");
    write_proc("/proc/self/uid_map", "0 " + uid + " 1");
    write_proc("/proc/self/gid_map", "0 " + gid + " 1");
    return true;
}

// A directory of the real machine that stays in sight at its own path, kept open while mounts cover it.
struct kept_directory {
    fs::path path;
    int fd = -1;
    bool writable = false;
};

// The build tree of this program: the folder above it that CMake has configured. Empty for a program
// that was copied out of one.
fs::path build_tree() {
    for (fs::path folder = fs::read_symlink("/proc/self/exe").parent_path();; folder = folder.parent_path()) {
        if (fs::exists(folder / "CMakeCache.txt"))
            return folder;
        if (folder == folder.root_path())
            return {};
    }
}

// The source tree that a build tree was configured for.
fs::path source_tree_of(const fs::path &build) {
    const std::string key = "CMAKE_HOME_DIRECTORY:INTERNAL=";
    std::ifstream cache(build / "CMakeCache.txt");
    for (std::string line; std::getline(cache, line);)
        if (line.compare(0, key.size(), key) == 0)
            return fs::weakly_canonical(line.substr(key.size()));
    return {};
}

// Source before build tree, which most often lies in it: the later mount is the upper one.
std::vector<kept_directory> keep_directories() {
    const fs::path build = build_tree();
    if (build.empty())
        return {};
    std::vector<kept_directory> kept{{source_tree_of(build), -1, false}, {build, -1, true}};
    for (auto &directory : kept) {
        directory.fd = open(directory.path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        if (directory.fd < 0)
            refuse("open " + directory.path.string());
    }
    return kept;
}

void make_read_only(const std::string &path) {
    mount_attr attributes{};
    attributes.attr_set = MOUNT_ATTR_RDONLY;
    if (mount_setattr(AT_FDCWD, path.c_str(), AT_RECURSIVE, &attributes, sizeof attributes) != 0)
        refuse("make read-only " + path);
}

void bind_back(const std::vector<kept_directory> &kept) {
    for (const auto &directory : kept) {
        fs::create_directories(directory.path);
        mount_or_refuse(("/proc/self/fd/" + std::to_string(directory.fd)).c_str(), directory.path, nullptr,
                        MS_BIND | MS_REC);
        if (!directory.writable)
            make_read_only(directory.path);
        close(directory.fd);
    }
}

bool lies_in(const fs::path &path, const fs::path &folder) {
    return std::mismatch(folder.begin(), folder.end(), path.begin(), path.end()).first == folder.end();
}

// A current directory that lies elsewhere is left: what a test writes there by a relative path would be
// the user's.
void enter_current_directory(const fs::path &path, const std::vector<kept_directory> &kept) {
    const bool stays = std::any_of(kept.begin(), kept.end(),
                                   [&](const auto &directory) { return lies_in(path, directory.path); });
    if (chdir(stays ? path.c_str() : "/") != 0)
        refuse("chdir");
}

void mount_overlay(const std::string &path, bool in_user_namespace) {
    std::string name = path;
    for (auto &c : name)
        if (c == '/')
            c = '_';
    const std::string upper = LAYERS + "/" + name + "/upper";
    const std::string work = LAYERS + "/" + name + "/work";
    fs::create_directories(upper);
    fs::create_directories(work);
    std::string options = "lowerdir=" + path + ",upperdir=" + upper + ",workdir=" + work;
    if (in_user_namespace)
        options += ",userxattr";
    mount_or_refuse("overlay", path, "overlay", 0, options);
}

void mount_own_dev() {
    static const std::array<const char *, 6> NODES = {"null", "zero", "full", "random", "urandom", "tty"};
    std::array<int, NODES.size()> nodes{};
    for (size_t i = 0; i < NODES.size(); i++)
        nodes[i] = open((std::string("/dev/") + NODES[i]).c_str(), O_PATH | O_CLOEXEC);
    const int pts = open("/dev/pts", O_PATH | O_DIRECTORY | O_CLOEXEC);
    mount_or_refuse("dev", "/dev", "tmpfs", MS_NOSUID, "mode=0755");
    for (size_t i = 0; i < NODES.size(); i++) {
        if (nodes[i] < 0)
            continue;
        const std::string path = std::string("/dev/") + NODES[i];
        close(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
        mount_or_refuse(("/proc/self/fd/" + std::to_string(nodes[i])).c_str(), path, nullptr, MS_BIND);
        close(nodes[i]);
    }
    fs::create_directory("/dev/shm");
    fs::create_directory("/dev/pts");
    fs::create_symlink("/proc/self/fd", "/dev/fd");
    mount_or_refuse("shm", "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV);
    if (pts >= 0) {
        mount_or_refuse(("/proc/self/fd/" + std::to_string(pts)).c_str(), "/dev/pts", nullptr,
                        MS_BIND | MS_REC);
        close(pts);
    }
}

void mount_var() {
    if (!fs::is_symlink("/var/run")) {
        fs::create_directory("/var/run");
        mount_or_refuse("/run", "/var/run", nullptr, MS_BIND);
    }
    fs::create_directories("/var/data");
    fs::create_directories("/var/volatile");
    mount_or_refuse("data", "/var/data", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755");
    limit_var_data(VAR_DATA_SIZE);
    mount_or_refuse("volatile", "/var/volatile", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755");
}

void raise_loopback() {
    const int any = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    if (any < 0 || ioctl(any, SIOCSIFFLAGS, &request) != 0)
        refuse("lo up");
    close(any);
}

} // namespace

void enter_private_root() {
    const bool in_user_namespace = unshare_namespaces();
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        refuse("private mounts");
    std::error_code unknown;
    const fs::path current = fs::current_path(unknown);
    const auto kept = keep_directories();

    mount_or_refuse("layers", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV);
    mount_overlay("/var", in_user_namespace);
    mount_overlay("/usr/bin", in_user_namespace);
    mount_overlay("/usr/sbin", in_user_namespace);
    mount_or_refuse("tmp", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
    mount_or_refuse("run", "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755");
    mount_own_dev();
    mount_var();
    bind_back(kept);
    enter_current_directory(current, kept);
    raise_loopback();
    make_boot_directories();
}

void make_boot_directories() {
    for (const char *path :
         {"/var/data/orv/vantrel_iot/jobs/active", "/var/data/orv/vantrel_iot/jobs/archive",
          "/var/volatile/orv", "/var/volatile/config"})
        fs::create_directories(path);
}

bool is_mount_point(const std::string &path) {
    struct statx status {};
    if (statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, 0, &status) != 0)
        throw std::system_error(errno, std::generic_category(), path);
    if ((status.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) == 0)
        throw std::runtime_error("this kernel does not tell what is a mount point: " + path);
    return (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

void empty_directory(const std::string &path) {
    for (const auto &entry : fs::directory_iterator(path)) {
        if (is_mount_point(entry.path()))
            continue;
        if (entry.is_directory() && !entry.is_symlink()) {
            empty_directory(entry.path());
            if (!fs::is_empty(entry.path()))
                continue; // the way to a mount
        }
        fs::remove(entry.path());
    }
}

void limit_var_data(unsigned long long bytes) {
    if (mount(nullptr, "/var/data", nullptr, MS_REMOUNT | MS_NOSUID | MS_NODEV,
              ("size=" + std::to_string(bytes)).c_str()) != 0)
        throw std::system_error(errno, std::generic_category(), "remount /var/data");
}

void write_stub(const std::string &command, const std::string &body) {
    for (const char *folder : {"/usr/bin", "/usr/sbin"}) {
        const auto path = fs::path(folder) / command;
        fs::remove(path);
        std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
        fs::permissions(path, fs::perms(0755));
    }
}

int open_dev_log() {
    const int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    unlink("/dev/log");
    if (bind(log, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        throw std::system_error(errno, std::generic_category(), "bind /dev/log");
    return log;
}

std::vector<std::string> read_dev_log(int socket) {
    std::vector<std::string> lines;
    std::array<char, 65536> buffer{};
    for (ssize_t size; (size = recv(socket, buffer.data(), buffer.size(), 0)) >= 0;)
        lines.emplace_back(buffer.data(), static_cast<size_t>(size));
    return lines;
}
