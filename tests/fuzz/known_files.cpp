#include "tests/fuzz/known_files.h"

#include "tests/fuzz/broken.h"

#include <string_view>
#include <unordered_set>

namespace {

const std::unordered_set<std::string_view> FILES = {
    "/var/data/orv/config.json",
    "/var/data/orv/config.hash",
    "/var/data/orv/config.new",
    "/var/data/orv/config.failsafe",
    "/var/data/orv/config.failsafe.hash",
    "/var/data/orv/config.staged",
    "/var/data/orv/config.staged.hash",
    "/var/data/orv/FAILSAFE_TIMER",
    "/var/data/orv/FIRMWARE_UPDATED",
    "/var/data/orv/LOCAL_FW_UPGRADE",
    "/var/data/orv/ACTIVE_JOB",
    "/var/data/orv/MIGRATE",
    "/var/data/orv/ROOTFS2",
    "/var/volatile/config/config.new",
    "/var/volatile/config/config.new.hash",
    "/var/volatile/config/config.running",
    "/var/volatile/config/config.running.hash",
    "/var/volatile/config/CONFIG_MIGRATED",
    "/var/run/ACTIVE_JOB",
    "/var/run/CONFIG_MODIFIED",
    "/var/run/FW_ERR_CODE",
    "/var/run/qtel-mgr.pid",
    "/var/run/tessard.pid",
    "/tmp/.active_job_count",
    "/tmp/.jobfile_select",
};

constexpr std::string_view FOLDERS_OF_IDS[] = {
    "/var/data/orv/vantrel_iot/jobs/active/", "/var/data/orv/vantrel_iot/jobs/archive/",
    "/var/volatile/orv/", // scripts and their pid files, beside the markers
};
constexpr std::string_view OUTPUT = "/tmp/cli_output_";

bool is_name(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == name.npos;
}

} // namespace

bool fuzz::is_known_file(const std::string &path) {
    if (FILES.contains(path))
        return true;
    const std::string_view text = path;
    for (const std::string_view folder : FOLDERS_OF_IDS)
        if (text.starts_with(folder))
            return is_name(text.substr(folder.size()));
    return text.starts_with(OUTPUT) && is_name(text.substr(OUTPUT.size())) && text.ends_with(".txt");
}

void fuzz::must_be_known(const std::string &path, const std::string &by) {
    if (!is_known_file(path))
        broken(by + " of a file that is none of the agent's: " + path);
}
