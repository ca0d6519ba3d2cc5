// What a server may answer to an upload, and what the cloud's settings may be.
//
// The first line of an input is the settings, as JSON; the rest is all that the server sends before it closes the
// connection. The connection is a pair of sockets: the program defines socket and connect, which libcurl then uses.
// Settings that ask for TLS are only made into a URL.
#include "tests/fuzz/target.h"

#include "actions/results_upload.h"
#include "jobs/job_record.h"
#include "tests/fakes/config.h"
#include "tests/fakes/device.h"
#include "tests/fakes/files.h"
#include "tests/fakes/private_root.h"
#include "tests/fuzz/arrivals.h"
#include "tests/fuzz/broken.h"
#include "tests/fuzz/execution.h"

#include <curl/curl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <string_view>

namespace {

constexpr char OUTPUT[] = "/tmp/cli_output_77.txt";
constexpr std::string_view REQUEST = "POST /api/v2/token-of-a-test/jobResults?jobId=77 HTTP/1.1\r\n";
constexpr size_t LONGEST_ANSWER = 1 << 16; // what a socket holds while nobody reads

std::string_view answer;
int client_end = -1;
int server_end = -1;

void open_connection() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        fuzz::broken("no pair of sockets");
    client_end = ends[0];
    server_end = ends[1];
    if (send(server_end, answer.data(), answer.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(answer.size()))
        fuzz::broken("an answer that does not fit");
    shutdown(server_end, SHUT_WR);
}

std::string received() {
    std::string text;
    std::array<char, 4096> part{};
    for (ssize_t size; (size = recv(server_end, part.data(), part.size(), MSG_DONTWAIT)) > 0;)
        text.append(part.data(), static_cast<size_t>(size));
    return text;
}

void close_connection() {
    if (server_end < 0)
        return;
    const std::string request = received();
    close(server_end);
    client_end = -1;
    server_end = -1;
    if (!request.starts_with(REQUEST))
        fuzz::broken("another request: " + request.substr(0, request.find('\n')));
}

bool asks_for_tls(const Json::Value &settings) {
    return text_of(settings, "protocol") == "HTTPS";
}

void judge_url(const Json::Value &settings) {
    std::string url;
    if (get_results_base_url(url) != 0) {
        if (!url.empty())
            fuzz::broken("a URL of a failure");
        return;
    }
    const std::string begin = asks_for_tls(settings) ? "https://127.0.0.1" : "http://127.0.0.1";
    if (!url.starts_with(begin) || !url.ends_with("/api/v2/token-of-a-test/"))
        fuzz::broken("another URL: " + url);
}

void upload() {
    Json::Value job;
    job[KEY_JOB_ID] = "77";
    job[KEY_STATUS] = STATUS_EXECUTED;
    job[KEY_PARAMS][PARAM_POST_RESULTS] = true;
    const Json::Value former = job;
    post_job_results(job, OUTPUT);
    if (job.isMember(KEY_MSG) && job[KEY_MSG] != "Error posting job results file")
        fuzz::broken("another message: " + text_of(job, KEY_MSG));
    job.removeMember(KEY_MSG);
    if (job != former)
        fuzz::broken("an upload that changes its job");
}

Json::Value parsed(const std::string &text) try { return json(text); } catch (const std::exception &) {
    return {};
}

} // namespace

extern "C" int socket(int domain, int type, int protocol) noexcept {
    constexpr int KIND = 0xf; // the rest are flags
    if (domain != AF_INET || (type & KIND) != SOCK_STREAM)
        return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
    open_connection();
    return client_end;
}

extern "C" int connect(int socket, const sockaddr *address, socklen_t size) {
    return socket == client_end ? 0 : static_cast<int>(syscall(SYS_connect, socket, address, size));
}

int LLVMFuzzerInitialize(int *, char ***) {
    enter_private_root();
    write_text(OUTPUT, "what the script said\n");
    curl_global_init(CURL_GLOBAL_ALL);
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string_view whole(reinterpret_cast<const char *>(data), size);
    const size_t line = std::min(whole.find('\n'), whole.size());
    const Json::Value settings = parsed(std::string(whole.substr(0, line)));
    answer = whole.substr(std::min(line + 1, whole.size())).substr(0, LONGEST_ANSWER);

    const fuzz::execution one;
    fakes::reset_device();
    fakes::reset_config();
    fakes::device().cloud_host = "127.0.0.1";
    fakes::config().running["iot"]["vantrel_iot"] = settings;
    judge_url(settings);
    if (!asks_for_tls(settings))
        upload();
    close_connection();
    return 0;
}
