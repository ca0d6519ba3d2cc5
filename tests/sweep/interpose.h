// The calls of the agent that are caught by the linker's --wrap, as far as others have to know.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace sweep {

// Files that the agent has open for writing.
struct open_file {
    FILE *file;
    std::string path;
    off_t offset;
};

std::vector<open_file> written_files();

// Goes on with them where they stood, in the files that now bear their names.
void reopen(const std::vector<open_file> &files);

// Called before each read of a file in the active job directory.
extern std::function<void(const std::string &path)> before_job_file_is_read;

} // namespace sweep
