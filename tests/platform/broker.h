// The broker's side of the MQTT tests: a real mosquitto, or a socket that shows the bare bytes. Both
// serve port 1883 of the test's own network.
#pragma once

#include <string>
#include <sys/types.h>

class broker {
public:
    broker() { start(); }
    ~broker() { stop(); }
    broker(const broker &) = delete;
    broker &operator=(const broker &) = delete;

    // Returns when it takes connections.
    void start();
    void stop();

private:
    pid_t pid = -1;
};

// Takes one connection and never answers by itself.
class bare_peer {
public:
    bare_peer();
    ~bare_peer();
    bare_peer(const bare_peer &) = delete;
    bare_peer &operator=(const bare_peer &) = delete;

    void accept_connection();
    void send(const std::string &bytes) const;
    // What has come until nothing more comes for 50 ms.
    std::string received() const;

private:
    int listener;
    int connection = -1;
};
