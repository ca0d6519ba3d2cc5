#include "tests/sweep/crash.h"

#include "tests/fakes/clock.h"
#include "tests/fakes/config.h"
#include "tests/fakes/files.h"
#include "tests/fakes/private_root.h"
#include "tests/sweep/firmware.h"
#include "tests/sweep/ledger.h"
#include "tests/sweep/services.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>

namespace fs = std::filesystem;

namespace sweep {

namespace {

const std::string CACHED = "/var/data/orv";
const std::string FLASH = "/dev/shm/flash";

// All that a restart may change, and where it is saved.
const fs::path WORLD[] = {"/var/data", "/var/volatile", "/run", "/tmp", FLASH};
const fs::path SAVED = "/dev/shm/saved";

constexpr const char *ACTIVE_JOB = "/var/data/orv/ACTIVE_JOB";
constexpr const char *STORED_CANDIDATE = "/var/data/orv/config.new";
constexpr const char *FAILSAFE_TIMER = "/var/data/orv/FAILSAFE_TIMER";
constexpr const char *FILLER = "/var/data/filler";

constexpr unsigned long long DISK_SIZE = 512 << 10;

constexpr time_t SECONDS_TO_RESTART = 2;
constexpr time_t SECONDS_TO_BOOT = 20;

const std::string SAVED_CONFIG = "/var/data/orv/config.json";
const std::string SAVED_HASH = "/var/data/orv/config.hash";
const std::string FAILSAFE_CONFIG = "/var/data/orv/config.failsafe";
const std::string RUNNING_CONFIG = "/var/volatile/config/config.running";

void copy_one(const fs::path &from, const fs::path &to) {
    std::string text;
    struct stat info = {};
    if (fakes::read_all(from, text) != 0 || stat(from.c_str(), &info) != 0)
        return;
    fs::create_directories(to.parent_path());
    fakes::write_all(to, text);
    const timespec stamps[2] = {info.st_atim, info.st_mtim};
    utimensat(AT_FDCWD, to.c_str(), stamps, 0);
}

// What is mounted below is no part of the world: the clone itself may be.
void mirror_into(const fs::path &from, const fs::path &to) {
    for (const auto &entry : fs::directory_iterator(from)) {
        const auto target = to / entry.path().filename();
        if (entry.is_symlink())
            fs::copy_symlink(entry.path(), target);
        else if (!entry.is_directory())
            copy_one(entry.path(), target);
        else if (!is_mount_point(entry.path())) {
            fs::create_directories(target);
            mirror_into(entry.path(), target);
        }
    }
}

void mirror(const fs::path &from, const fs::path &to) {
    fs::create_directories(to);
    empty_directory(to);
    mirror_into(from, to);
}

std::string content_of(const fs::path &path) {
    std::string text;
    fakes::read_all(path, text);
    return text;
}

std::string hash_of_file(const fs::path &path) {
    return std::to_string(std::hash<std::string>()(content_of(path)));
}

void mark_synced(const fs::path &path) {
    write_ledger(entry_kind::SYNCED, hash_of_file(path));
}

std::set<std::string> synced_contents() {
    std::set<std::string> all;
    for (const entry &each : read_ledger())
        if (each.kind == entry_kind::SYNCED)
            all.insert(each.what);
    return all;
}

// The file written last whose content has never reached the flash; empty when all have.
fs::path last_unsynced_file() {
    const auto safe = synced_contents();
    fs::path last;
    timespec last_change = {};
    for (const auto &entry : fs::recursive_directory_iterator(CACHED)) {
        if (!entry.is_regular_file() || safe.count(hash_of_file(entry.path())) != 0)
            continue;
        struct stat info = {};
        stat(entry.path().c_str(), &info);
        if (info.st_size < 2 || std::pair(info.st_ctim.tv_sec, info.st_ctim.tv_nsec) <
                                    std::pair(last_change.tv_sec, last_change.tv_nsec))
            continue;
        last = entry.path();
        last_change = info.st_ctim;
    }
    return last;
}

bool tear_last_file() {
    const fs::path last = last_unsynced_file();
    if (last.empty())
        return false;
    const std::string text = content_of(last);
    fakes::write_all(last, text.substr(0, text.size() / 2));
    return true;
}

bool same_tree(const fs::path &left, const fs::path &right) {
    const auto listing = [](const fs::path &folder) {
        std::set<std::pair<std::string, std::string>> all;
        for (const auto &entry : fs::recursive_directory_iterator(folder))
            all.emplace(entry.path().lexically_relative(folder),
                        entry.is_regular_file() ? content_of(entry.path()) : "");
        return all;
    };
    return listing(left) == listing(right);
}

void record_stored_job(const std::string &path) {
    const std::string folder = ACTIVE_FOLDER;
    if (path.compare(0, folder.size(), folder) == 0)
        write_ledger(entry_kind::STORED, path.substr(folder.size()), content_of(path));
}

bool below(const std::string &path, const std::string &folder) {
    return path.compare(0, folder.size() + 1, folder + "/") == 0;
}

void keep_on_flash(const std::string &path) {
    if (!below(path, CACHED))
        return;
    copy_one(path, FLASH + path.substr(CACHED.size()));
    mark_synced(path);
}

void sync_all() {
    mirror(CACHED, FLASH);
    const auto known = synced_contents();
    for (const auto &entry : fs::recursive_directory_iterator(CACHED))
        if (entry.is_regular_file() && known.count(hash_of_file(entry.path())) == 0)
            mark_synced(entry.path());
}

// An apply cut short is only resumed safely from what is persistent.
bool supervision_reboots() {
    return exists("/var/volatile/orv/CONFIG_JOB_EXECUTING") || exists("/var/volatile/orv/FW_JOB_EXECUTING");
}

void refresh_hash(const std::string &config, const std::string &hash) {
    if (exists(config))
        fakes::write_all(hash, fakes::hash_of(file_json(config)));
}

// The running configuration is the persistent one; no hash file is trusted.
void rebuild_configuration() {
    copy_one(SAVED_CONFIG, RUNNING_CONFIG);
    refresh_hash(RUNNING_CONFIG, RUNNING_CONFIG + ".hash");
    refresh_hash(SAVED_CONFIG, SAVED_HASH);
    refresh_hash(FAILSAFE_CONFIG, FAILSAFE_CONFIG + ".hash");
}

// The router's boot: of an apply that was cut short, its job and its candidate are there.
void forget_unfinished_apply() {
    if (exists(ACTIVE_JOB) && exists(STORED_CANDIDATE))
        return;
    for (const char *path : {ACTIVE_JOB, STORED_CANDIDATE, FAILSAFE_TIMER})
        unlinkat(AT_FDCWD, path, 0);
}

// An upgrade that is over, or was cut before its end.
void forget_upgrade() {
    if (exists("/var/data/orv/FIRMWARE_UPDATED"))
        return;
    for (const std::string name : {"LOCAL_FW_UPGRADE", "config.staged", "config.staged.hash"})
        unlinkat(AT_FDCWD, ("/var/data/orv/" + name).c_str(), 0);
}

void clean_up() {
    forget_unfinished_apply();
    forget_upgrade();
}

} // namespace

const char *name_of(restart kind) {
    static constexpr const char *NAMES[] = {"kill", "reboot", "power", "torn", "stall"};
    return NAMES[static_cast<int>(kind)];
}

void make_new_device(const std::string &config) {
    free_disk();
    for (const char *path : {"/var/data", "/var/volatile", "/run", "/tmp"})
        empty_directory(path);
    limit_var_data(DISK_SIZE);
    make_boot_directories();
    given_config(SAVED_CONFIG, SAVED_HASH, config);
    make_slots();
}

void follow_writes() {
    fakes::after_replacing = [](const std::string &path) {
        keep_on_flash(path);
        record_stored_job(path);
    };
    fakes::after_sync = sync_all;
}

bool crash(restart kind) {
    if (kind == restart::TORN && !tear_last_file())
        return false;
    if (kind == restart::POWER_CUT) {
        if (same_tree(CACHED, FLASH))
            return false;
        mirror(FLASH, CACHED);
    }
    return true;
}

void boot(restart kind, const surroundings &around) {
    const bool agent_alone = kind == restart::KILL && !(around.supervised && supervision_reboots());
    keep_time(kept_time() + (agent_alone ? SECONDS_TO_RESTART : SECONDS_TO_BOOT));
    set_time(kept_time());
    if (agent_alone)
        return;
    for (const char *path : {"/var/volatile", "/run", "/tmp", "/var/data/.tmp"})
        if (exists(path))
            empty_directory(path);
    make_boot_directories();
    rebuild_configuration();
    if (around.cleaned)
        clean_up();
    boot_slot();
    start_services();
    sync_all();
}

void save_files() {
    for (const fs::path &folder : WORLD)
        mirror(folder, SAVED / folder.relative_path());
}

void restore_files() {
    for (const fs::path &folder : WORLD) {
        empty_directory(folder);
        mirror_into(SAVED / folder.relative_path(), folder);
    }
}

void flush_files() {
    sync_all();
}

void put_file(const std::string &path, const std::string &text) {
    write_text(path, text);
    keep_on_flash(path);
}

void fill_disk() {
    const int file = open(FILLER, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const std::string page(4096, 'x');
    while (write(file, page.data(), page.size()) > 0) {
    }
    close(file);
}

void free_disk() {
    unlinkat(AT_FDCWD, FILLER, 0);
}

} // namespace sweep
