// vtrcfg request: from the edited configuration to the agent and back.
#include "tests/platform/broker.h"
#include "tests/platform/cmd_vtrcfg_fixture.h"

#include "host/cmd/paths.h"
#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <memory>

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

class VtrcfgRequest : public VtrcfgTest {
protected:
    // What the agent does with a request, in the library's terms.
    static void take(const std::string &) { set_config_apply_in_progress("config change is queued"); }

    static void apply(const std::string &) {
        take("");
        update_config_apply_status("validating config");
        copy_file(conf::NEW_CONFIG, conf::RUNNING_CONFIG);
        copy_file(conf::RUNNING_CONFIG, conf::STORED_CONFIG);
        update_config_apply_status("config has been applied (no failsafe)");
        finish();
    }

    static void apply_without_commit(const std::string &) {
        take("");
        copy_file(conf::NEW_CONFIG, conf::RUNNING_CONFIG);
        update_config_apply_status("no failsafe config destination IP defined");
        finish();
    }

    static void refuse(const std::string &) {
        take("");
        update_config_apply_status("failsafe timer expired, reverting to config.failsafe");
        finish();
    }

    static void ignore(const std::string &) {}

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
    const test_agent agent([&](const std::string &text) {
        payload = text;
        take("");
    });
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
    const test_agent agent(take);
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

TEST_F(VtrcfgRequest, ThatRunsUncommittedSaysNoAndKeepsWhatWasEdited) {
    const broker running_broker;
    const test_agent agent(apply_without_commit);
    vtrcfg("set system.failsafe.timer 7");
    const answer done = vtrcfg("request --wait --timeout 60");
    EXPECT_EQ(done.code, 1);
    EXPECT_EQ(done.error, "vtrcfg: the configuration runs, but it is not committed: the next boot brings the "
                          "former one back\n");
    EXPECT_THAT(done.out, HasSubstr("no failsafe config destination IP defined"));
    EXPECT_EQ(vtrcfg("get system.failsafe.timer --edited").out, "7\n");
    const answer again = vtrcfg("request --wait --timeout 60");
    EXPECT_EQ(again.code, 1) << "it runs already, but not after the next boot";
    EXPECT_EQ(again.error, done.error);
    EXPECT_EQ(agent.requests(), 1);
    EXPECT_THAT(vtrcfg("status").out, HasSubstr("uncommitted   yes\n"));
}

TEST_F(VtrcfgRequest, ThatOnlyTheNextBootTakesSaysSo) {
    const broker running_broker;
    const test_agent agent([](const std::string &) {
        take("");
        copy_file(conf::NEW_CONFIG, conf::STORED_CONFIG);
        finish();
    });
    vtrcfg("set system.failsafe.timer 7");
    const answer done = vtrcfg("request --wait --timeout 60");
    EXPECT_EQ(done.code, 1);
    EXPECT_EQ(done.error, "vtrcfg: the configuration does not run, but the next boot takes it\n");
}

// Another apply may end while the request waits for its turn.
TEST_F(VtrcfgRequest, WaitsForTheEndOfItsOwnApply) {
    const broker running_broker;
    const test_agent agent([](const std::string &) {
        take("");
        clear_config_apply_in_progress(); // the other one's end
        update_config_apply_status("seen without a mark");
        for (int i = 0; i < 1000 && read_text("/tmp/out").find("seen without a mark") == std::string::npos;
             ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        apply("");
    });
    vtrcfg("set system.failsafe.timer 7");
    const answer done = vtrcfg("request --wait --timeout 60");
    EXPECT_EQ(done.code, 0) << done.error;
}

TEST_F(VtrcfgRequest, WithoutAnEndIsTrouble) {
    const broker running_broker;
    const test_agent agent(take);
    vtrcfg("set system.failsafe.timer 7");
    const answer none = vtrcfg("request --wait --timeout 2");
    EXPECT_EQ(none.code, 2);
    EXPECT_THAT(none.error, HasSubstr("has not ended in time"));
    EXPECT_TRUE(exists(conf::NEW_CONFIG));
}

TEST_F(VtrcfgRequest, WithoutAnAgentLeavesNoCandidate) {
    const broker running_broker;
    vtrcfg("set system.failsafe.timer 7");
    const answer refused = vtrcfg("request --timeout 1");
    EXPECT_EQ(refused.code, 2);
    EXPECT_EQ(refused.error, "vtrcfg: the agent does not take the request\n");
    EXPECT_FALSE(exists(conf::NEW_CONFIG));
}

TEST_F(VtrcfgRequest, ThatOnlyTheCloudHearsLeavesNoCandidate) {
    const broker running_broker;
    const test_agent cloud(ignore, "cloud");
    vtrcfg("set system.failsafe.timer 7");
    const answer refused = vtrcfg("request --timeout 1");
    EXPECT_EQ(refused.code, 2);
    EXPECT_EQ(refused.error, "vtrcfg: the agent does not take the request\n");
    EXPECT_FALSE(exists(conf::NEW_CONFIG));
}

class RequestToAStartingAgent : public VtrcfgRequest, public testing::WithParamInterface<bool> {};

TEST_P(RequestToAStartingAgent, IsTakenOnce) {
    const broker running_broker;
    std::unique_ptr<test_agent> cloud;
    if (GetParam())
        cloud = std::make_unique<test_agent>(ignore, "cloud");
    vtrcfg("set system.failsafe.timer 7");
    answer done{};
    std::thread person([&] { done = vtrcfg("request"); });
    for (int i = 0; i < 1000 && !exists(conf::NEW_CONFIG); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (cloud)
        wait_for(*cloud, 1); // the request is on its way
    const test_agent agent(take);
    person.join();
    EXPECT_EQ(done.code, 0) << done.error;
    wait_for(agent, 1);
}

INSTANTIATE_TEST_SUITE_P(WithACloud, RequestToAStartingAgent, testing::Bool());

// While a critical script runs, no message is handled.
TEST_F(VtrcfgRequest, ThatABusyAgentDoesNotTakeSaysSo) {
    const broker running_broker;
    write_text(conf::CRITICAL_JOB_EXECUTING, "1");
    vtrcfg("set system.failsafe.timer 7");
    const answer refused = vtrcfg("request --timeout 1");
    EXPECT_EQ(refused.code, 2);
    EXPECT_EQ(refused.error, "vtrcfg: the agent is busy and does not take the request\n");
    EXPECT_FALSE(exists(conf::NEW_CONFIG));
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
    const test_agent agent(take);
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

TEST_F(VtrcfgRequest, OfTheRunningConfigurationThatIsBeingVerifiedIsNoSuccess) {
    write_text(conf::FAILSAFE_TIMER, "{}");
    const answer none = vtrcfg(std::string("request ") + conf::STORED_CONFIG);
    EXPECT_EQ(none.code, 2);
    EXPECT_THAT(none.error, HasSubstr("a configuration is being verified"));
}

TEST_F(VtrcfgRequest, IsRefusedWhileTheMarkOfAnApplyIsSet) {
    set_config_apply_in_progress("executing config change");
    write_text(conf::CONFIG_JOB_EXECUTING, "1");
    vtrcfg("set system.failsafe.timer 7");
    const answer refused = vtrcfg("request");
    EXPECT_EQ(refused.code, 2);
    EXPECT_THAT(refused.error, HasSubstr("a configuration is being applied"));
    EXPECT_FALSE(exists(conf::NEW_CONFIG));
    vtrcfg("discard");
    EXPECT_THAT(vtrcfg("status").out, HasSubstr("apply         in progress"));
}

// The mark of a request whose job was cleared, with its candidate gone.
TEST_F(VtrcfgRequest, IsFreeAgainWhenTheMarkOfALostRequestIsDiscarded) {
    set_config_apply_in_progress("config change is queued");
    EXPECT_EQ(vtrcfg("discard").code, 0);
    EXPECT_THAT(vtrcfg("status").out, HasSubstr("apply         none"));
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
