// The files that an execution finds, and the removal of what it leaves.
//
// The private file system is made once. Between two executions only what was made is removed and only what was changed
// is put back: no mount, no process, no folder.
#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <functional>
#include <string>
#include <unordered_set>
#include <vector>

namespace fuzz {

struct file_stamp {
    ino_t inode = 0;
    off_t size = 0;
    timespec changed = {};
};

class ground {
public:
    // Makes the folders. Whatever else is found in them later is removed, and must be known: by is_known, given its
    // path.
    ground(const std::vector<std::string> &folders, std::function<bool(const std::string &)> is_known);

    // Makes this file part of what every execution finds.
    void keep(const std::string &path, const std::string &text);

    // Removes what is not kept, and puts back what is. Broken when a file is not known, and when a folder was made.
    void restore();

    // The names of the files in one of the folders.
    std::vector<std::string> names_in(const std::string &path) const;

    // Removes all below one path, and puts nothing back: what a reboot does to a file system in RAM.
    void empty(const std::string &below);

private:
    struct kept_folder {
        std::string path; // with a slash at its end
        DIR *stream;
    };
    struct kept_file {
        std::string path;
        std::string text;
        file_stamp stamp;
    };

    void empty_folder(const kept_folder &folder, bool keeping) const;
    void put_back(kept_file &file) const;

    std::vector<kept_folder> folders_;
    std::vector<kept_file> files;
    std::unordered_set<std::string> kept; // the paths of both
    std::function<bool(const std::string &)> known;
};

} // namespace fuzz
