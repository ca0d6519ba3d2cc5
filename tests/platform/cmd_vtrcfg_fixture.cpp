#include "tests/platform/cmd_vtrcfg_fixture.h"

#include "host/cmd/paths.h"
#include "platform/cmd.h"

#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>

namespace {

constexpr char TOPIC[] = "v1/device/cmd/config/apply";

template <typename condition> void wait_until(condition holds, const char *what) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!holds()) {
        if (std::chrono::steady_clock::now() > limit)
            throw std::runtime_error(std::string("waited in vain: ") + what);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

} // namespace

VtrcfgTest::VtrcfgTest() {
    given_running(default_config());
    write_json(conf::STORED_CONFIG, default_config());
    calculate_and_write_config_hash(conf::RUNNING_CONFIG, conf::RUNNING_HASH);
    calculate_and_write_config_hash(conf::STORED_CONFIG, conf::STORED_HASH);
}

answer VtrcfgTest::vtrcfg(const std::string &arguments) {
    const int status = std::system((VTRCFG_COMMAND " " + arguments + " >/tmp/out 2>/tmp/error").c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_text("/tmp/out"), read_text("/tmp/error")};
}

test_agent::test_agent(std::function<void(const std::string &)> action, const char *name)
    : mosquittopp(name), act(std::move(action)) {
    wait_until([this] { return connect("localhost", 1883, 60) == MOSQ_ERR_SUCCESS; }, "the broker's socket");
    runner = std::thread([this] {
        while (!ended)
            loop(50, 1);
    });
    wait_until([this] { return subscribed.load(); }, "the subscription");
}

test_agent::~test_agent() {
    ended = true;
    runner.join();
}

void test_agent::on_connect(int) {
    subscribe(nullptr, TOPIC);
}

void test_agent::on_subscribe(int, int, const int *) {
    subscribed = true;
}

void test_agent::on_message(const mosquitto_message *message) {
    act(std::string(static_cast<const char *>(message->payload), static_cast<size_t>(message->payloadlen)));
    ++count;
}
