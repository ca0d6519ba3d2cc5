#include "tests/fakes/files.h"

#include "tests/fakes/clock.h"

#include <sys/stat.h>

#include <fcntl.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <stdexcept>

namespace fs = std::filesystem;

void write_text(const std::string &path, const std::string &text) {
    write_text(path, text, fakes::now());
}

void write_text(const std::string &path, const std::string &text, time_t modified) {
    fs::create_directories(fs::path(path).parent_path());
    if (fakes::write_all(path, text) != 0)
        throw std::runtime_error("cannot write " + path);
    const timespec stamps[2] = {{modified, 0}, {modified, 0}};
    utimensat(AT_FDCWD, path.c_str(), stamps, 0);
}

std::string file_text(const std::string &path) {
    std::string text;
    if (fakes::read_all(path, text) != 0)
        throw std::runtime_error("cannot read " + path);
    return text;
}

Json::Value file_json(const std::string &path) {
    std::string text;
    if (fakes::read_all(path, text) != 0)
        return {};
    try {
        return json(text);
    } catch (const std::runtime_error &) {
        return {};
    }
}

bool exists(const std::string &path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
}

std::vector<std::string> names_in(const std::string &folder) {
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(folder))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

Json::Value json(const std::string &text) {
    static const Json::CharReaderBuilder builder = [] {
        Json::CharReaderBuilder whole;
        whole["failIfExtra"] = true;
        return whole;
    }();
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    std::string error;
    if (!reader->parse(text.data(), text.data() + text.size(), &value, &error))
        throw std::runtime_error("no JSON: " + text + "\n" + error);
    return value;
}

void given_active_job(const std::string &job_text) {
    given_active_job(job_text, fakes::now());
}

void given_active_job(const std::string &job_text, time_t modified) {
    write_text(ACTIVE_FOLDER + json(job_text)["jobId"].asString(), job_text, modified);
}

std::vector<std::string> active_jobs() {
    return names_in(ACTIVE_FOLDER);
}
std::vector<std::string> archived_jobs() {
    return names_in(ARCHIVE_FOLDER);
}
Json::Value active_job(const std::string &job_id) {
    return file_json(ACTIVE_FOLDER + job_id);
}
Json::Value archived_job(const std::string &job_id) {
    return file_json(ARCHIVE_FOLDER + job_id);
}

void fakes::reset_files() {
    limit_var_data(VAR_DATA_SIZE);
    for (const char *path : {"/var/data", "/var/volatile", "/run", "/tmp"})
        empty_directory(path);
    make_boot_directories();
}
