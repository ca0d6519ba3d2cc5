// vtrcfg as a person runs it, and the agent as it meets it.
#pragma once

#include "tests/platform/cmd_fixture.h"

#include <mosquittopp.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

struct answer {
    int code;
    std::string out;
    std::string error;
};

class VtrcfgTest : public CmdTest {
protected:
    VtrcfgTest();
    // arguments as a shell takes them.
    static answer vtrcfg(const std::string &arguments);
};

// Subscribes the request's topic and does what it is told when a request comes. Under another name it is
// another subscriber, as the cloud.
class test_agent : private mosqpp::mosquittopp {
public:
    // Returns when it is subscribed.
    explicit test_agent(std::function<void(const std::string &payload)> action, const char *name = "agent");
    ~test_agent() override;
    test_agent(const test_agent &) = delete;
    test_agent &operator=(const test_agent &) = delete;

    // Those whose action has ended.
    int requests() const { return count; }

private:
    void on_connect(int rc) override;
    void on_subscribe(int mid, int qos_count, const int *granted_qos) override;
    void on_message(const mosquitto_message *message) override;

    std::function<void(const std::string &)> act;
    std::atomic<bool> subscribed = false;
    std::atomic<bool> ended = false;
    std::atomic<int> count = 0;
    std::thread runner;
};
