#include "tests/platform/disk_model.h"

#include <fcntl.h>
#include <filesystem>
#include <map>
#include <optional>
#include <sys/syscall.h>

namespace {

constexpr const char *NO_FILE = "(none)";

struct file {
    std::string flushed;
    std::string written;

    std::set<std::string> after_cut() const {
        if (flushed == written)
            return {written};
        return {flushed, written.substr(0, written.size() / 2), written};
    }
};

using inode = size_t;
using names = std::map<std::string, inode>;

class disk {
public:
    disk(const std::string &path, const std::string &content) {
        files.push_back({content, content});
        current[path] = 0;
        history = {current};
    }

    void apply(const traced_call &call) {
        if (call.result < 0)
            return;
        const int fd = static_cast<int>(call.arguments[0]);
        switch (call.number) {
        case SYS_openat:
            opened(call.path, static_cast<int>(call.result), call.arguments[2]);
            break;
#ifdef SYS_open
        case SYS_open:
            opened(call.path, static_cast<int>(call.result), call.arguments[1]);
            break;
        case SYS_rename:
        case SYS_unlink:
#endif
        case SYS_renameat:
        case SYS_renameat2:
        case SYS_unlinkat:
            renamed(call.path, call.new_path);
            break;
        case SYS_write:
        case SYS_writev:
            if (open_files.count(fd) != 0)
                files[open_files[fd]].written += call.bytes.substr(0, static_cast<size_t>(call.result));
            break;
        case SYS_fsync:
            flushed(fd);
            break;
        case SYS_close:
            open_files.erase(fd);
            open_folders.erase(fd);
            break;
        default:
            break;
        }
    }

    // The names as each change since the last flush left them, each with its file in every condition.
    void add_states(const std::string &path, std::set<std::string> &states) const {
        for (const names &tree : history) {
            const auto entry = tree.find(path);
            if (entry == tree.end())
                states.insert(NO_FILE);
            else
                states.merge(files[entry->second].after_cut());
        }
    }

    std::string content(const std::string &path) const {
        const auto entry = current.find(path);
        return entry == current.end() ? NO_FILE : files[entry->second].written;
    }

private:
    void opened(const std::string &path, int fd, uint64_t flags) {
        const bool for_writing = (flags & O_ACCMODE) != O_RDONLY;
        if (!for_writing) {
            open_folders[fd] = path;
            return;
        }
        if (current.count(path) == 0) {
            files.emplace_back();
            current[path] = files.size() - 1;
            history.push_back(current);
        }
        open_files[fd] = current[path];
        if ((flags & O_TRUNC) != 0)
            files[current[path]].written.clear();
    }

    // An unlink is a rename to nowhere.
    void renamed(const std::string &from, const std::string &to) {
        const auto entry = current.find(from);
        if (entry == current.end())
            return;
        const inode moved = entry->second;
        current.erase(entry);
        if (!to.empty())
            current[to] = moved;
        history.push_back(current);
    }

    void flushed(int fd) {
        if (open_files.count(fd) != 0)
            files[open_files[fd]].flushed = files[open_files[fd]].written;
        if (open_folders.count(fd) != 0)
            flush_names(open_folders[fd]);
    }

    // A flush of another folder promises nothing for this one's names.
    void flush_names(const std::string &folder) {
        for (size_t last = history.size() - 1; last > 0; --last)
            if (changed_in(folder, history[last - 1], history[last])) {
                history.erase(history.begin(), history.begin() + static_cast<ptrdiff_t>(last));
                return;
            }
    }

    static bool changed_in(const std::string &folder, const names &before, const names &after) {
        const auto part = [&](const names &tree) {
            names inside;
            for (const auto &[path, number] : tree)
                if (std::filesystem::path(path).parent_path() == folder)
                    inside[path] = number;
            return inside;
        };
        return part(before) != part(after);
    }

    std::vector<file> files;
    names current;
    std::vector<names> history; // from what is flushed to what is current
    std::map<int, inode> open_files;
    std::map<int, std::string> open_folders;
};

} // namespace

cut_states states_after_cuts(const std::vector<traced_call> &calls, const std::string &path,
                             const std::string &old_content) {
    disk model(path, old_content);
    cut_states states;
    model.add_states(path, states.anywhere);
    for (const traced_call &call : calls) {
        model.apply(call);
        model.add_states(path, states.anywhere);
    }
    model.add_states(path, states.at_the_end);
    states.without_cut = model.content(path);
    return states;
}
