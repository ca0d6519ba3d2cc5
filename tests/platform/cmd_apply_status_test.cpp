// The mark and the progress texts of an apply, and the question whether a cloud job is being run.
#include "tests/platform/cmd_fixture.h"

#include "host/cmd/paths.h"
#include "platform/cmd.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fcntl.h>
#include <sstream>
#include <thread>
#include <unistd.h>

namespace {

class ApplyStatus : public CmdTest {
protected:
    static Json::Value status() { return read_json(conf::APPLY_STATUS); }

    static std::vector<std::string> history() {
        std::vector<std::string> texts;
        const Json::Value now = status();
        for (const Json::Value &entry : now["history"])
            texts.push_back(entry["text"].asString());
        return texts;
    }
};

TEST_F(ApplyStatus, TellsReasonAndProgressWhileAnApplyRuns) {
    set_config_apply_in_progress("executing config change");
    update_config_apply_status("validating config");
    EXPECT_EQ(status()["in_progress"], true);
    EXPECT_EQ(status()["reason"], "executing config change");
    EXPECT_EQ(status()["status"], "validating config");
}

TEST_F(ApplyStatus, KeepsTheLastTextAfterTheEnd) {
    set_config_apply_in_progress("executing config change");
    update_config_apply_status("config has been applied (no failsafe)");
    clear_config_apply_in_progress();
    EXPECT_EQ(status()["in_progress"], false);
    EXPECT_EQ(status()["status"], "config has been applied (no failsafe)");
}

TEST_F(ApplyStatus, TheHistoryBeginsAnewWithEachApply) {
    set_config_apply_in_progress("config change is queued");
    set_config_apply_in_progress("executing config change");
    update_config_apply_status("validating config");
    EXPECT_THAT(history(), testing::ElementsAre("config change is queued", "executing config change",
                                                "validating config"));
    clear_config_apply_in_progress();
    set_config_apply_in_progress("config change is queued");
    EXPECT_THAT(history(), testing::ElementsAre("config change is queued"));
}

TEST_F(ApplyStatus, TheHistoryKeepsTheLatestHundredTexts) {
    set_config_apply_in_progress("start");
    for (int i = 0; i < 150; ++i)
        update_config_apply_status(std::to_string(i).c_str());
    ASSERT_EQ(history().size(), 100U);
    EXPECT_EQ(history().front(), "50");
    EXPECT_EQ(history().back(), "149");
}

TEST_F(ApplyStatus, ABrokenStatusFileIsReplaced) {
    write_text(conf::APPLY_STATUS, "{\"history\": 7");
    update_config_apply_status("validating config");
    EXPECT_EQ(status()["status"], "validating config");
    write_text(conf::APPLY_STATUS, "[1]");
    clear_config_apply_in_progress();
    EXPECT_EQ(status()["in_progress"], false);
    write_text(conf::APPLY_STATUS, R"({"history": "text", "in_progress": 3})");
    update_config_apply_status(nullptr);
    EXPECT_EQ(status()["status"], "");
}

TEST_F(ApplyStatus, TwoThreadsLoseNoText) {
    set_config_apply_in_progress("start");
    std::thread other([] {
        for (int i = 0; i < 30; ++i)
            update_config_apply_status("other");
    });
    for (int i = 0; i < 30; ++i)
        update_config_apply_status("one");
    other.join();
    EXPECT_EQ(history().size(), 61U);
}

class ApplyEvents : public CmdTest {
protected:
    static std::vector<Json::Value> events() {
        std::istringstream lines(read_text(conf::APPLY_EVENTS));
        std::vector<Json::Value> found;
        for (std::string line; std::getline(lines, line);)
            found.push_back(json(line));
        return found;
    }

    static std::vector<std::string> told() {
        std::vector<std::string> found;
        for (const Json::Value &event : events())
            found.push_back(event["event"].asString() + ":" + event["text"].asString());
        return found;
    }
};

TEST_F(ApplyEvents, TellWhatTheHistoryHasForgotten) {
    set_config_apply_in_progress("config change is queued");
    set_config_apply_in_progress("executing config change");
    update_config_apply_status("config validation failed");
    clear_config_apply_in_progress();
    set_config_apply_in_progress("executing config change");
    EXPECT_THAT(told(), testing::ElementsAre("begin:config change is queued", "text:executing config change",
                                             "text:config validation failed",
                                             "end:", "begin:executing config change"));
}

TEST_F(ApplyEvents, AreALineEachWhateverTheText) {
    update_config_apply_status("two\nlines");
    update_config_apply_status(nullptr);
    EXPECT_THAT(told(), testing::ElementsAre("text:two\nlines", "text:"));
}

TEST_F(ApplyEvents, BearTheTimeToTheMillisecond) {
    const double before = std::floor(std::chrono::duration<double, std::milli>(
                                         std::chrono::system_clock::now().time_since_epoch())
                                         .count()) /
                          1000;
    update_config_apply_status("validating config");
    ASSERT_EQ(events().size(), 1U);
    EXPECT_GE(events()[0]["time"].asDouble(), before - 0.001);
    EXPECT_LT(events()[0]["time"].asDouble(), before + 60);
}

TEST_F(ApplyEvents, ALongFileIsLetGoAtTheBeginOfAnApplyOnly) {
    set_config_apply_in_progress("executing config change");
    update_config_apply_status(std::string(300 * 1024, 'x').c_str());
    update_config_apply_status("still there");
    set_config_apply_in_progress("and now");
    EXPECT_EQ(told().size(), 4U);
    const int reader = open(conf::APPLY_EVENTS, O_RDONLY | O_CLOEXEC);
    clear_config_apply_in_progress();
    set_config_apply_in_progress("executing config change");
    EXPECT_THAT(told(), testing::ElementsAre("begin:executing config change"));
    std::string kept(400 * 1024, '\0');
    kept.resize(static_cast<size_t>(std::max<ssize_t>(0, read(reader, kept.data(), kept.size()))));
    close(reader);
    EXPECT_THAT(kept, testing::HasSubstr("\"event\":\"end\""));
}

class CloudJob : public CmdTest, public testing::WithParamInterface<const char *> {};

TEST_F(CloudJob, NoneIsRunWithoutAMarker) {
    EXPECT_FALSE(iot_job_in_progress());
}

TEST_P(CloudJob, IsRunWhileItsMarkerExists) {
    write_text(GetParam(), "1");
    EXPECT_TRUE(iot_job_in_progress());
}

INSTANTIATE_TEST_SUITE_P(Markers, CloudJob,
                         testing::Values("/var/volatile/orv/FW_JOBID", "/var/volatile/orv/FW_JOB_EXECUTING",
                                         "/var/volatile/orv/CONFIG_JOB_EXECUTING",
                                         "/var/volatile/orv/RADIOFW_JOB_EXECUTING",
                                         "/var/volatile/orv/CRITICAL_JOB_EXECUTING"));

} // namespace
