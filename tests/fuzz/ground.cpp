#include "tests/fuzz/ground.h"

#include "tests/fuzz/broken.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

namespace fuzz {
namespace {

// The fakes and the host's libraries put temporary files beside their targets, or in these folders.
constexpr char TEMPORARY[] = ".tmp/";

bool same(const file_stamp &one, const file_stamp &other) {
    return one.inode == other.inode && one.size == other.size && one.changed.tv_sec == other.changed.tv_sec &&
           one.changed.tv_nsec == other.changed.tv_nsec;
}

file_stamp stamp_of(const std::string &path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0)
        return {};
    return {status.st_ino, status.st_size, status.st_ctim};
}

void write_file(const std::string &path, const std::string &text) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (file < 0 || write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        broken("the ground cannot be laid: " + path + ": " + std::strerror(errno));
    close(file);
}

} // namespace

ground::ground(const std::vector<std::string> &folders, std::function<bool(const std::string &)> is_known)
    : known(std::move(is_known)) {
    for (const std::string &path : folders) {
        std::filesystem::create_directories(path);
        DIR *stream = opendir(path.c_str());
        if (stream == nullptr)
            broken("no folder " + path);
        folders_.push_back({path + "/", stream});
        kept.insert(path);
    }
}

void ground::keep(const std::string &path, const std::string &text) {
    files.push_back({path, text, {}});
    kept.insert(path);
}

void ground::empty_folder(const kept_folder &folder, bool keeping) const {
    rewinddir(folder.stream);
    while (const dirent *entry = readdir(folder.stream)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..")
            continue;
        const std::string path = folder.path + name;
        if (entry->d_type == DT_DIR) {
            if (!kept.contains(path))
                broken("a folder was made: " + path);
            continue;
        }
        if (keeping && kept.contains(path))
            continue;
        if (folder.path.ends_with(TEMPORARY))
            broken("a temporary file was left: " + path);
        if (!known(path))
            broken("a file was made that is none of the agent's: " + path);
        unlinkat(dirfd(folder.stream), name.c_str(), 0);
    }
}

std::vector<std::string> ground::names_in(const std::string &path) const {
    const auto folder = std::find_if(folders_.begin(), folders_.end(),
                                     [&](const kept_folder &one) { return one.path == path + "/"; });
    std::vector<std::string> names;
    rewinddir(folder->stream);
    while (const dirent *entry = readdir(folder->stream))
        if (entry->d_type != DT_DIR)
            names.emplace_back(entry->d_name);
    return names;
}

void ground::put_back(kept_file &file) const {
    if (file.stamp.inode != 0 && same(stamp_of(file.path), file.stamp))
        return;
    unlink(file.path.c_str());
    write_file(file.path, file.text);
    file.stamp = stamp_of(file.path);
}

void ground::restore() {
    for (const kept_folder &folder : folders_)
        empty_folder(folder, true);
    for (kept_file &file : files)
        put_back(file);
}

void ground::empty(const std::string &below) {
    for (const kept_folder &folder : folders_)
        if (folder.path.starts_with(below))
            empty_folder(folder, false);
}

} // namespace fuzz
