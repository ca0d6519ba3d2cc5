#include "bench/bare_pass.h"

#include <json/json.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

std::string scanned;

int older_last(const dirent **a, const dirent **b) {
    struct stat a_info = {};
    struct stat b_info = {};
    char path[256];
    if (snprintf(path, sizeof path, "%s/%s", scanned.c_str(), (*a)->d_name) < 0 || stat(path, &a_info) != 0)
        return 0;
    if (snprintf(path, sizeof path, "%s/%s", scanned.c_str(), (*b)->d_name) < 0 || stat(path, &b_info) != 0)
        return 0;
    return a_info.st_mtime < b_info.st_mtime ? 1 : 0;
}

bool read_job(const std::string &path, Json::Value &job) {
    FILE *file = fopen(path.c_str(), "r");
    if (!file)
        return false;
    char text[65536];
    const size_t length = fread(text, 1, sizeof text, file);
    fclose(file);
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    return reader->parse(text, text + length, &job, nullptr);
}

void look_at(const std::string &path, const char *name) {
    Json::Value checked;
    read_job(path, checked);
    Json::Value job;
    syslog(LOG_NOTICE, "processing job: %s", name);
    read_job(path, job);
    syslog(LOG_NOTICE, "job: %s status: %s", name, job["status"].asCString());
    Json::Value stored;
    syslog(LOG_NOTICE, "%s: %s %s post_status: %d", "update_job_status", name, job["status"].asCString(), 1);
    read_job(path, stored);
    syslog(LOG_NOTICE, "prev job status: %s current job status: %s", stored["status"].asCString(),
           job["status"].asCString());
}

} // namespace

int bare_pass(const char *directory) {
    scanned = directory;
    dirent **entries = nullptr;
    const int count = scandir(directory, &entries, nullptr, older_last);
    int jobs = 0;
    for (int i = count - 1; i >= 0; --i) {
        const std::string name = entries[i]->d_name;
        free(entries[i]);
        if (name == "." || name == "..")
            continue;
        look_at(scanned + name, name.c_str());
        ++jobs;
    }
    free(entries);
    return jobs;
}

int bare_write(const char *folder, const char *name, const char *text) {
    const std::string temporary = std::string("/var/data/.tmp/") + name;
    const std::string target = std::string(folder) + name;
    FILE *file = fopen(temporary.c_str(), "w");
    if (!file)
        return -1;
    fputs(text, file);
    fflush(file);
    fsync(fileno(file));
    fclose(file);
    if (rename(temporary.c_str(), target.c_str()) != 0)
        return -1;
    const int directory = open(folder, O_RDONLY | O_DIRECTORY);
    fsync(directory);
    close(directory);
    const int data = open("/var/data", O_RDONLY | O_DIRECTORY);
    syncfs(data);
    close(data);
    return 0;
}
