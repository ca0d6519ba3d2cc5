// Jobs from their message to their end, by the passes of the job manager and everything below it.
#pragma once

#include "tests/unit/config_bed.h"

#include "jobs/manager/job_manager.h"
#include "jobs/markers.h"

#include <map>
#include <utility>

class WholeJobs : public ConfigTest {
protected:
    WholeJobs() {
        fakes::device().reboots = fakes::reboot_mode::RETURNS;
        set_critical_job_executing(0);
    }

    void arrives(const std::string &topic, const Json::Value &payload = Json::Value()) {
        client.on_message(test_message(topic, payload.toStyledString()).get());
    }

    void send_job(const Json::Value &sent) {
        arrives("v1/device/job/" + sent["jobId"].asString() + "/apply", sent);
    }

    // The cloud accepts the report that the stored job waits for.
    void acknowledge(const std::string &job_id) {
        Json::Value answer;
        answer["jobId"] = job_id;
        answer["session"] = active_job(job_id)["ackId"];
        answer["rc"] = 200;
        arrives("v1/device/job/" + job_id + "/pub_ack", answer);
    }

    void passes(int count) {
        for (; count > 0; --count) {
            advance(3);
            process_jobs(client);
        }
    }

    // Runs `action` when the apply calls this command of a service.
    static void when_run(const std::string &command, std::function<void()> action) {
        answer_command(command, [action = std::move(action)](const std::string &) {
            action();
            return 0;
        });
    }
};

// What a cut at some moment leaves on persistent storage.
class PersistentFiles {
public:
    void save() {
        texts.clear();
        for (const std::string folder : {"/var/data/orv/", ACTIVE_FOLDER, ARCHIVE_FOLDER})
            for (const std::string &name : names_in(folder))
                if (std::string text; fakes::read_all(folder + name, text) == 0)
                    texts[folder + name] = text;
    }

    // The files as they were saved, nothing in memory but what boot puts there.
    void boot() const {
        for (const char *folder : {"/var/data", "/var/volatile", "/run", "/tmp"})
            empty_directory(folder);
        make_boot_directories();
        for (const auto &[path, text] : texts)
            write_text(path, text);
        const Json::Value saved = file_json(SAVED);
        given_config(RUNNING, RUNNING_HASH, saved.toStyledString());
        given_config(SAVED, SAVED_HASH, saved.toStyledString());
        for (const auto clear : {set_fw_job_executing, set_config_job_executing, set_radiofw_job_executing})
            clear(0);
        fakes::reset_log();
    }

private:
    std::map<std::string, std::string> texts;
};
