// A device at its boot, before an agent has run: what a cut has left on it.
#pragma once

#include "tests/unit/config_bed.h"

#include "packaging/boot/boot.h"

#include <map>

constexpr const char *UPDATED = "/var/data/orv/FIRMWARE_UPDATED";
constexpr const char *LOCAL = "/var/data/orv/LOCAL_FW_UPGRADE";
constexpr const char *MIGRATE = "/var/data/orv/MIGRATE";
constexpr const char *TRIAL = "/var/data/boot/trial";
constexpr const char *INSTALLED = "/var/data/boot/installed";
constexpr const char *ATTEMPTS = "/var/data/boot/attempts";

class BootTest : public ConfigTest {
protected:
    static void boot() { finish_what_a_cut_has_left(); }

    static void given_running_slot(int slot) {
        unlink("/var/data/orv/ROOTFS2");
        if (slot == 2)
            write_text("/var/data/orv/ROOTFS2", "");
    }

    static void given_saved(const std::string &config_text) { given_config(SAVED, SAVED_HASH, config_text); }

    // An apply of new_config() that was cut, with a job that is stored with this status.
    static void given_cut_apply(const std::string &status, const std::string &job_id = "77");

    // The device's own record of an upgrade that was started on it.
    static void given_record_of_local_upgrade(const std::string &status);

    // The job of an upgrade from slot 1 to slot 2 and to new_config(), the only one since its installation.
    static Json::Value firmware_job(const std::string &status);
    static void given_firmware_job(const Json::Value &job) { given_active_job(job.toStyledString()); }

    static void given_staged(const std::string &config_text) {
        given_config(STAGED, STAGED_HASH, config_text);
    }

    // Every file and its content, below /var/data and /var/volatile.
    static std::map<std::string, std::string> all_files();

    // The log is empty, and every file as it was before.
    static void expect_boot_changes_nothing();
};

bool any_exists(const std::vector<const char *> &paths);
