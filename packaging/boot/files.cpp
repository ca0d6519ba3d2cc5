#include "packaging/boot/files.h"

#include "config/config_files.h"
#include "jobs/job_store.h"
#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

#include <sys/stat.h>
#include <syslog.h>

namespace fs = std::filesystem;

void flush() {
    sync_to_fs(SYNC_PERSISTENT);
}

bool delete_those(std::initializer_list<const char *> paths) {
    bool any = false;
    for (const char *path : paths) {
        if (!file_exists(path))
            continue;
        any = true;
        if (delete_file(path) != 0)
            syslog(LOG_ERR, "%s cannot be deleted", path);
    }
    return any;
}

Json::Value object_in(const char *path) {
    Json::Value value;
    if (!is_regular_file(path) || read_json_file(path, value) != 0 || !value.isObject())
        return {};
    return value;
}

bool write_line(const std::string &path, const std::string &line) {
    const fs::path target(path);
    fs::path part = target.parent_path() / ".";
    part += target.filename();
    std::ofstream file(part, std::ios::trunc);
    file << line << '\n';
    file.close();
    flush(); // the text before the name
    return file && std::rename(part.c_str(), path.c_str()) == 0;
}

// A pipe would hold up whoever opens it.
bool is_regular_file(const std::string &path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

comparison compare_with_saved(const Json::Value &config) {
    const Json::Value saved = object_in(SAVED_CONFIG.config);
    if (!saved.isObject() || !config.isObject())
        return comparison::UNKNOWN;
    return config_hash(saved) == config_hash(config) ? comparison::SAME : comparison::OTHER;
}
