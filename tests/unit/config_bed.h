// A device with a configuration, for the tests of what changes it.
//
// The running configuration is the file, so that what is read after the candidate took its place is the
// candidate.
#pragma once

#include "tests/fakes/agent_test.h"

#include "agent/client/tessard.h"

#include <string>
#include <vector>

constexpr const char *NEW = "/var/volatile/config/config.new";
constexpr const char *NEW_HASH = "/var/volatile/config/config.new.hash";
constexpr const char *NEW_COPY = "/var/data/orv/config.new";
constexpr const char *RUNNING = "/var/volatile/config/config.running";
constexpr const char *RUNNING_HASH = "/var/volatile/config/config.running.hash";
constexpr const char *SAVED = "/var/data/orv/config.json";
constexpr const char *SAVED_HASH = "/var/data/orv/config.hash";
constexpr const char *FAILSAFE = "/var/data/orv/config.failsafe";
constexpr const char *FAILSAFE_HASH = "/var/data/orv/config.failsafe.hash";
constexpr const char *STAGED = "/var/data/orv/config.staged";
constexpr const char *STAGED_HASH = "/var/data/orv/config.staged.hash";
constexpr const char *TIMER = "/var/data/orv/FAILSAFE_TIMER";
constexpr const char *MODIFIED = "/var/run/CONFIG_MODIFIED";
constexpr const char *JOB_COPY = "/var/data/orv/ACTIVE_JOB";
constexpr const char *JOB_LINK = "/var/run/ACTIVE_JOB";
constexpr const char *FW_JOBID = "/var/volatile/orv/FW_JOBID";
constexpr const char *CONFIG_MARKER = "/var/volatile/orv/CONFIG_JOB_EXECUTING";

class ConfigTest : public AgentTest {
protected:
    tessard client{"tessard", "localhost", 1883};
    Json::Value job = json(R"({"jobId":"77", "action":"CFG", "status":"executed"})");

    ConfigTest();
    ~ConfigTest() override;

    // The configuration that the device runs on and boots with: {"name":"old", ...}.
    static std::string old_config();
    // Another one, {"name":"new", ...}, with these members more: R"("system":{...})".
    static std::string new_config(const std::string &members = "");

    // Puts a candidate where a configuration job or a person at the router puts it.
    static void given_candidate(const std::string &config_text);

    // What get_config_change_list finds.
    static void given_changes(const std::string &changes_text);

    // Moves the clock beyond every repeat interval that this process has begun, so that a report is repeated.
    static void let_repeats_be_due();

    // Runs `action` once, just before the first journal entry that begins with this.
    static void before(const std::string &entry, std::function<void()> action);
};

// The progress texts of update_config_apply_status, in order.
std::vector<std::string> progress();

// The statuses reported for a job, in order.
std::vector<std::string> reported(const std::string &job_id = "77");

// What happened to configurations, services and flushes, in order, in short words: "copy volatile:config.new
// to volatile:config.running", "delete data:config.new", "write data:FAILSAFE_TIMER", "flush".
std::vector<std::string> story();
