#include "host/vantrel/process.h"
#include "host/vantrel/retry.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

extern "C" { // glibc 2.36 forgets to say so itself
#include <sys/pidfd.h>
}

namespace {

constexpr std::chrono::milliseconds NO_LIMIT{-1};

// execve(2): a single argument holds at most 32 pages, its zero included.
constexpr size_t LONGEST_ARGUMENT = 32 * 4096 - 1;

// What a child gets beside its arguments.
class child_setup {
public:
    child_setup() {
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attributes);
        sigset_t defaults;
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGPIPE);
        sigaddset(&defaults, SIGCHLD);
        posix_spawnattr_setsigdefault(&attributes, &defaults);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    }
    ~child_setup() {
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
    }
    child_setup(const child_setup &) = delete;
    child_setup &operator=(const child_setup &) = delete;

    void silence() {
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    }
    void give(int fd, int as) { posix_spawn_file_actions_adddup2(&actions, fd, as); }
    void close_from(int fd) { posix_spawn_file_actions_addclosefrom_np(&actions, fd); }

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
};

// A process that was started with SIGCHLD ignored never learns how its children end (waitpid(2),
// ECHILD); the exit statuses are this library's to deliver, so it takes the default back.
void make_sure_children_can_be_waited_for() {
    struct sigaction action {};
    sigaction(SIGCHLD, nullptr, &action);
    if (action.sa_handler != SIG_IGN && (action.sa_flags & SA_NOCLDWAIT) == 0)
        return;
    if (action.sa_handler == SIG_IGN)
        action.sa_handler = SIG_DFL;
    action.sa_flags &= ~SA_NOCLDWAIT;
    sigaction(SIGCHLD, &action, nullptr);
}

// True when the child ended within the limit.
bool ends_within(pid_t child, std::chrono::milliseconds limit) {
    const int fd = pidfd_open(child, 0);
    if (fd < 0) {
        syslog(LOG_ERR, "a child cannot be waited for, and is ended: %m");
        return false;
    }
    using clock = std::chrono::steady_clock;
    const clock::time_point deadline = clock::now() + limit;
    pollfd event{fd, POLLIN, 0};
    const int ready = retried([&] {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - clock::now());
        return poll(&event, 1, static_cast<int>(std::max<std::chrono::milliseconds::rep>(0, left.count())));
    });
    close(fd);
    return ready > 0;
}

int exit_status_of(pid_t child) {
    int status = 0;
    if (retried([&] { return waitpid(child, &status, 0); }) < 0)
        return -1;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

int run(const std::vector<std::string> &arguments, const child_setup &setup,
        std::chrono::milliseconds limit) {
    std::vector<char *> argv;
    for (const std::string &argument : arguments)
        argv.push_back(const_cast<char *>(argument.c_str()));
    argv.push_back(nullptr);
    make_sure_children_can_be_waited_for();
    pid_t child = 0;
    if (posix_spawnp(&child, argv[0], &setup.actions, &setup.attributes, argv.data(), environ) != 0)
        return -1;
    if (limit != NO_LIMIT && !ends_within(child, limit))
        kill(child, SIGKILL);
    return exit_status_of(child);
}

bool write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = retried([&] { return write(fd, text.data(), text.size()); });
        if (written <= 0)
            return false;
        text.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

// A text that is too long for an argument is handed to the shell as a script in memory.
int run_shell_script(const std::string &text) {
    constexpr int SCRIPT_FD = 3;
    const int fd = memfd_create("command", MFD_CLOEXEC);
    if (fd < 0)
        return -1;
    int status = -1;
    if (write_all(fd, text)) {
        child_setup setup;
        setup.give(fd, SCRIPT_FD);
        setup.close_from(SCRIPT_FD + 1);
        status = run({"/bin/sh", "/proc/self/fd/" + std::to_string(SCRIPT_FD)}, setup, NO_LIMIT);
    }
    close(fd);
    return status;
}

} // namespace

int run_shell(const std::string &text) {
    if (text.size() > LONGEST_ARGUMENT)
        return run_shell_script(text);
    child_setup setup;
    setup.close_from(STDERR_FILENO + 1);
    return run({"/bin/sh", "-c", text}, setup, NO_LIMIT);
}

int run_program(const std::vector<std::string> &arguments) {
    child_setup setup;
    setup.close_from(STDERR_FILENO + 1);
    return run(arguments, setup, NO_LIMIT);
}

int run_program_silently(const std::vector<std::string> &arguments, std::chrono::milliseconds limit) {
    child_setup setup;
    setup.silence();
    setup.close_from(STDERR_FILENO + 1);
    return run(arguments, setup, limit);
}
