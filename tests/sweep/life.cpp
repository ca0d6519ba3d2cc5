#include "tests/sweep/life.h"

#include "agent/start_up.h"
#include "tests/fakes/agent_test.h"
#include "tests/sweep/commands.h"
#include "tests/sweep/firmware.h"
#include "tests/sweep/interpose.h"
#include "tests/sweep/ledger.h"
#include "tests/sweep/scheduler.h"
#include "tests/sweep/services.h"
#include "tests/sweep/world.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace sweep {

namespace {

// Long enough for a repeated report and its answer.
constexpr time_t QUIET_SECONDS = 45;
constexpr time_t LONGEST_LIFE = 4000;

constexpr unsigned STALL_SECONDS = 7; // two passes of the job manager

constexpr int EXIT_BASE = 100;

// Between a life that has stopped and the process that started it.
struct control {
    bool branch = false; // what to do next
    int branch_status = 0;
    bool at_place = false;
    char before[512] = "";
};

control &talk() {
    static control *const SHARED = [] {
        void *memory =
            mmap(nullptr, sizeof(control), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            std::abort();
        return new (memory) control;
    }();
    return *SHARED;
}

cut cut_here;
stops stop_here;
time_t born = 0;
time_t longest_life = 0;
time_t last_move = 0;
bool replaced_since_change = false;

[[noreturn]] void end_life(ending how) {
    write_ledger(entry_kind::END, name_of(how));
    keep_time(fakes::now());
    _exit(EXIT_BASE + static_cast<int>(how));
}

// True in a copy of this life, which is not stopped again.
bool stop(const std::string &before, bool at_place) {
    const auto files = written_files();
    keep_time(fakes::now());
    for (;;) {
        talk().at_place = at_place;
        std::snprintf(talk().before, sizeof talk().before, "%s", before.c_str());
        kill(getpid(), SIGSTOP);
        reopen(files); // as they were put back meanwhile
        if (!talk().branch)
            return false;
        const pid_t copy = fork();
        if (copy == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            stop_here = {};
            return true;
        }
        waitpid(copy, &talk().branch_status, 0);
    }
}

bool stops_before(long change) {
    return stop_here.first != 0 && stop_here.first <= change && change <= stop_here.last;
}

void hold_up(const std::string &before) {
    write_ledger(entry_kind::END, "held up before", before);
    pause_thread(STALL_SECONDS);
}

void before_change(const fakes::call &change) {
    const std::string text = change.function + (change.text.empty() ? "" : " " + change.text);
    const long number = changes_so_far() + 1;
    if (number == cut_here.before_change) {
        cut_here.before_change = 0;
        if (cut_here.kind != restart::STALL)
            end_life(ending::CUT);
        hold_up(text);
    } else if (stops_before(number) && stop(text, false)) {
        hold_up(text);
    }
    write_ledger(entry_kind::CHANGE, change.function, change.text);
    replaced_since_change = false;
    if (!is_housekeeping(change.text))
        last_move = fakes::now();
}

// Changes of which the last one has been seen are not worth a look at what comes between them.
bool stops_at_place() {
    return stop_here.at_places && stops_before(changes_so_far() + 1);
}

void at_place(const std::string &what) {
    count_place();
    if (stops_at_place() && stop(what, true))
        hold_up(what);
}

bool other_order() {
    count_place();
    return stops_at_place() && stop("tie", true);
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

// A call that replaces two files may be cut between them.
int replace(const std::string &path, const std::string &text) {
    if (replaced_since_change)
        fakes::change("and replaces", path);
    replaced_since_change = true;
    fakes::instead_of_replacing = nullptr;
    const int result = fakes::replace_file(path, text);
    fakes::instead_of_replacing = replace;
    return result;
}

int replace_in_place(const std::string &path, const std::string &text) {
    if (write_in_place(path, "") != 0)
        return -1;
    fakes::change("write in place", path);
    return write_in_place(path, text);
}

[[noreturn]] void reboot(const std::string &function) {
    if (function == "switch_firmware_partition")
        switch_slot();
    end_life(ending::REBOOT);
}

[[noreturn]] void live(const scenario &given, const cut &where, const stops &at) {
    cut_here = where;
    stop_here = at;
    longest_life = given.restless_for != 0 ? given.restless_for : LONGEST_LIFE;
    set_time(kept_time());
    born = last_move = fakes::now();
    write_ledger(entry_kind::BOOT, "life");
    follow_writes();
    enter_services();
    enter_firmware([] { end_life(ending::REBOOT); });
    if (given.each_life)
        given.each_life();
    fakes::instead_of_replacing = given.writes_in_place ? replace_in_place : replace;
    fakes::device().on_reboot = reboot;
    install_commands([] { end_life(ending::REBOOT); });
    enter_world(given);
    fakes::before_change = before_change;
    fakes::mqtt().before_loop = before_loop;
    fakes::on_sleep = pause_thread;
    fakes::on_log = [](const std::string &text) { write_ledger(entry_kind::LOG, text); };
    before_job_file_is_read = [](const std::string &path) { at_place("read " + path); };
    start_scheduler({.deadlocked = [] { end_life(ending::DEADLOCK); },
                     .switched = end_when_too_old,
                     .at_lock = [] { at_place("lock"); },
                     .other_order = other_order});
    run_agent();
    _exit(1);
}

ending ending_of(int status) {
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) - EXIT_BASE : -1;
    if (code >= 0 && code < static_cast<int>(ending::DIED))
        return static_cast<ending>(code);
    write_ledger(entry_kind::END, "died", "wait status " + std::to_string(status));
    return ending::DIED;
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

life::~life() {
    if (process == 0)
        return;
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
}

void life::begin() {
    talk().branch = false;
    std::fflush(nullptr);
    process = fork();
    if (process != 0)
        return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    live(given, cut_here, stops_at);
}

std::optional<ending> life::go_on() {
    if (process == 0) {
        begin();
    } else {
        talk().branch = false;
        kill(process, SIGCONT);
    }
    int status = 0;
    waitpid(process, &status, WUNTRACED);
    if (WIFSTOPPED(status))
        return std::nullopt;
    process = 0;
    return ending_of(status);
}

std::string life::stopped_before() const {
    return talk().before;
}

bool life::stopped_at_place() const {
    return talk().at_place;
}

ending life::branch() {
    talk().branch = true;
    kill(process, SIGCONT);
    int status = 0;
    waitpid(process, &status, WUNTRACED);
    return ending_of(talk().branch_status);
}

} // namespace sweep
