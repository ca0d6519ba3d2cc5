#include "jobs/job_store.h"

#include "jobs/job_record.h"
#include "jobs/markers.h"
#include "platform/vantrel.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ranges>
#include <sstream>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>
#include <syslog.h>

std::mutex job_manager_mutex;
std::mutex job_record_mutex;
std::mutex job_file_mutex;

namespace {

struct dated_name {
    time_t modified;
    std::string name;
};

bool stat_active(const char *name, struct stat &info) {
    char path[256];
    // the directory ends in a slash: the double one is harmless
    if (snprintf(path, sizeof path, "%s/%s", ACTIVE_JOB_DIR, name) < 0)
        return false;
    return stat(path, &info) == 0;
}

// scandir's order: 1 when a is older than b, so that the newest comes first.
int compare_job_mtime(const dirent **a, const dirent **b) {
    struct stat a_info = {};
    struct stat b_info = {};
    if (!stat_active((*a)->d_name, a_info) || !stat_active((*b)->d_name, b_info)) {
        perror("stat");
        return 0;
    }
    return a_info.st_mtime < b_info.st_mtime ? 1 : 0;
}

// A job file holds UTF-8: other bytes of an id are replaced in it, and it would bear another id than its name. A zero
// byte ends a name before the id does.
bool survives_storing(const std::string &id) {
    std::istringstream stored(Json::writeString(Json::StreamWriterBuilder(), id));
    Json::Value read;
    return id.find('\0') == id.npos &&
           Json::parseFromStream(Json::CharReaderBuilder(), stored, &read, nullptr) && read == id;
}

// scandir's result. size() is -1 when the directory cannot be read.
class job_dir_listing {
public:
    job_dir_listing() : count(scandir(ACTIVE_JOB_DIR, &entries, nullptr, compare_job_mtime)) {}
    ~job_dir_listing() {
        for (int i = 0; i < count; ++i)
            free(entries[i]);
        free(entries);
    }
    job_dir_listing(const job_dir_listing &) = delete;
    job_dir_listing &operator=(const job_dir_listing &) = delete;

    int size() const { return count; }
    const char *name(int i) const { return entries[i]->d_name; }

private:
    dirent **entries = nullptr;
    int count;
};

} // namespace

std::string active_job_path(const std::string &job_id) {
    return ACTIVE_JOB_DIR + job_id;
}

std::string job_id_of(const Json::Value &job) {
    return job.get(KEY_JOB_ID, "").asString();
}

bool has_usable_job_id(const Json::Value &job) {
    if (!job.isMember(KEY_JOB_ID))
        return false;
    const std::string id = job[KEY_JOB_ID].asString();
    return !id.empty() && id != "." && id.find('/') == id.npos && id.find("..") == id.npos &&
           survives_storing(id);
}

int write_job_file(const Json::Value &job) {
    const record_lock record(job_record_mutex);
    return write_job_file(job, record);
}

int write_job_file(const Json::Value &job, const record_lock &) {
    if (!job.isMember(KEY_JOB_ID))
        return -1;
    const std::string job_id = job[KEY_JOB_ID].asString();
    syslog(LOG_DEBUG, "write job file: %s", job_id.c_str());
    int result = -1;
    {
        const std::lock_guard lock(job_file_mutex);
        result = write_json_file(active_job_path(job_id).c_str(), job);
    }
    sync_to_fs(SYNC_PERSISTENT);
    return result;
}

bool job_file_exists(const Json::Value &job) {
    return job.isMember(KEY_JOB_ID) && file_exists(active_job_path(job_id_of(job)).c_str()) != 0;
}

int check_job_file(const std::string &job_id) try {
    const std::string path = active_job_path(job_id);
    if (!file_exists(path.c_str())) {
        syslog(LOG_ALERT, "job file %s not found", job_id.c_str());
        return -1;
    }
    Json::Value job;
    if (read_json_file(path.c_str(), job) != 0) {
        syslog(LOG_ALERT, "error reading job file %s", job_id.c_str());
        return -1;
    }
    if (!job.isMember(KEY_JOB_ID) || !job.isMember(KEY_STATUS)) {
        syslog(LOG_ALERT, "job %s missing required values jobId and status", job_id.c_str());
        return -1;
    }
    return 0;
} catch (...) {
    syslog(LOG_ALERT, "exeception reading job file %s", job_id.c_str()); // sic
    return -1;
}

void archive_job_file(const Json::Value &job) {
    const record_lock record(job_record_mutex);
    archive_job_file(job, record);
}

void archive_job_file(const Json::Value &job, const record_lock &) {
    if (!job.isMember(KEY_JOB_ID))
        return;
    const std::string job_id = job[KEY_JOB_ID].asString();
    syslog(LOG_NOTICE, "archiving job: %s", job_id.c_str());
    const std::string archived = ARCHIVE_JOB_DIR + job_id;
    delete_file(archived.c_str());
    rename(active_job_path(job_id).c_str(), archived.c_str());
    delete_file(FW_JOBID_FILE); // whichever job it names
}

int delete_job_file(const std::string &job_id) {
    const record_lock record(job_record_mutex);
    delete_file(active_job_path(job_id).c_str());
    if (is_fw_job(job_id))
        delete_file(FW_JOBID_FILE);
    return 0;
}

bool is_fw_job(const std::string &job_id) {
    char text[VAR_FILE_SIZE] = "";
    return read_var_file(FW_JOBID_FILE, text) == 0 && job_id == text;
}

int get_active_job_list(Json::Value &job_ids) {
    const job_dir_listing listing;
    if (listing.size() < 0) {
        perror("scandir");
        return -1;
    }

    std::vector<dated_name> jobs;
    for (int i = listing.size() - 1; i >= 0; --i) {
        const std::string name = listing.name(i);
        if (name == "." || name == "..")
            continue;
        struct stat info = {};
        stat_active(name.c_str(), info);
        jobs.push_back({info.st_mtime, name});
    }

    // A sort that takes scandir's two answers (older, not older) for an order of three may leave the list
    // wrong; here only "older" is asked.
    std::ranges::stable_sort(jobs, {}, &dated_name::modified);
    for (const dated_name &job : jobs)
        job_ids.append(job.name);
    return 0;
}

void set_active_job(const Json::Value &job) {
    const std::string path = active_job_path(job_id_of(job));
    orvsys("/bin/ln -s %s %s", path.c_str(), ACTIVE_JOB_LINK);
    copy_file(path.c_str(), ACTIVE_JOB_COPY);
}

int clear_active_job() {
    return delete_file(ACTIVE_JOB_LINK);
}
