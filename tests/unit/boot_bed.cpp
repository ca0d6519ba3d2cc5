#include "tests/unit/boot_bed.h"

#include <filesystem>

namespace fs = std::filesystem;

void BootTest::given_cut_apply(const std::string &status, const std::string &job_id) {
    const std::string id = R"({"jobId":")" + job_id + R"(", "action":"CFG", "ackId":5, "status":")";
    given_active_job(id + status + "\"}");
    write_text(JOB_COPY, id + "executed\"}");
    write_text(NEW_COPY, new_config());
    write_text(TIMER, R"({"period":5})");
}

void BootTest::given_record_of_local_upgrade(const std::string &status) {
    given_active_job(R"({"jobId":"LOCAL_FW_UPGRADE", "action":"FAILSAFE_CONFIG", "source":"local_fwupgrade",
                         "ackId":2000, "status":")" +
                     status + "\"}");
}

Json::Value BootTest::firmware_job(const std::string &status) {
    Json::Value job = json(R"({"jobId":"66", "action":"FW", "ack":false, "ackId":2000, "ackTs":2000,
                               "timestamp":1000, "partition2":false, "params":{}})");
    job["status"] = status;
    job["params"]["cfg"] = json(new_config());
    write_text(INSTALLED, "1500 66\n");
    return job;
}

std::map<std::string, std::string> BootTest::all_files() {
    std::map<std::string, std::string> all;
    for (const char *folder : {"/var/data", "/var/volatile"})
        for (const auto &entry : fs::recursive_directory_iterator(folder))
            if (entry.is_regular_file() && entry.path().string().find("/.tmp/") == std::string::npos)
                all[entry.path()] = file_text(entry.path());
    return all;
}

void BootTest::expect_boot_changes_nothing() {
    const auto before = all_files();
    boot();
    EXPECT_THAT(log_lines(), testing::IsEmpty());
    EXPECT_THAT(calls(), testing::IsEmpty());
    EXPECT_EQ(all_files(), before);
}

bool any_exists(const std::vector<const char *> &paths) {
    bool any = false;
    for (const char *path : paths)
        any |= exists(path);
    return any;
}
