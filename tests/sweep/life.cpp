#include "tests/sweep/life.h"

#include "agent/start_up.h"
#include "tests/fakes/agent_test.h"
#include "tests/sweep/commands.h"
#include "tests/sweep/firmware.h"
#include "tests/sweep/ledger.h"
#include "tests/sweep/scheduler.h"
#include "tests/sweep/services.h"
#include "tests/sweep/world.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace sweep {

namespace {

// Long enough for a repeated report and its answer.
constexpr time_t QUIET_SECONDS = 45;
constexpr time_t LONGEST_LIFE = 4000;

constexpr unsigned STALL_SECONDS = 7; // two passes of the job manager

constexpr int EXIT_BASE = 100;

cut cut_here;
time_t born = 0;
time_t longest_life = 0;
time_t last_move = 0;

[[noreturn]] void end_life(ending how) {
    write_ledger(entry_kind::END, name_of(how));
    keep_time(fakes::now());
    _exit(EXIT_BASE + static_cast<int>(how));
}

void before_change(const fakes::call &change) {
    if (changes_so_far() + 1 == cut_here.before_change) {
        cut_here.before_change = 0;
        if (cut_here.kind != restart::STALL)
            end_life(ending::CUT);
        write_ledger(entry_kind::END, "held up before", change.function + " " + change.text);
        pause_thread(STALL_SECONDS);
    }
    write_ledger(entry_kind::CHANGE, change.function, change.text);
    if (!is_housekeeping(change.text))
        last_move = fakes::now();
}

void before_loop() {
    if (step_world())
        last_move = fakes::now();
    if (world_is_done() && fakes::now() - last_move > QUIET_SECONDS)
        end_life(ending::QUIET);
}

void end_when_too_old() {
    if (fakes::now() - born > longest_life)
        end_life(ending::RESTLESS);
}

int write_in_place(const std::string &path, const std::string &text) {
    if (fakes::write_all(path, "") != 0)
        return -1;
    fakes::change("write in place", path);
    return fakes::write_all(path, text);
}

[[noreturn]] void reboot(const std::string &function) {
    if (function == "switch_firmware_partition")
        switch_slot();
    end_life(ending::REBOOT);
}

[[noreturn]] void live(const scenario &given, const cut &where) {
    cut_here = where;
    longest_life = given.restless_for != 0 ? given.restless_for : LONGEST_LIFE;
    set_time(kept_time());
    born = last_move = fakes::now();
    write_ledger(entry_kind::BOOT, "life");
    follow_writes();
    enter_services();
    enter_firmware([] { end_life(ending::REBOOT); });
    if (given.each_life)
        given.each_life();
    if (given.writes_in_place)
        fakes::instead_of_replacing = write_in_place;
    fakes::device().on_reboot = reboot;
    install_commands([] { end_life(ending::REBOOT); });
    enter_world(given);
    fakes::before_change = before_change;
    fakes::mqtt().before_loop = before_loop;
    fakes::on_sleep = pause_thread;
    fakes::on_log = [](const std::string &text) { write_ledger(entry_kind::LOG, text); };
    start_scheduler([] { end_life(ending::DEADLOCK); }, end_when_too_old);
    run_agent();
    _exit(1);
}

} // namespace

bool is_housekeeping(const std::string &arguments) {
    return arguments.find(".active_job_count") != std::string::npos ||
           arguments.find("SYS_JOB_COUNT") != std::string::npos;
}

const char *name_of(ending how) {
    static constexpr const char *NAMES[] = {"quiet", "cut", "reboot", "restless", "deadlock", "died"};
    return NAMES[static_cast<int>(how)];
}

ending run_life(const scenario &given, const cut &where) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0)
        live(given, where);
    int status = 0;
    waitpid(child, &status, 0);
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) - EXIT_BASE : -1;
    if (code >= 0 && code < static_cast<int>(ending::DIED))
        return static_cast<ending>(code);
    write_ledger(entry_kind::END, "died", "wait status " + std::to_string(status));
    return ending::DIED;
}

} // namespace sweep
