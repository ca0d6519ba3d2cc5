#include "actions/script_file.h"

#include "jobs/job_record.h"
#include "jobs/job_store.h"
#include "platform/vantrel.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>

#include <sched.h>
#include <sys/stat.h>
#include <syslog.h>

namespace {

constexpr char SCRIPT_DIR[] = "/var/volatile/orv/";
constexpr size_t LONGEST_PAYLOAD_COMMAND = 4095;

std::string script_file_path(const std::string &job_id) {
    const time_t now = time(nullptr);
    tzset();
    tm local = {};
    localtime_r(&now, &local);
    char stamp[96];
    snprintf(stamp, sizeof stamp, "_%d:%d:%d_%d-%d-%d", local.tm_hour, local.tm_min, local.tm_sec,
             local.tm_mon + 1, local.tm_mday, local.tm_year + 1900);
    return SCRIPT_DIR + job_id + stamp;
}

int write_preamble(FILE *file, const std::string &output_path, const std::string &job_id) {
    return fprintf(
        file,
        "#!/bin/sh\n"
        "\n"
        "exec > %s\n"
        "exec 2>&1\n"
        "\n"
        "set -e\n"
        "\n"
        "echo $$ > /var/volatile/orv/%s.pid\n"
        "\n"
        "export PATH=/usr/local/bin:/usr/bin:/bin:/var/data/python/usr/bin:/usr/local/sbin:/usr/sbin:/sbin\n"
        "\n"
        "export ACK_ID=\"%s\"\n"
        "\n",
        output_path.c_str(), job_id.c_str(), job_id.c_str());
}

// A script may hold a passphrase: it never exists with more rights than its owner's. The mask of modes belongs to
// the process, and what the other thread makes or starts meanwhile is for others to read: so this thread leaves
// the common one for good (unshare(2), CLONE_FS) before it changes it. errno is fopen's.
FILE *create_private_file(const std::string &path) {
    if (unshare(CLONE_FS) != 0)
        return fopen(path.c_str(), "w");
    const mode_t former_mask = umask(077);
    FILE *file = fopen(path.c_str(), "w");
    umask(former_mask);
    return file;
}

struct file_closer {
    void operator()(FILE *file) const { fclose(file); }
};

} // namespace

int generate_cli_script(Json::Value &job, std::string &script_path, std::string &output_path,
                        std::string &error) {
    const std::string job_id = job[KEY_JOB_ID].asString();
    script_path = script_file_path(job_id);
    syslog(LOG_NOTICE, "cli script file: %s", script_path.c_str());
    job[KEY_SCRIPT_FILE] = script_path;
    write_job_file(job); // the path must be known even if the agent dies during the run

    delete_file(script_path.c_str());
    const std::unique_ptr<FILE, file_closer> file(create_private_file(script_path));
    if (!file) {
        error = std::string("failed to generate command job script: ") + strerror(errno);
        return -1;
    }
    output_path = "/tmp/cli_output_" + job_id + ".txt";
    if (write_preamble(file.get(), output_path, job_id) <= 0) {
        error = "failed to prepare command job payload: %s"; // sic: never expanded
        return -1;
    }
    fputs(job[KEY_PARAMS][PARAM_SCRIPT].asString().c_str(), file.get());
    fflush(file.get());
    return 0;
}

void clear_job_cli_script(const Json::Value &job) {
    syslog(LOG_DEBUG, "clear job cli script");
    if (job.isMember(KEY_JOB_ID)) {
        const std::string pid_path = SCRIPT_DIR + job[KEY_JOB_ID].asString() + ".pid";
        char pid[VAR_FILE_SIZE] = "";
        if (read_var_file(pid_path.c_str(), pid) == 0) {
            syslog(LOG_DEBUG, "kill cmd script pid %s", pid);
            orvsys("/bin/kill -9 %s", pid);
        }
        delete_file(pid_path.c_str());
    }
    const std::string script_path = text_of(job, KEY_SCRIPT_FILE); // the cloud may have sent any type
    if (!script_path.empty())
        delete_file(script_path.c_str());
}

bool write_payload_command(FILE *file, const std::string &command) {
    if (command.empty()) {
        syslog(LOG_NOTICE, "ignoring empty command");
        return false;
    }
    const std::string line = command.substr(0, LONGEST_PAYLOAD_COMMAND);
    syslog(LOG_DEBUG, "vantrel-iot command: [%s]", line.c_str());
    if (fprintf(file, "%s\n", line.c_str()) < 0) {
        syslog(LOG_NOTICE, "error writing to payload script: %s", strerror(errno));
        return false;
    }
    return true;
}
