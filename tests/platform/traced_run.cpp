#include "tests/platform/traced_run.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

// <linux/ptrace.h> and <sys/ptrace.h> cannot both be included; glibc has its own name for the former's
// struct ptrace_syscall_info.
using call_info = __ptrace_syscall_info;

namespace {

class traced_child {
public:
    explicit traced_child(const std::function<void()> &body) : pid(fork()) {
        if (pid < 0)
            throw std::system_error(errno, std::generic_category(), "fork");
        if (pid == 0)
            run(body);
        wait();
        // At the child's own SIGSTOP.
        if (ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL) != 0)
            throw std::system_error(errno, std::generic_category(), "PTRACE_SETOPTIONS");
    }
    ~traced_child() {
        if (!ended) {
            kill(pid, SIGKILL);
            wait();
        }
    }
    traced_child(const traced_child &) = delete;
    traced_child &operator=(const traced_child &) = delete;

    // Runs to the next stop at a system call; empty when the child has ended.
    std::optional<call_info> next_stop() {
        constexpr int SYSCALL_STOP = SIGTRAP | 0x80;
        int signal = 0;
        for (;;) {
            if (ptrace(PTRACE_SYSCALL, pid, nullptr, signal) != 0)
                throw std::system_error(errno, std::generic_category(), "PTRACE_SYSCALL");
            wait();
            if (ended)
                return std::nullopt;
            if (WSTOPSIG(status) == SYSCALL_STOP)
                return info();
            signal = WSTOPSIG(status);
        }
    }

    std::string memory(uint64_t address, size_t size) const {
        std::string bytes(size, '\0');
        const iovec here{bytes.data(), size};
        const iovec there{reinterpret_cast<void *>(address), size};
        const ssize_t got = process_vm_readv(pid, &here, 1, &there, 1, 0);
        bytes.resize(static_cast<size_t>(std::max<ssize_t>(0, got)));
        return bytes;
    }

    // A zero-terminated text, read page by page: the next one may not be mapped.
    std::string text(uint64_t address) const {
        constexpr uint64_t PAGE = 4096;
        std::string result;
        while (result.find('\0') == std::string::npos) {
            const std::string piece = memory(address, PAGE - address % PAGE);
            if (piece.empty())
                break;
            result += piece;
            address += piece.size();
        }
        return result.substr(0, result.find('\0'));
    }

private:
    [[noreturn]] static void run(const std::function<void()> &body) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        body();
        _exit(0);
    }

    void wait() {
        if (waitpid(pid, &status, 0) != pid)
            throw std::system_error(errno, std::generic_category(), "waitpid");
        ended = !WIFSTOPPED(status);
    }

    call_info info() const {
        call_info result{};
        if (ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof(result), &result) <= 0)
            throw std::system_error(errno, std::generic_category(), "PTRACE_GET_SYSCALL_INFO");
        return result;
    }

    pid_t pid;
    int status = 0;
    bool ended = false;
};

// What the arguments point at, read at the entry: a rename takes its old name away.
void read_arguments(const traced_child &child, traced_call &call) {
    const uint64_t *arguments = call.arguments;
    switch (call.number) {
    case SYS_openat:
    case SYS_unlinkat:
    case SYS_mkdirat:
        call.path = child.text(arguments[1]);
        break;
#ifdef SYS_open
    case SYS_rename:
        call.path = child.text(arguments[0]);
        call.new_path = child.text(arguments[1]);
        break;
    case SYS_open:
    case SYS_unlink:
    case SYS_mkdir:
        call.path = child.text(arguments[0]);
        break;
#endif
    case SYS_renameat:
    case SYS_renameat2:
        call.path = child.text(arguments[1]);
        call.new_path = child.text(arguments[3]);
        break;
    case SYS_write:
        call.bytes = child.memory(arguments[1], arguments[2]);
        break;
    case SYS_writev:
        for (uint64_t i = 0; i < arguments[2]; ++i) {
            iovec piece{};
            const std::string raw = child.memory(arguments[1] + i * sizeof(piece), sizeof(piece));
            std::copy(raw.begin(), raw.end(), reinterpret_cast<char *>(&piece));
            call.bytes += child.memory(reinterpret_cast<uint64_t>(piece.iov_base), piece.iov_len);
        }
        break;
    default:
        break;
    }
}

} // namespace

std::vector<traced_call> calls_of(const std::function<void()> &body) {
    traced_child child(body);
    std::vector<traced_call> calls;
    traced_call call;
    while (const auto stop = child.next_stop()) {
        if (stop->op == PTRACE_SYSCALL_INFO_ENTRY) {
            call = traced_call{};
            call.number = stop->entry.nr;
            std::copy(std::begin(stop->entry.args), std::end(stop->entry.args), call.arguments);
            read_arguments(child, call);
        } else if (stop->op == PTRACE_SYSCALL_INFO_EXIT) {
            call.result = stop->exit.rval;
            calls.push_back(call);
        }
    }
    return calls;
}

bool killed_at(unsigned stop, const std::function<void()> &body) {
    traced_child child(body);
    for (unsigned i = 0; i <= stop; ++i)
        if (!child.next_stop())
            return false;
    return true;
}
