#include "tests/unit/config_bed.h"

#include "jobs/job_status.h"
#include "jobs/markers.h"

#include <utility>

namespace {

void replace_all(std::string &text, const std::string &from, const std::string &to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
}

std::string in_short_words(const fakes::call &entry) {
    std::string paths = entry.text;
    replace_all(paths, "/var/data/orv/vantrel_iot/jobs/active/", "job:");
    replace_all(paths, "/var/data/orv/", "data:");
    replace_all(paths, "/var/volatile/config/", "volatile:");
    const bool is_config = paths.find(":config.") != std::string::npos;

    const std::string between = paths.substr(0, paths.find(' '));
    const std::string second = paths.substr(std::min(paths.size(), between.size() + 1));
    if (entry.function == "copy_file")
        return is_config ? "copy " + between + " to " + second : "";
    if (entry.function == "calculate_and_write_config_hash")
        return "hash " + between + " into " + second;
    if (entry.function == "delete_file")
        return is_config ? "delete " + paths : "";
    if (entry.function == "write_json_file")
        return "write " + paths;
    if (entry.function == "sync_to_fs")
        return paths == "2" ? "flush" : "flush in a wrong mode";
    if (entry.function == "system")
        return "run " + paths;
    if (entry.function == "execute_systemctl_reload")
        return "reload " + paths;
    return entry.function.rfind("restore_failsafe", 0) == 0 ? entry.function : "";
}

} // namespace

ConfigTest::ConfigTest() {
    iot_client = &client;
    set_config_job_executing(0);
    set_fw_job_executing(0);
    set_radiofw_job_executing(0);
    fakes::reset_calls();
    fakes::config().running = Json::Value();
    given_config(RUNNING, RUNNING_HASH, old_config());
    given_config(SAVED, SAVED_HASH, old_config());
    answer_command("/usr/bin/cmd_", 0);
    answer_command("systemctl", 0);
}

ConfigTest::~ConfigTest() {
    fakes::before_change = nullptr;
    fakes::on_sleep = nullptr;
    iot_client = nullptr;
}

std::string ConfigTest::old_config() {
    return R"({"name":"old", "iot":{"vantrel_iot":{"enabled":true}}})";
}

std::string ConfigTest::new_config(const std::string &members) {
    return std::string(R"({"name":"new", "iot":{"vantrel_iot":{"enabled":true}})") +
           (members.empty() ? "" : ", ") + members + "}";
}

void ConfigTest::given_candidate(const std::string &config_text) {
    write_text(NEW, config_text);
}

void ConfigTest::given_changes(const std::string &changes_text) {
    fakes::config().change_list = json(changes_text);
}

void ConfigTest::let_repeats_be_due() {
    static time_t later = START_TIME + 100'000'000;
    later += 1000;
    set_time(later);
}

void ConfigTest::before(const std::string &entry, std::function<void()> action) {
    fakes::before_change = [entry, action = std::move(action),
                            done = false](const fakes::call &next) mutable {
        if (done || (next.function + " " + next.text).rfind(entry, 0) != 0)
            return;
        done = true;
        action();
    };
}

std::vector<std::string> progress() {
    std::vector<std::string> texts;
    for (const std::string &entry : fakes::config().apply_progress)
        if (entry.rfind("update ", 0) == 0)
            texts.push_back(entry.substr(7));
    return texts;
}

std::vector<std::string> reported(const std::string &job_id) {
    std::vector<std::string> statuses;
    for (const auto &message : published_on("v1/device/job/" + job_id + "/ack"))
        statuses.push_back(message.json["params"]["status"].asString());
    return statuses;
}

std::vector<std::string> story() {
    std::vector<std::string> lines;
    for (const auto &entry : all_calls())
        if (const std::string line = in_short_words(entry); !line.empty())
            lines.push_back(line);
    return lines;
}
