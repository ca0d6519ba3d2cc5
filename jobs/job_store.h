// The job files: the only durable state of a job. The two threads hand each other no job in memory, they
// read and rewrite its file, whole; the last writer wins. Between an answer's or a status's look at a file and the
// change that follows from it the other thread changes nothing.
#pragma once

#include <json/json.h>

#include <mutex>
#include <string>

inline constexpr char ACTIVE_JOB_DIR[] = "/var/data/orv/vantrel_iot/jobs/active/";
inline constexpr char ARCHIVE_JOB_DIR[] = "/var/data/orv/vantrel_iot/jobs/archive/";
inline constexpr char ACTIVE_JOB_LINK[] = "/var/run/ACTIVE_JOB"; // to the configuration job being applied
inline constexpr char ACTIVE_JOB_COPY[] = "/var/data/orv/ACTIVE_JOB"; // its copy, read after a reboot

inline constexpr int SYNC_PERSISTENT = 2; // the mode of every sync_to_fs

inline constexpr int VAR_FILE_SIZE = 256; // bytes that read_var_file may fill

// Lock order: the client's message_mutex, job_manager_mutex, job_record_mutex, job_file_mutex. None is recursive.
extern std::mutex job_manager_mutex; // held while one job is handled in a pass
// Held from the read of a job file to the write or the archiving that depends on it, flush included, by every answer
// and update of the cloud, every status and every job found ended; over any other write, archiving or clear for itself.
// Not from the read by which a pass starts or repairs a job. Never over a publish, a pause or a command.
extern std::mutex job_record_mutex;
extern std::mutex job_file_mutex; // held around the write of a job file, or of a job's candidate

// job_record_mutex, held since the read; handed to what completes the change.
using record_lock = std::unique_lock<std::mutex>;

std::string active_job_path(const std::string &job_id);

// The record's "jobId" as text, empty when it has none; creates no member.
std::string job_id_of(const Json::Value &job);

// The record has a "jobId" that can be a file name: not empty, not "." or "..", without "/" and "..", in UTF-8 without
// a zero byte.
// Throws Json::Exception when the record is no object, or the id no text or number.
bool has_usable_job_id(const Json::Value &job);

// Stores the record under its "jobId" and flushes it. 0 ok; -1 without a "jobId". Takes job_record_mutex, where
// the caller does not hold it, and job_file_mutex for the write alone.
int write_job_file(const Json::Value &job);
int write_job_file(const Json::Value &job, const record_lock &held);

// False when the record has no "jobId".
bool job_file_exists(const Json::Value &job);

// 0 when the active job file can be read and has "jobId" and "status"; else -1 and one alert. Never throws.
int check_job_file(const std::string &job_id);

// Moves the job file to the archive, over one of the same name there, and deletes the FW_JOBID marker,
// whichever job it names. Nothing without a "jobId". Takes job_record_mutex, where the caller does not hold it.
void archive_job_file(const Json::Value &job);
void archive_job_file(const Json::Value &job, const record_lock &held);

// Also deletes the FW_JOBID marker when it names this job. Takes job_record_mutex. Always 0. Nobody in the agent
// calls it.
int delete_job_file(const std::string &job_id);

// The FW_JOBID marker names this job.
bool is_fw_job(const std::string &job_id);

// Appends the names in the active job directory to the array, oldest modification first (whole seconds;
// equal ones in no defined order). 0, or -1 when the directory cannot be read.
int get_active_job_list(Json::Value &job_ids);

// Marks the job as the configuration job being applied: the link, and the copy that outlives a reboot.
void set_active_job(const Json::Value &job);

// Removes the link. 0 ok.
int clear_active_job();
