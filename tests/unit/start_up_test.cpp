// The process entry, run in a child process: it never returns. The job manager is this test's own.
#include "tests/fakes/agent_test.h"

#include "agent/client/tessard.h"
#include "agent/start_up.h"
#include "jobs/job_status.h"
#include "jobs/manager/job_manager.h"

#include <sys/wait.h>
#include <unistd.h>

#include <future>
#include <thread>

using testing::Each;
using testing::ElementsAreArray;
using testing::IsSupersetOf;
using testing::SizeIs;

namespace {

std::promise<tessard *> job_manager_started;

Json::Value journal_json() {
    Json::Value lines(Json::arrayValue);
    for (const auto &line : calls_of({"openlog", "syslog", "create_pidfile", "start_mqtt_connection",
                                      "subscribe", "ping_watchdog", "sleep"}))
        lines.append(line);
    return lines;
}

std::vector<std::string> texts(const Json::Value &array) {
    std::vector<std::string> all;
    for (const auto &element : array)
        all.push_back(element.asString());
    return all;
}

} // namespace

void job_mgr_main(tessard &client) {
    job_manager_started.set_value(&client);
    for (;;)
        pause();
}
int process_jobs(tessard &) {
    return 0;
}

class StartUp : public AgentTest {
protected:
    // Runs the entry for so many passes of the main loop; what was seen comes back as JSON.
    static Json::Value run_entry(unsigned passes) {
        const pid_t child = fork();
        if (child == 0)
            live(passes);
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
        return file_json("/tmp/seen");
    }

private:
    [[noreturn]] static void live(unsigned passes) {
        fakes::on_sleep = [passes, slept = 0U](unsigned seconds) mutable {
            advance(seconds);
            if (++slept == passes)
                report_and_end();
        };
        run_agent();
        _exit(1);
    }

    [[noreturn]] static void report_and_end() {
        const tessard *given = job_manager_started.get_future().get();
        Json::Value seen;
        seen["journal"] = journal_json();
        seen["client_is_published"] = given != nullptr && given == iot_client;
        seen["client_id"] = fakes::mqtt().client_id;
        seen["host"] = fakes::mqtt().host;
        seen["port"] = fakes::mqtt().port;
        seen["flag"] = fakes::mqtt().flag;
        seen["log_is_local0_without_options"] =
            opened_logs() == std::vector<opened_log>{{"iot", 0, LOG_LOCAL0}};
        seen["log_is_notice"] = log_lines()[0].priority == LOG_NOTICE;
        write_text("/tmp/seen", seen.toStyledString());
        _exit(0);
    }
};

TEST_F(StartUp, TakesItsStepsInOrderAndThenLoops) {
    const Json::Value seen = run_entry(2);

    EXPECT_THAT(texts(seen["journal"]),
                ListIs("openlog iot", "syslog Starting tessard", "create_pidfile /var/run/tessard.pid",
                       "start_mqtt_connection", "subscribe v1/device/job/+/apply",
                       "subscribe v1/device/job/+/update", "subscribe v1/device/job/+/pub_ack",
                       "subscribe v1/device/cmd/+/apply", "subscribe v1/device/cmd/+/ack",
                       "subscribe v1/device/iot/job/update", "subscribe v1/device/cmd/config/abort/apply",
                       "ping_watchdog", "sleep 1", "sleep 1"));
    EXPECT_THAT(seen, HasMembers(R"({"log_is_local0_without_options": true, "log_is_notice": true})"));
}

TEST_F(StartUp, BuildsTheOneClientAndHandsItToTheJobManager) {
    EXPECT_THAT(run_entry(1), HasMembers(R"({"client_id": "tessard", "host": "localhost", "port": 1883,
                                             "flag": false, "client_is_published": true})"));
}

TEST_F(StartUp, WritesItsPidFile) {
    run_entry(1);

    EXPECT_GT(std::stoi(file_text("/var/run/tessard.pid")), 1);
}

TEST_F(StartUp, GoesOnWithoutPidFileAndWithoutBroker) {
    fakes::will_return("create_pidfile", {-1});
    fakes::will_return("start_mqtt_connection", {14});
    fakes::always_returns("loop", 4);

    const Json::Value seen = run_entry(5);

    EXPECT_THAT(seen, HasMembers(R"({"client_is_published": true})"));
    EXPECT_EQ(texts(seen["journal"]).back(), "sleep 1");
}
