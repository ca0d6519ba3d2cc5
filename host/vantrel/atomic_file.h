// Replacing a file whole or not at all.
//
// The new content is written to a temporary file on the target's file system, flushed, and renamed
// over the target; then the target's folder is flushed. A reader, and a restart after a power cut at
// any moment, sees the old file or the new one. Sources: rename(2) ("an existing newpath is atomically
// replaced"), fsync(2) ("does not necessarily ensure that the entry in the directory has also reached
// disk").
//
// The temporary file stands in a folder named .tmp, made when missing: /var/data/.tmp,
// /var/volatile/.tmp, /run/.tmp or /tmp/.tmp for targets below these, else .tmp in the target's own
// folder. Its name begins with the writer's process id: what a killed writer left behind is removed by
// the first write of the next process.
#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>

class file_replacement {
public:
    // A link at path is followed. new_mode is the mode of the new file, reduced by the umask; a file
    // that is there keeps its own mode.
    file_replacement(const std::string &path, mode_t new_mode);
    // Removes the temporary file unless it was committed.
    ~file_replacement();
    file_replacement(const file_replacement &) = delete;
    file_replacement &operator=(const file_replacement &) = delete;

    bool write(std::string_view bytes);

    // False: the old file is still there (or, when only the last flush failed, the new one, whole).
    bool commit();

private:
    bool open_temporary(mode_t mode);
    void keep_mode_of_target() const;

    std::string target;
    std::string temporary;
    int fd = -1;
    bool failed = false;
};

// The whole content at once; 0 ok. Never throws.
int replace_file(const std::string &path, std::string_view content) noexcept;
