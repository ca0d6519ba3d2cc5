#include "tests/fakes/device.h"

#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>

extern char **environ;

int fakes::run_shell(const std::string &command) {
    std::string text = command;
    char name[] = "sh";
    char option[] = "-c";
    char *arguments[] = {name, option, text.data(), nullptr};
    pid_t child = 0;
    if (posix_spawn(&child, "/bin/sh", nullptr, nullptr, arguments, environ) != 0)
        return -1;
    int status = 0;
    while (waitpid(child, &status, 0) < 0)
        if (errno != EINTR)
            return -1;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}
