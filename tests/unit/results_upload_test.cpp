// The upload of a script's output to a server on loopback, byte by byte.
#include "tests/fakes/agent_test.h"

#include "actions/results_upload.h"
#include "tests/unit/http_server.h"

#include <memory>

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

namespace {

constexpr const char *OUTPUT = "/tmp/cli_output_77.txt";

} // namespace

class ResultsPost : public AgentTest {
protected:
    ResultsPost() { write_text(OUTPUT, "the output\n"); }

    static http_request only_request(http_server &server) {
        const auto requests = server.requests();
        EXPECT_THAT(requests, SizeIs(1));
        return requests.empty() ? http_request{} : requests[0];
    }

    static std::string boundary_of(const http_request &request) {
        const std::string type = request.header("Content-Type");
        EXPECT_THAT(type, StartsWith("multipart/form-data; boundary="));
        return type.substr(type.find('=') + 1);
    }

    static std::string form_of(const std::string &boundary, const std::string &file_name,
                               const std::string &content) {
        return "--" + boundary +
               "\r\n"
               "Content-Disposition: form-data\r\n"
               "Content-Type: application/json\r\n"
               "\r\n"
               "\r\n"
               "--" +
               boundary +
               "\r\n"
               "Content-Disposition: form-data; name=\"file\"; filename=\"" +
               file_name +
               "\"\r\n"
               "Content-Type: text/plain\r\n"
               "\r\n" +
               content + "\r\n--" + boundary + "--\r\n";
    }

    static int post(const std::string &url, const char *path = OUTPUT) {
        return http_post_results_file(url.c_str(), path);
    }
};

TEST_F(ResultsPost, SendsAnEmptyPartAndThenTheFile) {
    http_server server;

    EXPECT_EQ(post(server.url("/api/v2/token/jobResults?jobId=77")), 0);

    const auto request = only_request(server);
    EXPECT_EQ(request.request_line(), "POST /api/v2/token/jobResults?jobId=77 HTTP/1.1");
    EXPECT_EQ(request.body, form_of(boundary_of(request), "cli_output_77.txt", "the output\n"));
}

TEST_F(ResultsPost, SendsEveryByteOfTheFile) {
    std::string all_bytes;
    for (int i = 0; i < 70000; i++)
        all_bytes += static_cast<char>(i % 256);
    for (const auto &content : {std::string(), std::string("\0", 1), all_bytes}) {
        write_text(OUTPUT, content);
        http_server server;
        EXPECT_EQ(post(server.url()), 0);

        const auto request = only_request(server);
        EXPECT_TRUE(request.body == form_of(boundary_of(request), "cli_output_77.txt", content));
    }
}

TEST_F(ResultsPost, WaitsForNoContinue) {
    write_text(OUTPUT, std::string(2 << 20, 'a'));
    http_server server;

    EXPECT_EQ(post(server.url()), 0);

    EXPECT_THAT(only_request(server).head, Not(HasSubstr("Expect")));
}

TEST_F(ResultsPost, LogsWhatGoesWhere) {
    http_server server;
    post(server.url("/x"));

    EXPECT_THAT(log_lines(),
                ListIs(Notice("post job results /tmp/cli_output_77.txt to " + server.url("/x"))));
}

TEST_F(ResultsPost, TakesAnyAnswerForASuccess) {
    for (const char *status : {"204 No Content", "301 Moved Permanently", "400 Bad Request", "404 Not Found",
                               "500 Internal Server Error"}) {
        http_server server(std::string("HTTP/1.1 ") + status + "\r\nContent-Length: 0\r\n\r\n");
        EXPECT_EQ(post(server.url()), 0) << status;
        EXPECT_THAT(server.requests(), SizeIs(1));
    }
}

TEST_F(ResultsPost, ReadsALongAnswer) {
    http_server server("HTTP/1.1 200 OK\r\nContent-Length: 300000\r\n\r\n" + std::string(300000, 'x'));
    EXPECT_EQ(post(server.url()), 0);
}

TEST_F(ResultsPost, FailsWhenTheFileIsMissing) {
    http_server server;

    EXPECT_EQ(post(server.url(), "/tmp/never_written.txt"), -1);

    EXPECT_THAT(log_lines(), ListIs(Notice(StartsWith("post job results /tmp/never_written.txt to ")),
                                    Debug(StartsWith("curl_easy_perform() failed: "))));
}

TEST_F(ResultsPost, FailsWhenNobodyListens) {
    std::string url;
    {
        const http_server gone;
        url = gone.url();
    }

    EXPECT_EQ(post(url), -1);

    EXPECT_THAT(log_lines(), ListIs(Notice("post job results /tmp/cli_output_77.txt to " + url),
                                    Debug("curl_easy_perform() failed: Couldn't connect to server\n")));
}

TEST_F(ResultsPost, FailsWhenTheConnectionEndsWithoutAnAnswer) {
    http_server server("");

    EXPECT_EQ(post(server.url()), -1);

    EXPECT_THAT(log_lines().back(),
                Debug("curl_easy_perform() failed: Server returned nothing (no headers, no data)\n"));
}

TEST_F(ResultsPost, FailsWhenTheAnswerIsCutShort) {
    http_server server("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf");

    EXPECT_EQ(post(server.url()), -1);

    EXPECT_THAT(log_lines().back(), Debug("curl_easy_perform() failed: Transferred a partial file\n"));
}

TEST_F(ResultsPost, FailsOnAUrlThatIsNone) {
    EXPECT_EQ(post("http://"), -1);
    EXPECT_THAT(log_lines(), SizeIs(2));
}

TEST_F(ResultsPost, FailsWhenTheServerSpeaksNoTls) {
    http_server server;
    EXPECT_EQ(post("https://127.0.0.1:" + std::to_string(server.port()) + "/"), -1);
}

// --- the base URL

class ResultsUrl : public AgentTest {
protected:
    static void given_settings(const std::string &settings) { set_config("iot.vantrel_iot", settings); }

    static std::string base_url() {
        std::string url;
        EXPECT_EQ(get_results_base_url(url), 0);
        return url;
    }
};

struct endpoint_row {
    const char *name;
    const char *settings;
    const char *url;
};

static void PrintTo(const endpoint_row &row, std::ostream *out) {
    *out << row.name;
}

class Endpoint : public ResultsUrl, public testing::WithParamInterface<endpoint_row> {};

TEST_P(Endpoint, IsBuiltFromProtocolHostPortAndToken) {
    given_settings(GetParam().settings);
    EXPECT_EQ(base_url(), std::string(GetParam().url) + "/api/v2/token-of-a-test/");
    EXPECT_THAT(log_lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Each, Endpoint,
    testing::Values(
        endpoint_row{"HttpsOnItsPort", R"({"protocol":"HTTPS", "port":443})", "https://cloud.test"},
        endpoint_row{"HttpsOnAnother", R"({"protocol":"HTTPS", "port":8443})", "https://cloud.test:8443"},
        endpoint_row{"HttpsOn80", R"({"protocol":"HTTPS", "port":80})", "https://cloud.test:80"},
        endpoint_row{"HttpOnItsPort", R"({"protocol":"HTTP", "port":80})", "http://cloud.test"},
        endpoint_row{"HttpOnAnother", R"({"protocol":"HTTP", "port":8080})", "http://cloud.test:8080"},
        endpoint_row{"HttpOn443", R"({"protocol":"HTTP", "port":443})", "http://cloud.test:443"},
        endpoint_row{"HttpsInLowerCase", R"({"protocol":"https", "port":443})", "http://cloud.test:443"},
        endpoint_row{"HttpsInMixedCase", R"({"protocol":"Https", "port":80})", "http://cloud.test"},
        endpoint_row{"HttpsWithABlank", R"({"protocol":"HTTPS ", "port":80})", "http://cloud.test"},
        endpoint_row{"NoProtocol", R"({"port":80})", "http://cloud.test"},
        endpoint_row{"NoPort", R"({"protocol":"HTTPS"})", "https://cloud.test:0"},
        endpoint_row{"NegativePort", R"({"port":-1})", "http://cloud.test:-1"}),
    [](const auto &row) { return std::string(row.param.name); });

TEST_F(ResultsUrl, IsAppended) {
    given_settings(R"({"port":80})");
    std::string url = "before ";
    get_results_base_url(url);
    EXPECT_EQ(url, "before http://cloud.test/api/v2/token-of-a-test/");
}

TEST_F(ResultsUrl, TakesALongToken) {
    given_settings(R"({"port":80})");
    fakes::config().device_token = std::string(127, 't');
    EXPECT_EQ(base_url(), "http://cloud.test/api/v2/" + std::string(127, 't') + "/");
}

TEST_F(ResultsUrl, FailsWithoutAToken) {
    fakes::will_return("get_device_token", {1});
    std::string url;

    EXPECT_EQ(get_results_base_url(url), -1);

    EXPECT_EQ(url, "");
    EXPECT_THAT(log_lines(), ListIs(Notice("no authtoken")));
    EXPECT_THAT(calls_of({"get_device_token", "cmd_get_value_json"}), ListIs("get_device_token"));
}

TEST_F(ResultsUrl, FailsSilentlyWithoutCloudSettings) {
    fakes::will_return("cmd_get_value_json", {1});
    std::string url;

    EXPECT_EQ(get_results_base_url(url), -1);

    EXPECT_EQ(url, "");
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_THAT(calls_of({"get_device_token", "cmd_get_value_json"}),
                ListIs("get_device_token", "cmd_get_value_json iot.vantrel_iot"));
}

// --- what a job asks for

class JobResults : public ResultsPost {
protected:
    void given_server(http_server &server) {
        fakes::device().cloud_host = "127.0.0.1";
        set_config("iot.vantrel_iot", R"({"protocol":"HTTP", "port":)" + std::to_string(server.port()) + "}");
    }

    void given_no_server() {
        http_server gone;
        given_server(gone);
    }

    void post_for(const std::string &job_text) {
        job = json(job_text);
        post_job_results(job, OUTPUT);
    }

    Json::Value job;
};

TEST_F(JobResults, ArePostedUnderTheIdAsItStands) {
    http_server server;
    given_server(server);

    post_for(R"({"jobId":"a&b=%41+c", "status":"failed", "params":{"postResults":true}})");

    EXPECT_EQ(only_request(server).request_line(),
              "POST /api/v2/token-of-a-test/jobResults?jobId=a&b=%41+c HTTP/1.1");
    EXPECT_THAT(job, IsJson(R"({"jobId":"a&b=%41+c", "status":"failed", "params":{"postResults":true}})"));
}

TEST_F(JobResults, CannotBePostedUnderAnIdWithABlank) {
    http_server server;
    given_server(server);

    post_for(R"({"jobId":"a b", "params":{"postResults":true}})");

    EXPECT_EQ(job["msg"], "Error posting job results file");
    EXPECT_THAT(server.requests(), IsEmpty());
}

TEST_F(JobResults, ReachTheServer) {
    http_server server;
    given_server(server);

    post_for(R"({"jobId":"77", "params":{"postResults":true}})");

    const auto request = only_request(server);
    EXPECT_EQ(request.request_line(), "POST /api/v2/token-of-a-test/jobResults?jobId=77 HTTP/1.1");
    EXPECT_EQ(request.body, form_of(boundary_of(request), "cli_output_77.txt", "the output\n"));
    EXPECT_FALSE(job.isMember("msg"));
}

TEST_F(JobResults, AreNotPostedUnlessAskedFor) {
    for (const char *params : {"{}", "null", R"({"postResults":false})", R"({"postResults":0})",
                               R"({"postResults":null})", R"({"postresults":true})"}) {
        post_for(std::string(R"({"jobId":"77", "params":)") + params + "}");

        EXPECT_THAT(log_lines(), IsEmpty()) << params;
        EXPECT_THAT(calls_of({"get_device_token", "cmd_get_value_json"}), IsEmpty());
        EXPECT_FALSE(job.isMember("msg"));
    }
}

TEST_F(JobResults, AreAskedForByAnythingThatReadsTrue) {
    http_server server;
    given_server(server);
    for (const char *value : {"true", "1", "-2.5"})
        post_for(std::string(R"({"jobId":"77", "params":{"postResults":)") + value + "}}");

    EXPECT_THAT(server.requests(), SizeIs(3));
}

TEST_F(JobResults, AreNotPostedWithoutAToken) {
    fakes::will_return("get_device_token", {-1});

    post_for(R"({"jobId":"77", "msg":"as it was", "params":{"postResults":true}})");

    EXPECT_THAT(log_lines(), ListIs(Notice("no authtoken")));
    EXPECT_EQ(job["msg"], "as it was");
}

TEST_F(JobResults, AreNotPostedWithoutCloudSettings) {
    fakes::will_return("cmd_get_value_json", {-1});

    post_for(R"({"jobId":"77", "params":{"postResults":true}})");

    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_FALSE(job.isMember("msg"));
}

TEST_F(JobResults, ThatCannotBePostedLeaveAMsgAndTheStatus) {
    given_no_server();

    post_for(R"({"jobId":"77", "status":"executed", "params":{"postResults":true}})");

    EXPECT_THAT(job, HasMembers(R"({"status":"executed", "msg":"Error posting job results file"})"));
}

TEST_F(JobResults, ThatWereNeverWrittenLeaveAMsg) {
    http_server server;
    given_server(server);
    job = json(R"({"jobId":"77", "params":{"postResults":true}})");

    post_job_results(job, "/tmp/never_written.txt");

    EXPECT_EQ(job["msg"], "Error posting job results file");
}

TEST_F(JobResults, ThatTheServerRefusesArePosted) {
    http_server server("HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n");
    given_server(server);

    post_for(R"({"jobId":"77", "params":{"postResults":true}})");

    EXPECT_FALSE(job.isMember("msg"));
}
