#include "tests/unit/http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <utility>

namespace {

constexpr char TLS_HELLO = '\x16';

// What is on the wire, and where reading stopped.
struct incoming {
    int connection;
    std::string bytes;
    bool ended = false;

    void more() {
        char part[4096];
        const ssize_t size = recv(connection, part, sizeof part, 0);
        ended = size <= 0;
        if (!ended)
            bytes.append(part, static_cast<size_t>(size));
    }

    // Everything up to and with the text; all there is when the connection ends first.
    std::string take_through(const std::string &text) {
        while (bytes.find(text) == bytes.npos && !ended)
            more();
        const size_t found = bytes.find(text);
        return take(found == bytes.npos ? bytes.size() : found + text.size());
    }

    std::string take_exactly(size_t size) {
        while (bytes.size() < size && !ended)
            more();
        return take(size);
    }

    std::string take(size_t size) {
        std::string taken = bytes.substr(0, size);
        bytes.erase(0, size);
        return taken;
    }
};

std::string take_chunks(incoming &in) {
    std::string body;
    for (;;) {
        const auto size = strtoul(in.take_through("\r\n").c_str(), nullptr, 16);
        if (size == 0)
            return body;
        body += in.take_exactly(size);
        in.take_through("\r\n");
    }
}

http_request take_request(int connection) {
    incoming in{connection, "", false};
    http_request request;
    in.more();
    if (in.bytes.rfind(TLS_HELLO, 0) == 0)
        return request;
    request.head = in.take_through("\r\n\r\n");
    if (request.header("Transfer-Encoding") == "chunked")
        request.body = take_chunks(in);
    else
        request.body = in.take_exactly(strtoul(request.header("Content-Length").c_str(), nullptr, 10));
    return request;
}

void send_all(int connection, const std::string &text) {
    for (size_t sent = 0; sent < text.size();) {
        const ssize_t size = send(connection, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (size <= 0)
            return;
        sent += static_cast<size_t>(size);
    }
}

} // namespace

std::string http_request::header(const std::string &name) const {
    const size_t start = head.find("\r\n" + name + ":");
    if (start == head.npos)
        return "";
    const size_t value = head.find_first_not_of(' ', start + 2 + name.size() + 1);
    return head.substr(value, head.find("\r\n", value) - value);
}

std::string http_request::request_line() const {
    return head.substr(0, head.find("\r\n"));
}

http_server::http_server(std::string answer_text) : answer(std::move(answer_text)) {
    listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (bind(listener, reinterpret_cast<const sockaddr *>(&address), size) != 0 || listen(listener, 8) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size) != 0)
        throw std::system_error(errno, std::generic_category(), "listen");
    own_port = ntohs(address.sin_port);
    thread = std::thread([this] { serve(); });
}

http_server::~http_server() {
    shutdown(listener, SHUT_RDWR); // ends accept
    thread.join();
    close(listener);
}

std::string http_server::url(const std::string &path) const {
    return "http://127.0.0.1:" + std::to_string(own_port) + path;
}

std::vector<http_request> http_server::requests() {
    const std::lock_guard lock(mutex);
    return received;
}

void http_server::serve() {
    for (;;) {
        const int connection = accept(listener, nullptr, nullptr);
        if (connection < 0)
            return;
        serve_connection(connection);
        close(connection);
    }
}

void http_server::serve_connection(int connection) {
    const http_request request = take_request(connection);
    {
        const std::lock_guard lock(mutex);
        received.push_back(request);
    }
    send_all(connection, answer);
}
