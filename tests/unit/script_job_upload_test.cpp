// Script jobs that ask for their output to be uploaded, from the script to the report.
#include "tests/unit/command_job_fixture.h"
#include "tests/unit/http_server.h"

#include "actions/command_job.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

class ScriptJobUpload : public CommandJobTest {
protected:
    void given_server_on(int port) {
        fakes::device().cloud_host = "127.0.0.1";
        set_config("iot.vantrel_iot", R"({"protocol":"HTTP", "port":)" + std::to_string(port) + "}");
    }

    void given_no_server() { given_server_on(http_server().port()); }

    void run(const std::string &script, const std::string &params = R"({"postResults":true})") {
        job = json(R"({"jobId":"77", "action":"CMD", "value":"SCRIPT"})");
        job["params"] = json(params);
        job["params"]["script"] = script;
        execute_action_cmd(job);
    }

    static Json::Value last_report() { return published_on("v1/device/job/77/ack").back().json["params"]; }
};

TEST_F(ScriptJobUpload, SendsTheOutputOfAScriptThatSucceeds) {
    http_server server;
    given_server_on(server.port());
    run("echo hello");

    ASSERT_THAT(server.requests(), SizeIs(1));
    EXPECT_THAT(server.requests()[0].body, HasSubstr("\r\n\r\nhello\n\r\n--"));
    EXPECT_THAT(last_report(), IsJson(R"({"jobId":"77", "status":"success"})"));
}

TEST_F(ScriptJobUpload, SendsTheOutputOfAScriptThatFailsAndItStaysFailed) {
    http_server server;
    given_server_on(server.port());
    run("echo before\nfalse\necho after");

    ASSERT_THAT(server.requests(), SizeIs(1));
    EXPECT_THAT(server.requests()[0].body, HasSubstr("\r\n\r\nbefore\n\r\n--"));
    EXPECT_THAT(last_report(), IsJson(R"({"jobId":"77", "status":"failed"})"));
}

TEST_F(ScriptJobUpload, HappensBeforeTheEndIsReported) {
    http_server server;
    given_server_on(server.port());
    std::vector<size_t> uploads_at_report;
    fakes::mqtt().after_publish = [&](const auto &) {
        uploads_at_report.push_back(server.requests().size());
    };
    run("true");

    EXPECT_THAT(reported(), ListIs("executed", "success"));
    EXPECT_THAT(uploads_at_report, ElementsAre(0U, 1U));
}

TEST_F(ScriptJobUpload, ThatFailsLeavesTheEndAndTellsIt) {
    for (const char *script : {"true", "false"}) {
        begin_again();
        given_no_server();
        run(script);

        EXPECT_THAT(last_report(), HasMembers(R"({"msg":"Error posting job results file"})")) << script;
        EXPECT_THAT(last_report()["status"], *script == 't' ? "success" : "failed");
        EXPECT_THAT(active_job("77"), HasMembers(R"({"msg":"Error posting job results file"})"));
    }
}

TEST_F(ScriptJobUpload, FailsWhenTheScriptNeverWroteItsOutput) {
    http_server server;
    given_server_on(server.port());
    answer_command("/bin/sh", 0);
    run("true");

    EXPECT_THAT(last_report(), IsJson(R"({"jobId":"77", "status":"success",
                                          "msg":"Error posting job results file"})"));
}

TEST_F(ScriptJobUpload, HappensBeforeTheReboot) {
    http_server server;
    given_server_on(server.port());
    size_t uploads = 0;
    answer_command("/sbin/reboot", [&](const std::string &) {
        uploads = server.requests().size();
        return 0;
    });
    run("true", R"({"postResults":true, "reboot":true})");

    EXPECT_EQ(uploads, 1U);
}

TEST_F(ScriptJobUpload, AskedForByNoBoolFailsTheJob) {
    run("true", R"({"postResults":"yes"})");

    EXPECT_THAT(reported(), ListIs("executed", "failed"));
    EXPECT_THAT(log_lines().back(), Debug("execute cmd: exception handler"));
}

TEST_F(ScriptJobUpload, ToAPortThatIsNoNumberSendsNothing) {
    set_config("iot.vantrel_iot", R"({"protocol":"HTTP", "port":"80"})");
    run("true");

    EXPECT_THAT(reported(), ListIs("executed", "success"));
    EXPECT_FALSE(job.isMember("msg"));
    EXPECT_FALSE(exists(MARKER));
}
