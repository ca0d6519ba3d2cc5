#include "tests/sweep/commands.h"

#include "tests/fakes/calls.h"
#include "tests/fakes/clock.h"
#include "tests/fakes/device.h"
#include "tests/fakes/files.h"
#include "tests/sweep/crash.h"
#include "tests/sweep/firmware.h"
#include "tests/sweep/ledger.h"
#include "tests/sweep/scheduler.h"
#include "tests/sweep/services.h"

#include <fcntl.h>
#include <unistd.h>

#include <map>
#include <optional>
#include <regex>
#include <sstream>

namespace sweep {

namespace {

constexpr int ENDED_BY_TIMEOUT = 124;
constexpr int ENDED_BY_KILL = 137;
constexpr int COMMAND_FAILED = 2;

std::function<void()> reboot_device;

// Scripts that run, by the number that stands in their pid file.
std::map<std::string, bool> script_killed;

int write_line(const std::string &path, const std::string &line) {
    return fakes::write_all(path, line + "\n") == 0 ? 0 : COMMAND_FAILED;
}

// A line of a shell that writes a file, which is empty first.
int echo_into(const std::string &path, const std::string &line) {
    if (write_in_place(path, "") != 0)
        return COMMAND_FAILED;
    fakes::change("echo", path);
    return write_in_place(path, line + "\n") == 0 ? 0 : COMMAND_FAILED;
}

struct script {
    std::string job_id;
    std::string output_path;
    std::vector<std::string> lines;
};

script read_script(const std::string &path) {
    static const std::string OUTPUT = "exec > ";
    static const std::string ID = "export ACK_ID=\"";
    script parts;
    bool in_body = false;
    std::istringstream text(file_text(path));
    for (std::string line; std::getline(text, line);) {
        if (in_body && !line.empty())
            parts.lines.push_back(line);
        else if (line.rfind(OUTPUT, 0) == 0)
            parts.output_path = line.substr(OUTPUT.size());
        else if (line.rfind(ID, 0) == 0) {
            parts.job_id = line.substr(ID.size(), line.size() - ID.size() - 1);
            in_body = true;
        }
    }
    return parts;
}

// The status with which the script ends here, if it does.
std::optional<int> run_line(const std::string &line, const std::string &pid, time_t deadline) {
    std::istringstream words(line);
    std::string verb;
    unsigned number = 0;
    words >> verb >> number;
    if (verb == "exit")
        return static_cast<int>(number);
    if (verb == "reboot")
        reboot_device();
    for (unsigned second = 0; verb == "sleep" && second < number; second++) {
        if (fakes::now() >= deadline)
            return ENDED_BY_TIMEOUT;
        pause_thread(1);
        if (script_killed[pid])
            return ENDED_BY_KILL;
    }
    return std::nullopt;
}

int run_script(const std::string &path, time_t limit) {
    static int pids = 90'000;
    const script given = read_script(path);
    const std::string pid = std::to_string(++pids);
    write_ledger(entry_kind::SCRIPT, given.job_id, "started");
    fakes::write_all(given.output_path, "");
    write_line("/var/volatile/orv/" + given.job_id + ".pid", pid);
    std::optional<int> status;
    const time_t deadline = fakes::now() + limit;
    for (const std::string &line : given.lines) {
        fakes::change("script " + given.job_id, line);
        status = run_line(line, pid, deadline);
        if (status)
            break;
    }
    write_ledger(entry_kind::SCRIPT, given.job_id, status == ENDED_BY_KILL ? "killed" : "ended");
    return status.value_or(0);
}

int count_names(const std::string &folder, const std::string &target) {
    const auto names = exists(folder) ? names_in(folder) : std::vector<std::string>();
    return write_line(target, std::to_string(names.size()));
}

int link_to(const std::string &target, const std::string &link) {
    return symlinkat(target.c_str(), AT_FDCWD, link.c_str()) == 0 ? 0 : 1;
}

int kill_script(const std::string &pid) {
    const auto found = script_killed.find(pid);
    if (found != script_killed.end())
        found->second = true;
    else
        script_killed[pid] = true;
    return 0;
}

struct known_command {
    std::regex form;
    int (*run)(const std::smatch &parts);
};

const std::vector<known_command> &known_commands() {
    static const std::vector<known_command> ALL = {
        {std::regex("(?:/bin/)?echo '?([^']*?)'? > ([^ ]+)"),
         [](const std::smatch &parts) { return echo_into(parts[2], parts[1]); }},
        {std::regex("timeout ([0-9]+) /bin/sh ([^ ]+)"),
         [](const std::smatch &parts) { return run_script(parts[2], std::stol(parts[1])); }},
        {std::regex("/bin/sh ([^ ]+)"),
         [](const std::smatch &parts) { return run_script(parts[1], 1'000'000); }},
        {std::regex("/bin/ln -s ([^ ]+) ([^ ]+)"),
         [](const std::smatch &parts) { return link_to(parts[1], parts[2]); }},
        {std::regex("/bin/kill -9 ([0-9]+)"), [](const std::smatch &parts) { return kill_script(parts[1]); }},
        {std::regex("/sbin/reboot -f"),
         [](const std::smatch &) {
             reboot_device();
             return 0;
         }},
    };
    return ALL;
}

// The agent's counting of its jobs, by far the most frequent one.
bool run_count(const std::string &command, int &status) {
    static const std::string LIST = "/bin/ls ";
    static const std::string COUNT = " | /usr/bin/wc -l > ";
    const size_t count = command.find(COUNT);
    if (command.rfind(LIST, 0) != 0 || count == std::string::npos)
        return false;
    status =
        count_names(command.substr(LIST.size(), count - LIST.size()), command.substr(count + COUNT.size()));
    return true;
}

bool run_command(const std::string &command, int &status) {
    if (run_count(command, status))
        return true;
    if (run_firmware_command(command, status))
        return true;
    if (run_service_command(command)) {
        status = 0;
        return true;
    }
    for (const known_command &known : known_commands()) {
        std::smatch parts;
        if (!std::regex_match(command, parts, known.form))
            continue;
        status = known.run(parts);
        return true;
    }
    return false;
}

} // namespace

void prepare_commands() {
    known_commands();
}

void install_commands(std::function<void()> reboot) {
    reboot_device = std::move(reboot);
    fakes::device().run_command = run_command;
}

} // namespace sweep
