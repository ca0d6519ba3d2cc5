// An HTTP server on loopback that keeps what it received byte for byte, and answers what the test says.
#pragma once

#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct http_request {
    std::string head; // request line and headers, with the empty line that ends them
    std::string body; // as sent, after the chunks are put together

    // The value of the header, empty when there is none. The name as it is sent.
    std::string header(const std::string &name) const;
    std::string request_line() const;
};

// A client that speaks TLS gets the answer at once.
class http_server {
public:
    // Sent after each request, then the connection is closed. Empty: closed without an answer.
    explicit http_server(std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    ~http_server();
    http_server(const http_server &) = delete;
    http_server &operator=(const http_server &) = delete;

    int port() const { return own_port; }
    std::string url(const std::string &path = "/") const;

    // What came so far; a request that was cut short counts too.
    std::vector<http_request> requests();

private:
    void serve();
    void serve_connection(int connection);

    std::string answer;
    int listener = -1;
    int own_port = 0;
    std::mutex mutex;
    std::vector<http_request> received;
    std::thread thread; // last: it uses the others
};
