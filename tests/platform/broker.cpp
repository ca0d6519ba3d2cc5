#include "tests/platform/broker.h"
#include "tests/platform/support.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace {

// By its path: an ordinary user's PATH does not lead to it.
constexpr const char *MOSQUITTO = "/usr/sbin/mosquitto";
constexpr const char *CONFIGURATION = "listener 1883 localhost\n"
                                      "allow_anonymous true\n"
                                      "user root\n"
                                      "persistence false\n"
                                      "log_type error\n";

sockaddr_in loopback() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(1883);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int checked(int result, const char *what) {
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), what);
    return result;
}

bool takes_connections() {
    const sockaddr_in address = loopback();
    const int fd = checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    const bool connected = connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
    close(fd);
    return connected;
}

} // namespace

void broker::start() {
    write_text("/tmp/mosquitto.conf", CONFIGURATION);
    // Ends with the test, also when that crashes.
    const std::array<const char *, 7> arguments = {"setpriv", "--pdeathsig",         "KILL", MOSQUITTO,
                                                   "-c",      "/tmp/mosquitto.conf", nullptr};
    if (posix_spawnp(&pid, "setpriv", nullptr, nullptr, const_cast<char *const *>(arguments.data()),
                     environ) != 0)
        throw std::runtime_error("cannot start mosquitto");
    for (int i = 0; i < 1000; ++i) {
        if (takes_connections())
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    throw std::runtime_error("mosquitto takes no connections");
}

void broker::stop() {
    if (pid < 0)
        return;
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    pid = -1;
}

bare_peer::bare_peer() : listener(checked(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket")) {
    const int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    const sockaddr_in address = loopback();
    checked(bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), "bind");
    checked(listen(listener, 1), "listen");
}

bare_peer::~bare_peer() {
    close(connection);
    close(listener);
}

void bare_peer::accept_connection() {
    connection = checked(accept(listener, nullptr, nullptr), "accept");
}

void bare_peer::send(const std::string &bytes) const {
    checked(static_cast<int>(::send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL)), "send");
}

std::string bare_peer::received() const {
    std::string bytes;
    pollfd event{connection, POLLIN, 0};
    while (poll(&event, 1, 50) > 0) {
        std::array<char, 4096> piece;
        const ssize_t got = read(connection, piece.data(), piece.size());
        if (got <= 0)
            break;
        bytes.append(piece.data(), static_cast<size_t>(got));
    }
    return bytes;
}
