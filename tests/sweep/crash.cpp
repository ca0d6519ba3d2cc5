#include "tests/sweep/crash.h"

#include "tests/fakes/calls.h"
#include "tests/fakes/clock.h"
#include "tests/fakes/config.h"
#include "tests/fakes/files.h"
#include "tests/fakes/private_root.h"
#include "tests/sweep/firmware.h"
#include "tests/sweep/flash.h"
#include "tests/sweep/ledger.h"
#include "tests/sweep/services.h"

#include <fcntl.h>
#include <unistd.h>

#include <vector>

namespace sweep {

namespace {

// All that a restart may change.
const std::vector<std::string> WORLD = {"/var/data", "/var/volatile", "/run", "/tmp"};

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

void record_replaced_file(const std::string &path) {
    static const std::string ACTIVE = ACTIVE_FOLDER;
    std::string text;
    fakes::read_all(path, text);
    write_ledger(entry_kind::REPLACED, path, text);
    if (path.compare(0, ACTIVE.size(), ACTIVE) == 0)
        write_ledger(entry_kind::STORED, path.substr(ACTIVE.size()), text);
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
    std::string text;
    if (fakes::read_all(SAVED_CONFIG, text) == 0)
        fakes::write_all(RUNNING_CONFIG, text);
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
    static constexpr const char *NAMES[] = {"kill",  "reboot", "power", "torn",
                                            "stall", "held",   "none",  "again"};
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
    fakes::after_replacing = record_replaced_file;
    fakes::after_sync = flush_files;
}

bool boot(restart kind, const surroundings &around) {
    const bool agent_alone = kind == restart::KILL && !(around.supervised && supervision_reboots());
    keep_time(kept_time() + (agent_alone ? SECONDS_TO_RESTART : SECONDS_TO_BOOT));
    set_time(kept_time());
    if (agent_alone)
        return false;
    for (const char *path : {"/var/volatile", "/run", "/tmp", "/var/data/.tmp"})
        if (exists(path))
            empty_directory(path);
    make_boot_directories();
    rebuild_configuration();
    if (around.cleaned)
        clean_up();
    boot_slot();
    start_services();
    return true;
}

tree read_world() {
    return read_tree(WORLD);
}

void put_back_world(const tree &kept) {
    const bool is_full = exists(FILLER) || kept.count(FILLER) != 0;
    if (is_full)
        limit_var_data(2 * DISK_SIZE);
    put_back(kept, WORLD);
    if (is_full)
        limit_var_data(DISK_SIZE);
}

void put_on_flash(const tree &kept) {
    const bool is_full = exists(FILLER);
    free_disk();
    put_back(kept, {PERSISTENT_FOLDER});
    if (is_full)
        fill_disk();
}

void flush_files() {
    write_ledger(entry_kind::SYNCED, "");
}

void put_file(const std::string &path, const std::string &text) {
    write_text(path, text);
    write_ledger(entry_kind::REPLACED, path, text);
    flush_files();
}

int write_in_place(const std::string &path, const std::string &text) {
    if (fakes::write_all(path, text) != 0)
        return -1;
    write_ledger(entry_kind::WRITTEN, path, text);
    return 0;
}

void remove_file(const std::string &path) {
    fakes::change("unlink", path);
    unlinkat(AT_FDCWD, path.c_str(), 0);
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
