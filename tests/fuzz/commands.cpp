#include "tests/fuzz/commands.h"

#include "tests/fakes/device.h"
#include "tests/fakes/files.h"
#include "tests/fuzz/arrivals.h"
#include "tests/fuzz/broken.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>
#include <unordered_set>

namespace fuzz {
namespace {

using text = std::string_view;

constexpr text ORV = "/var/volatile/orv/";
constexpr text FW_JOBID = "/var/volatile/orv/FW_JOBID";
constexpr char ROOTFS2[] = "/var/data/orv/ROOTFS2";
constexpr size_t LONGEST_URL = 256;
constexpr int LONGEST_LIMIT = 14400;

const std::unordered_set<text> MARKS = {
    "echo 1 > /var/volatile/orv/FW_JOB_EXECUTING",
    "echo 1 > /var/volatile/orv/CONFIG_JOB_EXECUTING",
    "echo 1 > /var/volatile/orv/RADIOFW_JOB_EXECUTING",
    "echo 1 > /var/volatile/orv/CRITICAL_JOB_EXECUTING",
};

// Of the agent itself, and of the change lists of areas.cpp.
const std::unordered_set<text> SERVICES = {
    "/usr/bin/cmd_netgen apply",      "/usr/bin/cmd_netgen apply --pulse-ethernet",
    "/usr/bin/cmd_firewall apply",    "/usr/bin/cmd_wifi apply",
    "/usr/bin/cmd_wifi reload",       "/usr/bin/cmd_ipsec restart",
    "/bin/systemctl reload qtel-mgr", "/usr/bin/other apply",
};

// What stands between the two, if the text begins and ends so.
std::optional<text> between(text whole, text begin, text end) {
    if (whole.size() < begin.size() + end.size() || !whole.starts_with(begin) || !whole.ends_with(end))
        return std::nullopt;
    return whole.substr(begin.size(), whole.size() - begin.size() - end.size());
}

bool is_arrived_id(text id) {
    return arrived().ids.contains(std::string(id));
}

bool is_digits(text word) {
    return !word.empty() &&
           std::all_of(word.begin(), word.end(), [](char c) { return c >= '0' && c <= '9'; });
}

long number(text word) {
    long value = -1;
    std::from_chars(word.data(), word.data() + word.size(), value);
    return value;
}

// "_9:5:7_3-3-2024"
bool is_stamp(text stamp) {
    size_t at = 0;
    for (const char mark : {'_', ':', ':', '_', '-', '-'}) {
        if (at >= stamp.size() || stamp[at] != mark)
            return false;
        const size_t from = ++at;
        while (at < stamp.size() && stamp[at] >= '0' && stamp[at] <= '9')
            ++at;
        if (at == from)
            return false;
    }
    return at == stamp.size();
}

std::string id_of_script(text path) {
    const auto name = between(path, ORV, "");
    if (!name)
        return "";
    for (size_t at = name->rfind('_'); at != text::npos && at > 0; at = name->rfind('_', at - 1))
        if (is_stamp(name->substr(at)))
            return std::string(name->substr(0, at));
    return "";
}

void write(const std::string &path, const std::string &line) {
    fakes::write_all(path, line + "\n");
}

// The script is there, and is named by a job that arrived. What it would do first: tell its process id.
bool run_script(text path, long limit, int &status) {
    const std::string id = id_of_script(path);
    const std::string file(path);
    if (id.empty() || !is_arrived_id(id) || !exists(file))
        return false;
    shell().script = file;
    shell().script_text = file_text(file);
    shell().script_limit = limit;
    write("/tmp/cli_output_" + id + ".txt", "output");
    write(std::string(ORV) + id + ".pid", "4711");
    status = shell().next_status;
    return true;
}

bool run_timed_script(text command, int &status) {
    const auto words = between(command, "timeout ", "");
    if (!words)
        return false;
    const text limit = words->substr(0, words->find(' '));
    const auto path = between(words->substr(limit.size()), " /bin/sh ", "");
    if (!path || !is_digits(limit) || number(limit) < 1 || number(limit) > LONGEST_LIMIT)
        return false;
    return run_script(*path, number(limit), status);
}

bool run_critical_script(text command, int &status) {
    const auto path = between(command, "/bin/sh ", "");
    return path && run_script(*path, 0, status);
}

bool write_id(text command) {
    const auto id = between(command, "/bin/echo '", "' > /var/volatile/orv/FW_JOBID");
    if (!id || !is_arrived_id(*id))
        return false;
    write(std::string(FW_JOBID), std::string(*id));
    return true;
}

bool link_job(text command, int &status) {
    const auto id =
        between(command, "/bin/ln -s /var/data/orv/vantrel_iot/jobs/active/", " /var/run/ACTIVE_JOB");
    if (!id || !is_arrived_id(*id))
        return false;
    const std::string target = ACTIVE_FOLDER + std::string(*id);
    status = symlink(target.c_str(), "/var/run/ACTIVE_JOB") == 0 ? 0 : 1;
    return true;
}

// The tool's two arguments are the URL's last part and what stands before it, or twice a URL without a slash. A zero
// byte in it ends the command.
bool is_upgrade_to(text command, const std::string &whole) {
    const std::string url = whole.substr(0, LONGEST_URL);
    const size_t slash = url.rfind('/');
    const std::string arguments = slash == url.npos || slash == 0
                                      ? url + " " + url
                                      : url.substr(slash + 1) + " " + url.substr(0, slash);
    return command == ("/usr/bin/orv-upgradefw " + arguments + " token-of-a-test").c_str();
}

// A tool that succeeds has installed the other slot and reboots.
bool upgrade(text command, int &status) {
    if (!command.starts_with("/usr/bin/orv-upgradefw "))
        return false;
    const auto &urls = arrived().urls;
    if (std::none_of(urls.begin(), urls.end(), [&](const auto &url) { return is_upgrade_to(command, url); }))
        return false;
    status = shell().next_status;
    if (status != 0) {
        write("/var/run/FW_ERR_CODE", std::to_string(status));
        return true;
    }
    write("/var/data/orv/FIRMWARE_UPDATED", "1");
    if (exists(ROOTFS2))
        unlink(ROOTFS2);
    else
        write(ROOTFS2, "1");
    shell().rebooted = true;
    return true;
}

bool upgrade_modem(text command, int &status) {
    const auto arguments = between(command, "/usr/bin/qtel-dfota -i ", " &");
    if (!arguments)
        return false;
    for (const std::string &url : arrived().urls) {
        const auto id = between(*arguments, url + " -j ", "");
        if (id && is_arrived_id(*id)) {
            status = shell().next_status;
            return true;
        }
    }
    return false;
}

bool count_jobs(text command) {
    if (command != "/bin/ls /var/data/orv/vantrel_iot/jobs/active/ | /usr/bin/wc -l > /tmp/.active_job_count")
        return false;
    write("/tmp/.active_job_count", std::to_string(names_in(ACTIVE_FOLDER).size()));
    return true;
}

// The shell makes several words of a name with a blank, and a pattern of one with a star: such a job is not found.
bool is_one_word(const std::string &name) {
    return name.find_first_of(" \t\n*?[\\") == name.npos;
}

bool select_oldest_job(text command) {
    if (command !=
        "/bin/ls -ltd $(find /var/data/orv/vantrel_iot/jobs/active/ -type f) | tail -1|awk -Factive/ "
        "'{print $2}' > /tmp/.jobfile_select")
        return false;
    std::string oldest;
    time_t modified = 0;
    for (const std::string &name : names_in(ACTIVE_FOLDER)) {
        struct stat status {};
        if (!is_one_word(name) || stat((ACTIVE_FOLDER + name).c_str(), &status) != 0)
            continue;
        if (oldest.empty() || status.st_mtime < modified) {
            oldest = name;
            modified = status.st_mtime;
        }
    }
    write("/tmp/.jobfile_select", oldest);
    return true;
}

bool kill_script(text command) {
    const auto pid = between(command, "/bin/kill -9 ", "");
    return pid && is_digits(*pid);
}

bool run(text command, int &status) {
    if (MARKS.contains(command)) {
        write(std::string(command.substr(sizeof "echo 1 > " - 1)), "1");
        return true;
    }
    if (command == "/sbin/reboot -f") {
        shell().rebooted = true;
        throw fake_reboot{"reboot -f"};
    }
    return SERVICES.contains(command) || count_jobs(command) || write_id(command) ||
           run_timed_script(command, status) || run_critical_script(command, status) ||
           link_job(command, status) || kill_script(command) || select_oldest_job(command) ||
           upgrade(command, status) || upgrade_modem(command, status);
}

} // namespace

shell_state &shell() {
    static shell_state state;
    return state;
}

bool run_known_command(const std::string &command, int &status) {
    status = 0;
    if (!run(command, status))
        broken("a command that is none of the agent's: " + command);
    return true;
}

} // namespace fuzz
