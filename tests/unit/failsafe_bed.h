// A device with a new configuration that waits for its verification, and things that happen meanwhile.
#pragma once

#include "tests/unit/config_bed.h"

#include "config/failsafe.h"

#include <algorithm>
#include <map>

class FailsafeVerify : public ConfigTest {
protected:
    FailsafeVerify() {
        given_active_job(R"({"jobId":"77", "action":"CFG", "status":"received"})");
        given_candidate(R"({"network":{"wireless":{"cell":{"enable":false}}}})");
        fakes::on_sleep = [this](unsigned seconds) { pass_time(seconds); };
    }

    void verify(const std::string &settings = R"({"destination_ip":"192.0.2.1"})",
                const std::string &changes = "[]") {
        failsafe_verify(client, json(settings), json(changes), job);
    }

    // The new configuration enables these.
    void given_modem(bool cell, bool gps) {
        Json::Value config;
        config["network"]["wireless"]["cell"]["enable"] = cell;
        config["gps"]["gps"]["enable"] = gps;
        given_candidate(config.toStyledString());
    }

    // Happens this many seconds after the start.
    void after(time_t seconds, std::function<void()> action) {
        planned[START_TIME + seconds] = std::move(action);
    }

    void given_failsafe_job() {
        job = json(R"({"jobId":"FAILSAFE_CONFIG", "action":"FAILSAFE_CONFIG", "status":"executed"})");
        job["timestamp"] = static_cast<Json::Int>(START_TIME);
    }

    void request_abort_at(time_t when) { client.abort_request_time = static_cast<int32_t>(when); }

    static void cell_connected(int value) { fakes::config().database_ints["CELL_CONNECTED"] = value; }
    static void qtel_mgr_runs_as(const std::string &pid_text) {
        write_text("/var/run/qtel-mgr.pid", pid_text);
    }

    // The connection tests alone; reports ping too, with another count.
    static std::vector<std::string> tests() {
        std::vector<std::string> pings;
        for (const std::string &call : calls_of({"ping_test"}))
            if (call.rfind("ping_test 3 ", 0) == 0)
                pings.push_back(call.substr(12));
        return pings;
    }

    static long count(const log_line &wanted) {
        const auto lines = log_lines();
        return std::count(lines.begin(), lines.end(), wanted);
    }

    static void expect_neither_committed_nor_reverted() {
        EXPECT_THAT(calls_of({"save_hw_config_section_to_nv", "restore_failsafe_files_to_nv",
                              "restore_failsafe_files_to_running", "system"}),
                    testing::IsEmpty());
    }

private:
    void pass_time(unsigned seconds) {
        advance(static_cast<time_t>(seconds));
        while (!planned.empty() && planned.begin()->first <= fakes::now()) {
            const auto action = planned.begin()->second;
            planned.erase(planned.begin());
            action();
        }
    }

    std::map<time_t, std::function<void()>> planned;
};
