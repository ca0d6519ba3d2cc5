#include "tests/fakes/agent_test.h"

#include "jobs/job_status.h"
#include "jobs/manager/reset_button.h"

#include <cstdio>
#include <filesystem>
#include <future>

using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::Pair;

namespace {

constexpr const char *BUTTON = "/dev/reset_button_dev";

bool writing_fails = false;

} // namespace

// The button's device is opened with fopen: its calls go into the journal.
extern "C" FILE *__real_fopen(const char *path, const char *mode);
extern "C" FILE *__wrap_fopen(const char *path, const char *mode);

extern "C" FILE *__wrap_fopen(const char *path, const char *mode) {
    if (std::string(path) == BUTTON) {
        fakes::record(fakes::call_kind::QUERY, "fopen", mode);
        if (writing_fails && *mode == 'w')
            return nullptr;
    }
    return __real_fopen(path, mode);
}

class ResetButton : public AgentTest {
protected:
    ResetButton() {
        std::filesystem::remove(BUTTON);
        writing_fails = false;
        iot_client = &client;
        fakes::device().reboots = fakes::reboot_mode::RETURNS;
    }
    ~ResetButton() override { iot_client = nullptr; }

    static void given_event(const std::string &text) { write_text(BUTTON, text); }

    bool mutex_is_free() {
        return std::async(std::launch::async,
                          [this] {
                              const bool locked = client.message_mutex.try_lock();
                              if (locked)
                                  client.message_mutex.unlock();
                              return locked;
                          })
            .get();
    }

    // Each change from here on, with whether a message could be handled at that time.
    void watch_mutex() {
        fakes::before_change = [this](const fakes::call &change) {
            seen.emplace_back(change.function, mutex_is_free());
        };
    }

    static size_t open_descriptors() { return names_in("/proc/self/fd").size(); }

    tessard client{"tessard", "localhost", 1883};
    std::vector<std::pair<std::string, bool>> seen;
};

TEST_F(ResetButton, ThatIsMissingMeansNoEvent) {
    poll_reset_button();

    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_FALSE(exists(BUTTON));
}

class NoEvent : public ResetButton, public testing::WithParamInterface<const char *> {};

TEST_P(NoEvent, IsNeitherAcknowledgedNorLogged) {
    given_event(GetParam());

    poll_reset_button();

    EXPECT_EQ(file_text(BUTTON), GetParam());
    EXPECT_THAT(calls_of({"fopen"}), ListIs("fopen r"));
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(log_lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Text, NoEvent,
                         testing::Values("", "\n", "no number", "0", "1", "5", "-1", "-2", "23", "\x02",
                                         "\x03", "\x04"));

struct press {
    const char *name;
    const char *event;
    const char *acknowledgement;
    const char *log_text;
};

static void PrintTo(const press &row, std::ostream *out) {
    *out << row.name;
}

class Press : public ResetButton, public testing::WithParamInterface<press> {};

INSTANTIATE_TEST_SUITE_P(
    Each, Press,
    testing::Values(press{"Short", "2\n", "\x02", "Reset button detected:reboot"},
                    press{"Failsafe", "3\n", "\x03", "Reset button detected:failsafe"},
                    press{"Factory", "4\n", "\x04", "Reset button detected:factory"},
                    press{"WithoutLineEnd", "2", "\x02", "Reset button detected:reboot"},
                    press{"WithLeadingBlanks", "  3", "\x03", "Reset button detected:failsafe"},
                    press{"WithTextBehind", "4 x", "\x04", "Reset button detected:factory"}),
    [](const auto &row) { return std::string(row.param.name); });

TEST_P(Press, IsAcknowledgedByItsCodeAsOneRawByte) {
    given_event(GetParam().event);

    poll_reset_button();

    EXPECT_EQ(file_text(BUTTON), GetParam().acknowledgement);
}

TEST_P(Press, IsReadThenAcknowledgedThenLogged) {
    given_event(GetParam().event);

    poll_reset_button();

    EXPECT_THAT(calls_of({"fopen", "syslog"}),
                ListIs("fopen r", "fopen w", std::string("syslog ") + GetParam().log_text));
    EXPECT_THAT(log_lines(), ListIs(Alert(GetParam().log_text)));
}

TEST_P(Press, EndsInOneReboot) {
    given_event(GetParam().event);

    poll_reset_button();

    EXPECT_THAT(reboots(), ListIs("stop_watchdog_and_force_hw_reboot_blocking"));
    EXPECT_EQ(calls().back(), "stop_watchdog_and_force_hw_reboot_blocking");
    EXPECT_TRUE(mutex_is_free());
}

TEST_P(Press, LeavesNoDescriptorOpen) {
    given_event(GetParam().event);
    const size_t before = open_descriptors();

    poll_reset_button();

    EXPECT_EQ(open_descriptors(), before);
}

TEST_P(Press, IsCarriedOutWhenItCannotBeAcknowledged) {
    given_event(GetParam().event);
    writing_fails = true;

    poll_reset_button();

    EXPECT_EQ(file_text(BUTTON), GetParam().event);
    EXPECT_THAT(reboots(), ListIs("stop_watchdog_and_force_hw_reboot_blocking"));
}

TEST_P(Press, IsCarriedOutWithoutAClient) {
    iot_client = nullptr;
    given_event(GetParam().event);

    poll_reset_button();

    EXPECT_THAT(reboots(), ListIs("stop_watchdog_and_force_hw_reboot_blocking"));
}

TEST_F(ResetButton, RebootsAtOnceOnAShortPressWithoutTheMessageMutex) {
    given_event("2");
    watch_mutex();

    poll_reset_button();

    EXPECT_THAT(seen, ElementsAre(Pair("stop_watchdog_and_force_hw_reboot_blocking", true)));
    EXPECT_THAT(calls(), ListIs("stop_watchdog_and_force_hw_reboot_blocking"));
}

TEST_F(ResetButton, RestoresTheFailsafeConfigurationWithoutMessagesUntilTheReboot) {
    given_event("3");
    watch_mutex();

    poll_reset_button();

    EXPECT_THAT(seen, ElementsAre(Pair("restore_failsafe_files_to_nv", false), Pair("sync_to_fs", false),
                                  Pair("stop_watchdog_and_force_hw_reboot_blocking", false)));
}

TEST_F(ResetButton, RestoresTheFailsafeConfigurationEverySecondUntilItSucceeds) {
    given_event("3");
    fakes::will_return("restore_failsafe_files_to_nv", {-1, 1, -1});

    poll_reset_button();

    EXPECT_THAT(calls(),
                ListIs("restore_failsafe_files_to_nv", "sleep 1", "restore_failsafe_files_to_nv", "sleep 1",
                       "restore_failsafe_files_to_nv", "sleep 1", "restore_failsafe_files_to_nv",
                       "sync_to_fs 2", "stop_watchdog_and_force_hw_reboot_blocking"));
    EXPECT_THAT(log_lines(), ListIs(Alert("Reset button detected:failsafe")));
}

TEST_F(ResetButton, ResetsToFactoryWithoutMessagesUntilTheReboot) {
    given_event("4");
    watch_mutex();

    poll_reset_button();

    EXPECT_THAT(seen, ElementsAre(Pair("cmd_factory_reset", false), Pair("sync_to_fs", false),
                                  Pair("stop_watchdog_and_force_hw_reboot_blocking", false)));
}

TEST_F(ResetButton, ResetsToFactoryEverySecondUntilItSucceeds) {
    given_event("4");
    fakes::will_return("cmd_factory_reset", {-1, 2});

    poll_reset_button();

    EXPECT_THAT(calls(),
                ListIs("cmd_factory_reset 1", "sleep 1", "cmd_factory_reset 1", "sleep 1",
                       "cmd_factory_reset 1", "sync_to_fs 2", "stop_watchdog_and_force_hw_reboot_blocking"));
    EXPECT_THAT(log_lines(), ListIs(Alert("Reset button detected:factory")));
}

TEST_F(ResetButton, RetriesForEverWithTheMessageMutexHeld) {
    given_event("4");
    fakes::always_returns("cmd_factory_reset", -1);
    bool free_during_the_wait = false;
    fakes::on_sleep = [&](unsigned) {
        free_during_the_wait = free_during_the_wait || mutex_is_free();
        if (sleeps().size() == 3600)
            throw fake_stop();
    };

    EXPECT_THROW(poll_reset_button(), fake_stop);

    EXPECT_FALSE(free_during_the_wait);
    EXPECT_THAT(reboots(), IsEmpty());
    EXPECT_EQ(calls_of({"cmd_factory_reset"}).size(), 3600U);
}

TEST_F(ResetButton, DoesNotHoldTheMutexOnceItIsCutShort) {
    given_event("3");
    fakes::device().reboots = fakes::reboot_mode::THROWS;

    EXPECT_THROW(poll_reset_button(), fake_reboot);

    EXPECT_TRUE(mutex_is_free());
}
