// The passes of a failsafe verification: abort, deadline, cell and the two connection tests.
#include "tests/unit/failsafe_bed.h"

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class FailsafePasses : public FailsafeVerify {};

// --- aborts

TEST_F(FailsafePasses, AnAbortBeforeTheFirstTestReverts) {
    given_failsafe_job();
    request_abort_at(START_TIME + 1);

    verify();

    EXPECT_THAT(job, HasMembers(R"({"status":"failed", "msg":"aborted, reverting to config.failsafe"})"));
    EXPECT_THAT(progress(), Contains("aborted, reverting to config.failsafe"));
    EXPECT_EQ(client.abort_request_time, 0);
    EXPECT_THAT(tests(), IsEmpty());
    EXPECT_THAT(calls(), Contains("restore_failsafe_files_to_nv"));
    EXPECT_THAT(calls(), Not(Contains("save_hw_config_section_to_nv")));
}

TEST_F(FailsafePasses, AnAbortMeanwhileIsSeenByTheNextPass) {
    given_failsafe_job();
    fakes::always_returns("ping_test", -1, "3 ");
    after(7, [this] { request_abort_at(START_TIME + 7); });

    verify();

    EXPECT_EQ(job["msg"], "aborted, reverting to config.failsafe");
    EXPECT_EQ(tests().size(), 2U); // at 0 and 5 seconds
    EXPECT_THAT(log_lines(),
                Contains(Debug("Need to abort (job time:1700000000 abort request time:1700000007)")));
}

TEST_F(FailsafePasses, AnAbortIsLookedAtBeforeTheDeadline) {
    given_failsafe_job();
    request_abort_at(START_TIME + 1);

    verify(R"({"timer":0})");

    EXPECT_EQ(job["msg"], "aborted, reverting to config.failsafe");
}

TEST_F(FailsafePasses, AnAbortBeforeTheJobDoesNotCount) {
    given_failsafe_job();
    request_abort_at(START_TIME);

    verify();

    EXPECT_EQ(job["status"], "success");
}

// --- the deadline

TEST_F(FailsafePasses, ADeadlineThatHasPassedRevertsEvenIfTheNetworkWouldAnswer) {
    verify(R"({"timer":0})");

    EXPECT_THAT(
        job,
        HasMembers(R"({"status":"failed", "msg":"failsafe timer expired, reverting to config.failsafe"})"));
    EXPECT_THAT(progress(), Contains("failsafe timer expired, reverting to config.failsafe"));
    EXPECT_THAT(tests(), IsEmpty());
    EXPECT_THAT(calls(), Contains("restore_failsafe_files_to_running"));
}

TEST_F(FailsafePasses, TheDeadlineItselfIsTooLate) {
    fakes::will_return("ping_test", {-1});
    after(5, [] { set_time(START_TIME + 300); });

    verify();

    EXPECT_EQ(job["msg"], "failsafe timer expired, reverting to config.failsafe");
    EXPECT_EQ(tests().size(), 1U);
}

TEST_F(FailsafePasses, ASecondBeforeTheDeadlineIsInTime) {
    fakes::will_return("ping_test", {-1});
    after(5, [] { set_time(START_TIME + 299); });

    verify();

    EXPECT_EQ(job["status"], "success");
}

TEST_F(FailsafePasses, AVerdictMayComeAfterTheDeadline) {
    fakes::will_return("ping_test", {-1});
    after(5, [] { set_time(START_TIME + 299); });
    after(300, [] { set_time(START_TIME + 1000); }); // between the two tests

    verify();

    EXPECT_EQ(job["status"], "success");
}

TEST_F(FailsafePasses, AsksTheDeviceForTheTimeUntilTheDeadline) {
    verify(R"({"timer":2})");

    EXPECT_THAT(calls_of({"fwtime_s"}), ListIs("fwtime_s " + std::to_string(START_TIME + 120)));
}

TEST_F(FailsafePasses, GoesOnUntilTheDeadline) {
    fakes::always_returns("ping_test", -1, "3 ");

    verify(R"({"timer":1})");

    EXPECT_EQ(tests().size(), 12U); // every 5 seconds
    EXPECT_EQ(job["status"], "failed");
}

TEST_F(FailsafePasses, AClockSetFrom1970ToTodayMeanwhileEndsItWithARevert) {
    set_time(1000);
    given_modem(true, false);
    fakes::on_sleep = [](unsigned) { set_time(START_TIME); };

    verify();

    EXPECT_EQ(job["msg"], "failsafe timer expired, reverting to config.failsafe");
    EXPECT_THAT(tests(), IsEmpty());
}

TEST_F(FailsafePasses, AClockSetBackByAMinuteProlongsItByAMinute) {
    fakes::always_returns("ping_test", -1, "3 ");
    unsigned slept = 0;
    fakes::on_sleep = [&](unsigned seconds) {
        slept += seconds;
        advance(static_cast<time_t>(seconds));
        if (slept == 30)
            advance(-60);
    };

    verify(R"({"timer":1})");

    EXPECT_EQ(job["status"], "failed");
    EXPECT_EQ(tests().size(), 24U);
}

// --- the cell

TEST_F(FailsafePasses, WithTheCellDisabledItsConnectionIsNotRead) {
    given_modem(false, true);

    verify();

    EXPECT_THAT(calls_of({"sysdb_read_int"}), IsEmpty());
    EXPECT_THAT(progress(), Contains("cell is disabled, skipping cell connectivity checks"));
    EXPECT_EQ(job["status"], "success");
}

TEST_F(FailsafePasses, WithTheCellEnabledItsConnectionComesFirst) {
    given_modem(true, false);
    cell_connected(1);

    verify();

    EXPECT_THAT(calls_of({"sysdb_read_int"}), ListIs("sysdb_read_int CELL_CONNECTED"));
    EXPECT_THAT(log_lines(), Contains(Debug("failsafe config: cell connected 1")));
    EXPECT_THAT(progress(), ListIs("verifying new config", "failsafe config detects cell is connected",
                                   "performing connection test", "performing connection test 2",
                                   "failsafe config verified"));
}

TEST_F(FailsafePasses, WaitsForTheCellAndSaysSoOnce) {
    given_modem(true, false);
    after(5, [] { cell_connected(0); });
    after(10, [] { cell_connected(2); });
    after(15, [] { cell_connected(-1); });
    after(20, [] { cell_connected(1); });
    time_t tested_at = 0;
    before("update_config_apply_status performing connection test", [&] { tested_at = fakes::now(); });

    verify();

    EXPECT_EQ(tested_at, START_TIME + 20);
    EXPECT_THAT(progress(), ListIs("verifying new config", "failsafe waiting for cell connection",
                                   "failsafe config detects cell is connected", "performing connection test",
                                   "performing connection test 2", "failsafe config verified"));
    std::vector<log_line> seen;
    for (const log_line &line : log_lines())
        if (line.text.rfind("failsafe config: cell connected", 0) == 0)
            seen.push_back(line);
    EXPECT_THAT(seen,
                ListIs(Debug("failsafe config: cell connected 0"), Debug("failsafe config: cell connected 2"),
                       Debug("failsafe config: cell connected -1"),
                       Debug("failsafe config: cell connected 1")));
}

TEST_F(FailsafePasses, AConnectionLostAfterAFailedTestIsNotAnnouncedAgain) {
    given_modem(true, false);
    cell_connected(1);
    fakes::will_return("ping_test", {-1});
    after(5, [] { cell_connected(0); });
    after(10, [] { cell_connected(1); });

    verify();

    EXPECT_EQ(job["status"], "success");
    EXPECT_THAT(progress(), Not(Contains("failsafe waiting for cell connection")));
}

TEST_F(FailsafePasses, AnUnconnectedCellRevertsAtTheDeadlineWithoutATest) {
    given_modem(true, false);

    verify(R"({"timer":1})");

    EXPECT_EQ(job["msg"], "failsafe timer expired, reverting to config.failsafe");
    EXPECT_THAT(tests(), IsEmpty());
    EXPECT_EQ(calls_of({"sysdb_read_int"}).size(), 12U);
}

// --- the tests

TEST_F(FailsafePasses, BothTestsPassASecondApart) {
    verify();

    std::vector<std::string> order = calls_of({"ping_test", "sleep", "update_config_apply_status"});
    order.resize(8);
    EXPECT_THAT(order,
                ListIs("update_config_apply_status verifying new config",
                       "update_config_apply_status cell is disabled, skipping cell connectivity checks",
                       "update_config_apply_status performing connection test", "ping_test 3 192.0.2.1",
                       "sleep 1", "update_config_apply_status performing connection test 2",
                       "ping_test 3 192.0.2.1", "update_config_apply_status failsafe config verified"));
    EXPECT_THAT(log_lines(), AllOf(Contains(Alert("failsafe config connection test 1 to 192.0.2.1")),
                                   Contains(Alert("failsafe config connection test 2 to 192.0.2.1")),
                                   Contains(Alert("failsafe config verified"))));
}

TEST_F(FailsafePasses, AFirstTestThatFailsStartsANewPassAfterFiveSeconds) {
    fakes::will_return("ping_test", {-1, 0, 0});

    verify();

    EXPECT_EQ(tests().size(), 3U);
    EXPECT_THAT(sleeps(), ElementsAre(5, 1, 2));
    EXPECT_EQ(job["status"], "success");
}

TEST_F(FailsafePasses, BothTestsMustPassInTheSamePass) {
    fakes::will_return("ping_test", {0, 1, 0, -1, 0, 0});

    verify();

    EXPECT_EQ(tests().size(), 6U);
    EXPECT_THAT(sleeps(), ElementsAre(1, 5, 1, 5, 1, 2));
    EXPECT_EQ(job["status"], "success");
}

// --- success

TEST_F(FailsafePasses, AVerifiedConfigurationIsCommittedAndThenAnnounced) {
    verify("{}", R"([{"path":"apps"}, {"path":"iot.vantrel_iot"}])");

    EXPECT_THAT(job, HasMembers(R"({"status":"success", "msg":"failsafe config verified"})"));
    EXPECT_THAT(calls(), AllOf(Contains("save_hw_config_section_to_nv"),
                               Not(Contains(HasSubstr("restore_failsafe")))));
    EXPECT_THAT(published_topics(),
                ListIs("v1/device/job/77/ack", "v1/device/cmd/cfgpush/apply", "v1/device/config/apps/update",
                       "v1/device/config/iot.vantrel_iot/update"));
    EXPECT_EQ(published_on("v1/device/config/apps/update").front().payload, "77");
}

TEST_F(FailsafePasses, ARevertedConfigurationIsNotAnnounced) {
    verify(R"({"timer":0})", R"([{"path":"apps"}])");

    EXPECT_THAT(published_topics(), ListIs("v1/device/job/77/ack"));
}
