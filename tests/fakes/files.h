// Files of the private file system, as tests write and read them.
#pragma once

#include "tests/fakes/private_root.h"

#include <json/json.h>

#include <ctime>
#include <functional>
#include <string>
#include <vector>

constexpr const char *ACTIVE_FOLDER = "/var/data/orv/vantrel_iot/jobs/active/";
constexpr const char *ARCHIVE_FOLDER = "/var/data/orv/vantrel_iot/jobs/archive/";

// Writes a file, with the folders above it, and gives it a modification time (default: the virtual
// time now).
void write_text(const std::string &path, const std::string &text);
void write_text(const std::string &path, const std::string &text, time_t modified);

// The whole content; throws std::runtime_error when it cannot be read.
std::string file_text(const std::string &path);

// The content as JSON, null when there is no such file or it is no JSON.
Json::Value file_json(const std::string &path);

bool exists(const std::string &path); // a link that points nowhere exists

// The names in a folder, sorted.
std::vector<std::string> names_in(const std::string &folder);

Json::Value json(const std::string &text); // throws std::runtime_error on a text that is no JSON

// Stores a job in the active job directory under its "jobId".
void given_active_job(const std::string &job_text);
void given_active_job(const std::string &job_text, time_t modified);

std::vector<std::string> active_jobs(); // the names in the active job directory, sorted
std::vector<std::string> archived_jobs();

// The stored record; null when there is none.
Json::Value active_job(const std::string &job_id);
Json::Value archived_job(const std::string &job_id);

namespace fakes {

// Writes the whole file in place with the virtual time as its stamp; 0 ok. Not in the journal.
int write_all(const std::string &path, const std::string &text);
int read_all(const std::string &path, std::string &text);

// As write_json_file and copy_file do it: whole or not at all. 0 ok. Not in the journal.
int replace_file(const std::string &path, const std::string &text);

// For the sweep. The way in which write_json_file and copy_file put a text in the place of a file (0
// ok), instead of the right one; what is to be done after a right one, and after sync_to_fs.
extern std::function<int(const std::string &path, const std::string &text)> instead_of_replacing;
extern std::function<void(const std::string &path)> after_replacing;
extern std::function<void()> after_sync;

// /var/data, /var/volatile, /run and /tmp as boot leaves them on a device never used.
void reset_files();

} // namespace fakes
