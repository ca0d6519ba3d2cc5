#include "tests/fakes/device.h"

#include "platform/vantrel.h"
#include "tests/fakes/calls.h"
#include "tests/fakes/clock.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <utility>

namespace {

struct command_answer {
    std::string containing;
    std::function<int(const std::string &)> action;
};

fakes::device_state state_now;
std::vector<command_answer> command_answers;
std::vector<std::string> run_commands;
std::vector<std::string> rebooted;

std::function<int(const std::string &)> answer_for(const std::string &command) {
    const auto held = fakes::hold();
    for (const auto &answer : command_answers)
        if (command.find(answer.containing) != std::string::npos)
            return answer.action;
    return nullptr;
}

int run(const char *function, const std::string &command) {
    fakes::change(function, command);
    {
        const auto held = fakes::hold();
        run_commands.push_back(command);
        if (const auto answer = fakes::set_answer(function, command))
            return *answer;
    }
    if (const auto action = answer_for(command))
        return action(command);
    int status = 0;
    if (state_now.run_command && state_now.run_command(command, status))
        return status;
    return fakes::run_shell(command);
}

void reboot(const char *function, fakes::reboot_mode mode) {
    fakes::change(function, "");
    {
        const auto held = fakes::hold();
        rebooted.emplace_back(function);
    }
    if (state_now.on_reboot)
        state_now.on_reboot(function);
    if (mode == fakes::reboot_mode::THROWS)
        throw fake_reboot{function};
    if (mode == fakes::reboot_mode::EXITS)
        _exit(fakes::REBOOT_EXIT);
}

} // namespace

namespace fakes {

device_state &device() {
    return state_now;
}

void reset_device() {
    const auto held = hold();
    state_now = {};
    command_answers.clear();
    run_commands.clear();
    rebooted.clear();
}

} // namespace fakes

void answer_command(const std::string &containing, int status) {
    answer_command(containing, [status](const std::string &) { return status; });
}

void answer_command(const std::string &containing, std::function<int(const std::string &)> action) {
    const auto held = fakes::hold();
    command_answers.insert(command_answers.begin(), {containing, std::move(action)});
}

std::vector<std::string> commands() {
    const auto held = fakes::hold();
    return run_commands;
}

std::vector<std::string> reboots() {
    const auto held = fakes::hold();
    return rebooted;
}

// --- commands

int orvsys(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int size = vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::string command(size < 0 ? 0 : static_cast<size_t>(size), '\0');
    vsnprintf(command.data(), command.size() + 1, format, again);
    va_end(again);
    return run("orvsys", command);
}

extern "C" int system(const char *command) {
    const int status = run("system", command);
    return status < 0 ? -1 : (status & 0xff) << 8;
}

// --- network, clock, type

int ping_test(int count, const char *host) {
    const auto held = fakes::hold();
    const std::string text = std::to_string(count) + " " + host;
    fakes::record(fakes::call_kind::QUERY, "ping_test", text);
    return fakes::set_answer("ping_test", text).value_or(state_now.ping_result);
}

std::string get_iot_url_sim1_or_sim2_from_config(const Json::Value &) {
    const auto held = fakes::hold();
    return state_now.cloud_host;
}

time_t fwtime_s(time_t deadline) {
    fakes::record(fakes::call_kind::QUERY, "fwtime_s", std::to_string(deadline));
    return fakes::now();
}

int get_vantrel_dev_type_as_enum() {
    const auto held = fakes::hold();
    return state_now.device_type;
}

// --- reboots and services

int switch_firmware_partition() {
    if (const auto answer = fakes::set_answer("switch_firmware_partition", "")) {
        fakes::change("switch_firmware_partition", "");
        return *answer;
    }
    reboot("switch_firmware_partition", state_now.partition_switch);
    return 0;
}

void request_reboot_blocking() {
    reboot("request_reboot_blocking", state_now.reboots);
}

void stop_watchdog_and_force_hw_reboot_blocking() {
    reboot("stop_watchdog_and_force_hw_reboot_blocking", state_now.reboots);
}

int execute_systemctl_reload(const char *unit) {
    fakes::change("execute_systemctl_reload", unit);
    if (const auto answer = fakes::set_answer("execute_systemctl_reload", unit))
        return *answer;
    if (state_now.on_reload)
        state_now.on_reload(unit);
    return 0;
}
