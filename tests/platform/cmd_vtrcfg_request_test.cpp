// vtrcfg request: from the edited configuration to the agent and back.
#include "tests/platform/broker.h"
#include "tests/platform/cmd_vtrcfg_fixture.h"

#include "host/cmd/paths.h"
#include "platform/cmd.h"
#include "platform/vantrel.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

class VtrcfgRequest : public VtrcfgTest {
protected:
    // What the agent does with a request, in the library's terms.
    static void apply(const std::string &) {
        set_config_apply_in_progress("config change is queued");
        update_config_apply_status("validating config");
        copy_file(conf::NEW_CONFIG, conf::RUNNING_CONFIG);
        update_config_apply_status("config has been applied (no failsafe)");
        finish();
    }

    static void refuse(const std::string &) {
        set_config_apply_in_progress("config change is queued");
        update_config_apply_status("failsafe timer expired, reverting to config.failsafe");
        finish();
    }

    static void finish() {
        delete_file(conf::NEW_CONFIG);
        delete_file(conf::CONFIG_MODIFIED);
        clear_config_apply_in_progress();
    }

    static void wait_for(const test_agent &agent, int requests) {
        for (int i = 0; i < 1000 && agent.requests() < requests; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        ASSERT_EQ(agent.requests(), requests);
    }
};

TEST_F(VtrcfgRequest, PlacesTheCandidateAndAsksTheAgent) {
    const broker running_broker;
    std::string payload;
    const test_agent agent([&](const std::string &text) { payload = text; });
    vtrcfg("set system.failsafe.timer 7");
    const answer done = vtrcfg("request");
    EXPECT_EQ(done.code, 0) << done.error;
    EXPECT_EQ(done.out, "requested\n");
    wait_for(agent, 1);
    EXPECT_EQ(json(payload), json("{\"source\": \"vtrcfg\"}"));
    EXPECT_EQ(read_json(conf::NEW_CONFIG), default_with("system.failsafe.timer", 7));
}

TEST_F(VtrcfgRequest, TakesAFile) {
    const broker running_broker;
    const test_agent agent([](const std::string &) {});
    write_json("/tmp/other.json", default_with("system.failsafe.timer", 9));
    EXPECT_EQ(vtrcfg("request /tmp/other.json").code, 0);
    EXPECT_EQ(read_json(conf::NEW_CONFIG), default_with("system.failsafe.timer", 9));
}

TEST_F(VtrcfgRequest, ShowsTheProgressAndTheSuccess) {
    const broker running_broker;
    const test_agent agent(apply);
    vtrcfg("set system.failsafe.timer 7");
    const answer done = vtrcfg("request --wait --timeout 60");
    EXPECT_EQ(done.code, 0) << done.error;
    EXPECT_THAT(done.out,
                testing::ContainsRegex("config change is queued\n.*validating config\n.*config has been "
                                       "applied \\(no failsafe\\)\nthe configuration runs\n"));
    EXPECT_EQ(vtrcfg("get system.failsafe.timer").out, "7\n");
    EXPECT_FALSE(exists(conf::EDITED_CONFIG));
}

TEST_F(VtrcfgRequest, OfAFormerApplyShowsNothing) {
    const broker running_broker;
    const test_agent agent(apply);
    set_config_apply_in_progress("a former apply");
    clear_config_apply_in_progress();
    vtrcfg("set system.failsafe.timer 7");
    EXPECT_THAT(vtrcfg("request --wait --timeout 60").out, testing::Not(HasSubstr("a former apply")));
}

TEST_F(VtrcfgRequest, ThatIsTakenBackSaysNoAndKeepsWhatWasEdited) {
    const broker running_broker;
    const test_agent agent(refuse);
    vtrcfg("set system.failsafe.timer 7");
    const answer done = vtrcfg("request --wait --timeout 60");
    EXPECT_EQ(done.code, 1);
    EXPECT_EQ(done.error, "vtrcfg: the configuration does not run\n");
    EXPECT_THAT(done.out, HasSubstr("failsafe timer expired, reverting to config.failsafe"));
    EXPECT_EQ(vtrcfg("get system.failsafe.timer --edited").out, "7\n");
}

TEST_F(VtrcfgRequest, WithoutAnAnswerIsTrouble) {
    const broker running_broker;
    const test_agent agent([](const std::string &) {});
    vtrcfg("set system.failsafe.timer 7");
    const answer none = vtrcfg("request --wait --timeout 1");
    EXPECT_EQ(none.code, 2);
    EXPECT_THAT(none.error, HasSubstr("has not ended in time"));
}

TEST_F(VtrcfgRequest, WithoutAnAgentLeavesNoCandidate) {
    const broker running_broker;
    vtrcfg("set system.failsafe.timer 7");
    const answer refused = vtrcfg("request --timeout 1");
    EXPECT_EQ(refused.code, 2);
    EXPECT_THAT(refused.error, HasSubstr("the agent does not listen"));
    EXPECT_FALSE(exists(conf::NEW_CONFIG));
}

TEST_F(VtrcfgRequest, WaitsForAnAgentThatIsStarting) {
    const broker running_broker;
    vtrcfg("set system.failsafe.timer 7");
    answer done{};
    std::thread person([&] { done = vtrcfg("request"); });
    for (int i = 0; i < 1000 && !exists(conf::NEW_CONFIG); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const test_agent agent([](const std::string &) {});
    person.join();
    EXPECT_EQ(done.code, 0) << done.error;
    wait_for(agent, 1);
}

TEST_F(VtrcfgRequest, WithoutABrokerLeavesNoCandidate) {
    vtrcfg("set system.failsafe.timer 7");
    const answer refused = vtrcfg("request");
    EXPECT_EQ(refused.code, 2);
    EXPECT_THAT(refused.error, HasSubstr("the broker on this router does not take the request"));
    EXPECT_FALSE(exists(conf::NEW_CONFIG));
    EXPECT_TRUE(exists(conf::EDITED_CONFIG));
}

TEST_F(VtrcfgRequest, OfAnInvalidConfigurationIsRefusedUnlessUnchecked) {
    const broker running_broker;
    const test_agent agent([](const std::string &) {});
    vtrcfg("set system.failsafe.timer 0");
    const answer refused = vtrcfg("request");
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.error, HasSubstr("system.failsafe.timer: expected a time from 1 to 1440 minutes"));
    EXPECT_FALSE(exists(conf::NEW_CONFIG));
    EXPECT_EQ(vtrcfg("request --unchecked").code, 0);
    EXPECT_TRUE(exists(conf::NEW_CONFIG));
    wait_for(agent, 1);
}

TEST_F(VtrcfgRequest, OfTheRunningConfigurationAsksNobody) {
    const answer none = vtrcfg(std::string("request ") + conf::STORED_CONFIG);
    EXPECT_EQ(none.code, 0);
    EXPECT_EQ(none.out, "this is the running configuration already\n");
    EXPECT_FALSE(exists(conf::NEW_CONFIG));
}

TEST_F(VtrcfgRequest, OfNothingIsTrouble) {
    EXPECT_EQ(vtrcfg("request").code, 2);
    EXPECT_EQ(vtrcfg("request /var/none").code, 2);
}

class RequestDuringApply : public VtrcfgRequest, public testing::WithParamInterface<const char *> {};

TEST_P(RequestDuringApply, IsRefusedAndLeavesTheOtherCandidate) {
    write_text(GetParam(), "{}");
    vtrcfg("set system.failsafe.timer 7");
    EXPECT_EQ(vtrcfg("request").code, 2);
    EXPECT_EQ(read_text(GetParam()), "{}");
}

INSTANTIATE_TEST_SUITE_P(Rows, RequestDuringApply,
                         testing::Values("/var/data/orv/FAILSAFE_TIMER", "/var/volatile/config/config.new",
                                         "/var/data/orv/config.new"));

} // namespace
