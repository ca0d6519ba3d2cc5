#include "tests/sweep/tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>

namespace sweep {

namespace {

[[noreturn]] void give_up(const std::string &path) {
    std::perror(path.c_str());
    std::abort();
}

bool lies_on(const std::string &path, dev_t device) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 && status.st_dev == device;
}

node::type type_of(const dirent &entry) {
    return entry.d_type == DT_DIR   ? node::type::FOLDER
           : entry.d_type == DT_LNK ? node::type::LINK
                                    : node::type::FILE;
}

// Calls take(path, type, place) for everything right below a folder of this device; a folder that another one is mounted on
// is left out.
template <class Taker> void list(const std::string &folder, dev_t device, Taker take) {
    DIR *directory = opendir(folder.c_str());
    if (directory == nullptr)
        return;
    size_t place = 0;
    while (const dirent *entry = readdir(directory)) {
        const std::string name = entry->d_name;
        const std::string path = folder + "/" + name;
        if (name != "." && name != ".." && (entry->d_type != DT_DIR || lies_on(path, device)))
            take(path, type_of(*entry), place++);
    }
    closedir(directory);
}

std::string target_of(const std::string &link) {
    char target[PATH_MAX];
    const ssize_t size = readlink(link.c_str(), target, sizeof target);
    return {target, size < 0 ? 0 : static_cast<size_t>(size)};
}

dev_t device_of(const std::string &folder) {
    struct stat status = {};
    if (stat(folder.c_str(), &status) != 0)
        give_up(folder);
    return status.st_dev;
}

void read_file(const std::string &path, node &found) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status = {};
    if (file < 0 || fstat(file, &status) != 0)
        give_up(path);
    found.modified = status.st_mtim;
    found.text.resize(static_cast<size_t>(status.st_size));
    if (read(file, found.text.data(), found.text.size()) != status.st_size)
        give_up(path);
    close(file);
}

void read_into(tree &all, const std::string &folder, dev_t device) {
    list(folder, device, [&](const std::string &path, node::type is, size_t place) {
        node &found = all[path];
        found.is = is;
        found.place = place;
        if (is == node::type::FOLDER)
            read_into(all, path, device);
        else if (is == node::type::LINK)
            found.text = target_of(path);
        else
            read_file(path, found);
    });
}

using children =
    std::map<std::string, std::vector<const tree::value_type *>>; // of each folder, but for its folders

children children_in(const tree &kept, const std::vector<std::string> &folders) {
    children all;
    for (const std::string &folder : folders)
        all[folder];
    for (const auto &each : kept) {
        if (each.second.is == node::type::FOLDER)
            all[each.first];
        else
            all[each.first.substr(0, each.first.rfind('/'))].push_back(&each);
    }
    for (auto &[folder, entries] : all)
        std::sort(entries.begin(), entries.end(), [](const auto *left, const auto *right) {
            return left->second.place < right->second.place;
        });
    return all;
}

// Whether a folder lists first what was made last.
bool lists_latest_first() {
    static const bool LATEST_FIRST = [] {
        const std::string folder = "/dev/shm/order";
        mkdir(folder.c_str(), 0755);
        std::vector<std::string> names;
        for (const char *name : {"/first", "/second"})
            close(open((folder + name).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
        list(folder, device_of(folder),
             [&](const std::string &path, node::type, size_t) { names.push_back(path); });
        return names.at(0) != folder + "/first";
    }();
    return LATEST_FIRST;
}

// A folder that cannot be removed is on the way to a mount.
void remove_folder(const std::string &folder, dev_t device) {
    list(folder, device, [&](const std::string &path, node::type is, size_t) {
        if (is == node::type::FOLDER)
            remove_folder(path, device);
        else
            unlinkat(AT_FDCWD, path.c_str(), 0);
    });
    unlinkat(AT_FDCWD, folder.c_str(), AT_REMOVEDIR);
}

void write_file(const std::string &path, const node &kept) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (file < 0 || write(file, kept.text.data(), kept.text.size()) != static_cast<ssize_t>(kept.text.size()))
        give_up(path);
    const timespec stamps[2] = {kept.modified, kept.modified};
    futimens(file, stamps);
    close(file);
}

void make(const std::string &path, const node &kept) {
    if (kept.is == node::type::FILE)
        write_file(path, kept);
    else if (symlinkat(kept.text.c_str(), AT_FDCWD, path.c_str()) != 0)
        give_up(path);
}

// Files that are listed as they shall be are written in place, else all of them are made anew.
void put_back_files(const std::string &folder, dev_t device, std::vector<const tree::value_type *> entries) {
    std::vector<std::string> found;
    bool may_stay = true;
    list(folder, device, [&](const std::string &path, node::type is, size_t) {
        if (is == node::type::FOLDER)
            return;
        may_stay &= is == node::type::FILE && found.size() < entries.size() &&
                    entries[found.size()]->first == path && entries[found.size()]->second.is == is;
        found.push_back(path);
    });
    may_stay &= found.size() == entries.size();
    if (!may_stay) {
        for (const std::string &path : found)
            unlinkat(AT_FDCWD, path.c_str(), 0);
        if (lists_latest_first())
            std::reverse(entries.begin(), entries.end());
    }
    for (const auto *each : entries)
        make(each->first, each->second);
}

void put_back_folder(const std::string &folder, dev_t device, const children &all) {
    list(folder, device, [&](const std::string &path, node::type is, size_t) {
        if (is == node::type::FOLDER && all.count(path) == 0)
            remove_folder(path, device);
    });
    put_back_files(folder, device, all.at(folder));
}

} // namespace

tree read_tree(const std::vector<std::string> &folders) {
    tree all;
    for (const std::string &folder : folders)
        read_into(all, folder, device_of(folder));
    return all;
}

void put_back(const tree &kept, const std::vector<std::string> &folders) {
    dev_t device = 0;
    const children all = children_in(kept, folders);
    for (const auto &[folder, entries] : all) {
        mkdir(folder.c_str(), 0755);
        if (std::find(folders.begin(), folders.end(), folder) != folders.end())
            device = device_of(folder);
        put_back_folder(folder, device, all);
    }
}

} // namespace sweep
