#include "tests/sweep/firmware.h"

#include "tests/fakes/calls.h"
#include "tests/fakes/config.h"
#include "tests/fakes/files.h"
#include "tests/sweep/crash.h"
#include "tests/sweep/ledger.h"
#include "tests/sweep/scheduler.h"
#include "tests/sweep/world.h"

#include <fcntl.h>
#include <unistd.h>

#include <regex>

namespace sweep {

namespace {

const std::string SLOTS = "/var/data/slots/";
const std::string SLOT_TO_BOOT = "/var/data/boot/slot";
const std::string BOOTED_SLOT = "/run/booted-slot";
const std::string ERROR_CODE = "/run/FW_ERR_CODE";
const std::string UPDATED = "/var/data/orv/FIRMWARE_UPDATED";
const std::string LOCAL = "/var/data/orv/LOCAL_FW_UPGRADE";
const std::string ROOTFS2 = "/var/data/orv/ROOTFS2";
const std::string STAGED = "/var/data/orv/config.staged";
const std::string SAVED = "/var/data/orv/config.json";

constexpr char OLD_VERSION[] = "1.0.0";
constexpr char NEW_VERSION[] = "2.0.0";
constexpr char PART_OF_ONE[] = "a part of 2.0.0";

constexpr int INSTALL_FAILED = 117;
constexpr time_t MODEM_SECONDS = 10;

upgrade_tool tool;
std::function<void()> reboot_device;

std::string other(const std::string &slot) {
    return slot == "1" ? "2" : "1";
}

int fail(int code) {
    if (!tool.fails_silently)
        fakes::write_all(ERROR_CODE, std::to_string(code) + "\n");
    return 1;
}

void install(const std::string &slot, const char *content) {
    fakes::change("orv-upgradefw", "slot " + slot + ": " + content);
    write_text(SLOTS + slot, content);
    pause_thread(1);
}

// As the virtual router's: nothing of the other slot is touched before the image has been checked; the mark
// is on the flash before the slot is switched.
int upgrade() {
    fakes::change("orv-upgradefw", "fetches");
    pause_thread(2);
    if ((tool.error_code != 0 && tool.error_code != INSTALL_FAILED) || tool.fails_silently)
        return fail(tool.error_code);
    const std::string slot = other(booted_slot());
    install(slot, PART_OF_ONE);
    if (tool.error_code == INSTALL_FAILED)
        return fail(INSTALL_FAILED);
    install(slot, NEW_VERSION);
    fakes::change("orv-upgradefw", "marks the upgrade");
    write_in_place(UPDATED, NEW_VERSION);
    fakes::change("orv-upgradefw", "switches to slot " + slot);
    flush_files();
    write_text(SLOT_TO_BOOT, slot);
    fakes::change("orv-upgradefw", "reboots");
    if (tool.reboots)
        reboot_device();
    return 0;
}

void update_modem(const std::string &job_id) {
    send_later(MODEM_SECONDS, "v1/device/job/" + job_id + "/update",
               R"({"jobId":")" + job_id + R"(","rc":0})");
}

} // namespace

void set_upgrade_tool(const upgrade_tool &manner) {
    tool = manner;
}

void make_slots() {
    for (const char *slot : {"1", "2"})
        write_text(SLOTS + slot, OLD_VERSION);
    write_text(SLOT_TO_BOOT, "1");
}

void boot_slot() {
    const std::string slot = slot_to_boot();
    fakes::write_all(BOOTED_SLOT, slot);
    write_ledger(entry_kind::BOOT, "slot " + slot);
    if (slot == "2")
        fakes::write_all(ROOTFS2, "");
    else
        unlinkat(AT_FDCWD, ROOTFS2.c_str(), 0);
}

void enter_firmware(std::function<void()> reboot) {
    reboot_device = std::move(reboot);
    fakes::config().database_texts["SYS_FW_VER"] = file_text(SLOTS + booted_slot());
    fakes::config().database_texts["SYS_FW_LABEL"] = "slot " + booted_slot();
}

bool run_firmware_command(const std::string &command, int &status) {
    static const std::regex MODEM("/usr/bin/qtel-dfota -i [^ ]* -j ([^ ]+) &");
    std::smatch parts;
    if (command.rfind("/usr/bin/orv-upgradefw ", 0) == 0) {
        status = upgrade();
        return true;
    }
    if (!std::regex_match(command, parts, MODEM))
        return false;
    update_modem(parts[1]);
    status = 0;
    return true;
}

void upgrade_locally() {
    fakes::change("local-upgrade", "stages the configuration");
    write_in_place(STAGED, file_text(SAVED));
    write_in_place(STAGED + ".hash", file_text("/var/data/orv/config.hash"));
    flush_files();
    fakes::change("local-upgrade", "marks it as local");
    write_in_place(LOCAL, "");
    flush_files();
    if (upgrade() == 0)
        return;
    for (const std::string &path : {LOCAL, STAGED, STAGED + ".hash", ERROR_CODE})
        remove_file(path);
}

void switch_slot() {
    write_text(SLOT_TO_BOOT, other(booted_slot()));
}

std::string booted_slot() {
    return file_text(BOOTED_SLOT);
}

std::string slot_to_boot() {
    return file_text(SLOT_TO_BOOT);
}

bool is_whole(const std::string &slot) {
    const std::string content = file_text(SLOTS + slot);
    return content == OLD_VERSION || content == NEW_VERSION;
}

} // namespace sweep
