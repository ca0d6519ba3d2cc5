// What the tests of command jobs share: a client that everyone publishes through, UTC, and a kill that
// reaches no process.
#pragma once

#include "tests/fakes/agent_test.h"

#include "jobs/job_status.h"

#include <cstdlib>

class CommandJobTest : public AgentTest {
protected:
    CommandJobTest() {
        setenv("TZ", "UTC", 1);
        iot_client = &client;
        begin_again();
    }
    ~CommandJobTest() override {
        iot_client = nullptr;
        unsetenv("TZ");
    }

    static void begin_again() {
        fakes::reset();
        answer_command("/bin/kill", 0);
    }

    // The statuses reported so far, in order.
    static std::vector<std::string> reported() {
        std::vector<std::string> statuses;
        for (const auto &message : published_on("v1/device/job/77/ack"))
            statuses.push_back(message.json["params"]["status"].asString());
        return statuses;
    }

    // Only the lines that the code under test writes itself, not those of the status protocol and the store.
    static std::vector<log_line> own_log_lines() {
        std::vector<log_line> lines;
        for (const auto &line : log_lines())
            if (!is_of_another(line.text))
                lines.push_back(line);
        return lines;
    }

    static constexpr const char *SCRIPT = "/var/volatile/orv/77_22:13:20_11-14-2023"; // at START_TIME
    static constexpr const char *MARKER = "/var/volatile/orv/FW_JOBID";

    tessard client{"tessard", "localhost", 1883};
    Json::Value job;

private:
    static bool is_of_another(const std::string &text) {
        for (const char *start : {"update_job_status: ", "prev job status", "job status ", "write job file",
                                  "send job status", "send status update", "send_message: ", "ping to ",
                                  "network check", "set job ACK", "did not post"})
            if (text.rfind(start, 0) == 0)
                return true;
        return false;
    }
};
