#include "tests/fakes/agent_test.h"

#include "agent/main_loop.h"

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

class MainLoop : public AgentTest {
protected:
    void passes(int count) {
        for (int i = 0; i < count; i++)
            main_loop_pass(client, state);
    }

    static size_t counts() { return calls_of({"sysdb_namedb_write_int"}).size(); }

    tessard client{"tessard", "localhost", 1883};
    main_loop_state state;
};

TEST_F(MainLoop, APassRunsTheNetworkOnceAndSleepsASecond) {
    passes(3);

    EXPECT_EQ(fakes::mqtt().loops, 3U);
    EXPECT_THAT(fakes::mqtt().loop_arguments, Each(Pair(-1, 1)));
    EXPECT_THAT(sleeps(), ElementsAre(1, 1, 1));
    EXPECT_EQ(fakes::mqtt().reconnects, 0U);
}

TEST_F(MainLoop, CountsTheJobsOnEvery11thPass) {
    passes(10);
    EXPECT_EQ(counts(), 0U);
    passes(1);
    EXPECT_EQ(counts(), 1U);
    passes(10);
    EXPECT_EQ(counts(), 1U);
    passes(1);
    EXPECT_EQ(counts(), 2U);
}

TEST_F(MainLoop, PingsTheWatchdogAtOnceAndThenEvery30Seconds) {
    passes(61);

    EXPECT_THAT(fakes::mqtt().watchdog_pings, ElementsAre(START_TIME, START_TIME + 30, START_TIME + 60));
}

TEST_F(MainLoop, ALatePingIsFollowed30SecondsAfterItself) {
    passes(1);
    advance(100);
    passes(31);

    EXPECT_THAT(fakes::mqtt().watchdog_pings, ElementsAre(START_TIME, START_TIME + 101, START_TIME + 131));
}

TEST_F(MainLoop, AClockThatJumpsBackDelaysThePing) {
    passes(1);
    set_time(START_TIME - 100);
    passes(130);
    EXPECT_THAT(fakes::mqtt().watchdog_pings, SizeIs(1));

    passes(1);
    EXPECT_THAT(fakes::mqtt().watchdog_pings, ElementsAre(START_TIME, START_TIME + 30));
}

TEST_F(MainLoop, AClockThatStartsIn1970StillPingsAtOnce) {
    set_time(0);
    passes(1);

    EXPECT_THAT(fakes::mqtt().watchdog_pings, ElementsAre(0));
}

TEST_F(MainLoop, ReconnectsOnceForEachPassWithoutConnection) {
    fakes::will_return("loop", {7, 4, 0, 14});
    fakes::always_returns("reconnect", 14);
    passes(3);
    EXPECT_EQ(fakes::mqtt().reconnects, 2U);
    passes(1);
    EXPECT_EQ(fakes::mqtt().reconnects, 3U);
}

TEST_F(MainLoop, CountsAndPingsGoOnWithTheBrokerDown) {
    fakes::always_returns("loop", 4);
    fakes::always_returns("reconnect", 14);
    passes(31);

    EXPECT_EQ(fakes::mqtt().reconnects, 31U);
    EXPECT_EQ(counts(), 2U);
    EXPECT_THAT(fakes::mqtt().watchdog_pings, SizeIs(2));
    EXPECT_THAT(sleeps(), SizeIs(31));
}

TEST_F(MainLoop, KeepsTheOrderOfItsSteps) {
    state.passes = 10;
    fakes::will_return("loop", {7});
    passes(1);

    EXPECT_THAT(calls_of({"reconnect", "delete_file", "sysdb_namedb_write_int", "ping_watchdog", "sleep"}),
                ListIs("reconnect", "delete_file /tmp/.active_job_count",
                       "sysdb_namedb_write_int SYS SYS_JOB_COUNT 0", "ping_watchdog", "sleep 1"));
}

TEST_F(MainLoop, AnExceptionEndsThePass) {
    fakes::mqtt().before_loop = [] { throw std::runtime_error("broken"); };

    EXPECT_THROW(passes(1), std::runtime_error);
}
