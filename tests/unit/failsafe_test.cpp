// Failsafe verification: does the device reach the network with its new configuration in time?
#include "tests/unit/failsafe_bed.h"

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// --- the destination

TEST_F(FailsafeVerify, TestsTheConfiguredDestination) {
    verify(R"({"destination_ip":"192.0.2.1"})");

    EXPECT_THAT(tests(), ListIs("192.0.2.1", "192.0.2.1"));
    EXPECT_EQ(log_lines().front(), (log_line{LOG_NOTICE, "start failsafe config verification"}));
}

TEST_F(FailsafeVerify, TakesTheCloudForADestinationThatIsTooShort) {
    for (const char *settings :
         {R"({})", R"({"destination_ip":""})", R"({"destination_ip":"1"})", R"({"destination_ip":12})"}) {
        fakes::reset_calls();
        verify(settings);
        EXPECT_THAT(tests(), ListIs("cloud.test", "cloud.test")) << settings;
    }
}

TEST_F(FailsafeVerify, TwoCharactersAreADestination) {
    verify(R"({"destination_ip":"::"})");
    EXPECT_THAT(tests(), ListIs("::", "::"));

    fakes::reset_calls();
    fakes::device().cloud_host = "io";
    verify("{}");
    EXPECT_THAT(tests(), ListIs("io", "io"));
}

TEST_F(FailsafeVerify, WithoutADestinationTheJobFailsAndTheConfigurationStays) {
    for (const char *host : {"", "1"}) {
        fakes::reset();
        fakes::device().cloud_host = host;
        job = json(R"({"jobId":"77", "action":"CFG", "status":"executed"})");

        verify("{}");

        EXPECT_THAT(job, IsJson(R"({"jobId":"77", "action":"CFG", "status":"failed",
                                    "msg":"no failsafe config destination IP defined"})"));
        EXPECT_THAT(log_lines(), ListIs(Notice("start failsafe config verification"),
                                        Notice("no failsafe config destination IP defined")));
        EXPECT_FALSE(exists(TIMER));
        EXPECT_THAT(progress(), IsEmpty());
        EXPECT_THAT(tests(), IsEmpty());
        expect_neither_committed_nor_reverted();
    }
}

TEST_F(FailsafeVerify, AnUnreadableCloudConfigurationGivesNoDestination) {
    fakes::always_returns("cmd_get_value_json", -1, "iot.vantrel_iot");

    verify("{}");

    EXPECT_THAT(job, HasMembers(R"({"status":"failed", "msg":"no failsafe config destination IP defined"})"));
}

// --- the timer

TEST_F(FailsafeVerify, TheTimerFileHoldsTheSpan) {
    Json::Value timer;
    after(1, [&] { timer = file_json(TIMER); });

    verify(R"({"timer":7})");

    Json::Value expected;
    expected["start_time"] = static_cast<Json::Int64>(START_TIME);
    expected["end_time"] = static_cast<Json::Int64>(START_TIME + 420);
    expected["period"] = 7;
    EXPECT_TRUE(same_json(timer, expected)) << timer;
}

TEST_F(FailsafeVerify, AMissingTimerIsFiveMinutes) {
    for (const char *settings : {R"({})", R"({"timer":"7"})", R"({"timer":null})"}) {
        fakes::reset_calls();
        set_time(START_TIME);
        Json::Value timer;
        after(1, [&] { timer = file_json(TIMER); });

        verify(settings);

        EXPECT_EQ(timer["period"], 5) << settings;
        EXPECT_EQ(timer["end_time"].asInt64(), START_TIME + 300) << settings;
    }
}

TEST_F(FailsafeVerify, WritingTheTimerFlushesItAndTellsHowItWent) {
    EXPECT_EQ(write_failsafe_timer(START_TIME, 2), 0);
    EXPECT_THAT(calls(), ListIs("write_json_file /var/data/orv/FAILSAFE_TIMER", "sync_to_fs 2"));
    const Json::Value timer = file_json(TIMER);
    EXPECT_EQ(timer["end_time"].asUInt(), static_cast<Json::UInt>(START_TIME + 120));

    fakes::will_return("write_json_file", {-1});
    EXPECT_EQ(write_failsafe_timer(START_TIME, 2), -1);
}

TEST_F(FailsafeVerify, WithoutATimerFileTheJobFailsAndTheConfigurationStays) {
    fakes::always_returns("write_json_file", -1, TIMER);

    verify();

    EXPECT_THAT(job, HasMembers(R"({"status":"failed", "msg":"error writing failsafe timer file"})"));
    EXPECT_EQ(job["ackTs"].asInt64(), START_TIME);
    EXPECT_THAT(progress(), IsEmpty());
    EXPECT_THAT(active_job("77"), HasMembers(R"({"status":"received"})"));
    EXPECT_THAT(tests(), IsEmpty());
    expect_neither_committed_nor_reverted();
}

TEST_F(FailsafeVerify, TheJobIsExecutedAndUnreportedWhileItRuns) {
    std::string stored;
    std::vector<std::string> shown;
    after(1, [&] {
        stored = active_job("77")["status"].asString();
        shown = progress();
        EXPECT_THAT(published(), IsEmpty());
        EXPECT_TRUE(exists(TIMER));
    });

    verify();

    EXPECT_EQ(stored, "executed");
    EXPECT_EQ(shown.front(), "verifying new config");
    EXPECT_THAT(log_lines(), Contains(Notice("update_job_status: 77 executed post_status: 0")));
}

// --- what the changes say about the modem

TEST_F(FailsafeVerify, LogsWhatItKnowsOfTheModem) {
    job["qtel_mgr_pid"] = 42;
    given_modem(true, false);
    cell_connected(1);
    qtel_mgr_runs_as("43");

    verify("{}", R"([{"path":"network.wireless.cell"}, {"path":"iot.vantrel_iot"}, {"path":"apps"}])");

    EXPECT_THAT(log_lines(),
                AllOf(Contains(Debug("cmd apply network.wireless.cell")), Contains(Debug("cmd apply apps")),
                      Contains(Debug("cmd apply iot.vantrel_iot")),
                      Contains(Debug("failsafe config: cell_enabled = 1, gps_enabled = 0, "
                                     "cell_gps_module_restart = 1 , qtel-pid = 42, iot_restart = 1\n"))));
}

TEST_F(FailsafeVerify, ChangesOfOtherAreasRestartNoModem) {
    job["qtel_mgr_pid"] = 42;
    given_modem(false, true);

    verify("{}", R"([{"path":"network.wireless.cell2"}, {"path":"gps.gpsd"}, {"path":"iot"}])");

    EXPECT_THAT(log_lines(),
                Contains(Debug("failsafe config: cell_enabled = 0, gps_enabled = 1, "
                               "cell_gps_module_restart = 0 , qtel-pid = 0, iot_restart = 0\n")));
}

TEST_F(FailsafeVerify, AnUnreadableCandidateCountsAsDisabled) {
    std::remove(NEW);

    verify("{}", R"([{"path":"gps.gps"}])");

    EXPECT_THAT(log_lines(),
                Contains(Debug("failsafe config: cell_enabled = 0, gps_enabled = 0, "
                               "cell_gps_module_restart = 1 , qtel-pid = 0, iot_restart = 0\n")));
    EXPECT_EQ(job["status"], "success");
}

TEST_F(FailsafeVerify, AProcessIdThatIsNoNumberIsNone) {
    job["qtel_mgr_pid"] = "42";
    given_modem(false, true);
    qtel_mgr_runs_as("42");

    verify("{}", R"([{"path":"gps.gps"}])");

    EXPECT_THAT(log_lines(), Contains(Debug(HasSubstr("qtel-pid = 0,"))));
    EXPECT_EQ(job["status"], "success");
}

// --- the dialer

TEST_F(FailsafeVerify, WaitsForTheDialerWhenCellOrGpsChangeAndOneIsEnabled) {
    struct row {
        const char *changes;
        bool cell, gps, waits;
    };
    for (const row &r :
         {row{R"([{"path":"network.wireless.cell"}])", true, false, true},
          row{R"([{"path":"gps.gps"}])", false, true, true}, row{R"([{"path":"gps.gps"}])", true, true, true},
          row{R"([{"path":"gps.gps"}])", false, false, false}, row{R"([{"path":"apps"}])", true, true, false},
          row{"[]", true, true, false}}) {
        fakes::reset_calls();
        fakes::config().apply_progress.clear();
        given_modem(r.cell, r.gps);
        cell_connected(1);
        qtel_mgr_runs_as("42");

        verify("{}", r.changes);

        EXPECT_EQ(testing::Value(progress(), Contains("waiting for dialer to restart")), r.waits)
            << r.changes;
    }
}

TEST_F(FailsafeVerify, TheDialerHasRestartedWhenAnotherProcessRuns) {
    job["qtel_mgr_pid"] = 42;
    given_modem(false, true);
    qtel_mgr_runs_as("42");
    after(1, [] { std::remove("/var/run/qtel-mgr.pid"); });
    after(2, [] { qtel_mgr_runs_as("0"); });
    after(3, [] { qtel_mgr_runs_as("-7"); });
    after(4, [] { qtel_mgr_runs_as("43"); });

    verify("{}", R"([{"path":"gps.gps"}])");

    EXPECT_EQ(count({LOG_NOTICE, "failsafe config: waiting for dialer to restart"}), 5);
    EXPECT_THAT(progress(),
                ListIs("verifying new config", "cell is disabled, skipping cell connectivity checks",
                       "waiting for dialer to restart", "dialer has restarted", "performing connection test",
                       "performing connection test 2", "failsafe config verified"));
    EXPECT_EQ(job["status"], "success");
}

TEST_F(FailsafeVerify, WithoutARememberedProcessAnyDialerHasRestarted) {
    given_modem(false, true);
    qtel_mgr_runs_as("42");

    verify("{}", R"([{"path":"gps.gps"}])");

    EXPECT_EQ(count({LOG_NOTICE, "failsafe config: waiting for dialer to restart"}), 1);
    EXPECT_THAT(sleeps(), ElementsAre(1, 2)); // between the tests, after the report
}

TEST_F(FailsafeVerify, AfterSixtyPollsItGoesOnWithoutTheDialer) {
    job["qtel_mgr_pid"] = 42;
    given_modem(false, true);
    qtel_mgr_runs_as("42");

    verify("{}", R"([{"path":"gps.gps"}])");

    EXPECT_EQ(count({LOG_NOTICE, "failsafe config: waiting for dialer to restart"}), 60);
    const std::vector<unsigned> slept = sleeps();
    ASSERT_EQ(slept.size(), 62U);
    EXPECT_THAT(std::vector(slept.begin(), slept.begin() + 60), Each(1));
    EXPECT_THAT(progress(), Not(Contains("dialer has restarted")));
    EXPECT_EQ(job["status"], "success");
}

TEST_F(FailsafeVerify, TheWaitForTheDialerCountsAgainstTheTimer) {
    job["qtel_mgr_pid"] = 42;
    given_modem(false, true);
    qtel_mgr_runs_as("42");

    verify(R"({"timer":1})", R"([{"path":"gps.gps"}])");

    EXPECT_EQ(job["msg"], "failsafe timer expired, reverting to config.failsafe");
    EXPECT_THAT(tests(), IsEmpty());
}
