#include "packaging/boot/leftovers.h"

#include "jobs/job_store.h"
#include "jobs/markers.h"
#include "packaging/boot/files.h"
#include "platform/vantrel.h"

#include <filesystem>
#include <string_view>
#include <vector>

#include <syslog.h>

namespace fs = std::filesystem;

namespace {

constexpr char SCRIPT_DIR[] = "/var/volatile/orv";

void clear(const char *path) {
    if (delete_those({path}))
        syslog(LOG_NOTICE, "%s of a killed agent is deleted", path);
}

// The shell of a script writes its number there and nothing else; a cut leaves an empty file.
bool is_process_id_of_script(const fs::path &path) {
    char text[VAR_FILE_SIZE] = "";
    std::error_code missing;
    if (path.extension() != ".pid" || fs::is_symlink(path, missing) || !is_regular_file(path) ||
        read_var_file(path.c_str(), text) != 0)
        return false;
    return std::string_view(text).find_first_not_of("0123456789") == std::string_view::npos;
}

} // namespace

void clear_leftovers() {
    clear(CRITICAL_JOB_MARKER);
    clear(FW_JOBID_FILE);
    std::error_code missing;
    std::vector<fs::path> found;
    for (const auto &entry : fs::directory_iterator(SCRIPT_DIR, missing))
        if (is_process_id_of_script(entry.path()))
            found.push_back(entry.path());
    for (const fs::path &path : found)
        clear(path.c_str());
}
