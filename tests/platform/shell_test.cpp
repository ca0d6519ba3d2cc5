#include "platform/vantrel.h"
#include "tests/platform/support.h"

#include <gmock/gmock.h>

#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

TEST(Orvsys, ReturnsTheExitStatus) {
    EXPECT_EQ(orvsys("true"), 0);
    EXPECT_EQ(orvsys("exit %d", 7), 7);
    EXPECT_EQ(orvsys("exit 255"), 255);
    EXPECT_EQ(orvsys("no-such-command 2>/dev/null"), 127);
}

TEST(Orvsys, FormatsItsArguments) {
    ASSERT_EQ(orvsys("echo '%s' %d %% > %s", "a b", 42, "/tmp/out"), 0);
    EXPECT_EQ(read_text("/tmp/out"), "a b 42 %\n");
}

TEST(Orvsys, RunsByTheShell) {
    ASSERT_EQ(orvsys("cd /tmp; for i in 1 2; do echo $i; done | wc -l > out && test -s out"), 0);
    EXPECT_EQ(std::stoi(read_text("/tmp/out")), 2);
}

TEST(Orvsys, Gives124ForACommandEndedByTimeout) {
    EXPECT_EQ(orvsys("timeout %s /bin/sh -c 'sleep 1000'", "0.05"), 124);
}

TEST(Orvsys, Gives128AndTheSignal) {
    EXPECT_EQ(orvsys("kill -KILL $$"), 128 + SIGKILL);
    EXPECT_EQ(orvsys("kill -TERM $$"), 128 + SIGTERM);
    EXPECT_EQ(orvsys("sh -c 'kill -KILL $$'; exit $?"), 128 + SIGKILL);
}

TEST(Orvsys, WaitsForTheCommand) {
    ASSERT_EQ(orvsys("sleep 0.1; echo done > /tmp/out"), 0);
    EXPECT_EQ(read_text("/tmp/out"), "done\n");
}

TEST(Orvsys, TakesATextOfAnyLength) {
    for (const size_t length : {1000UL, 131000UL, 131060UL, 131072UL, 131080UL, 3000000UL}) {
        const std::string text(length, 'x');
        EXPECT_EQ(orvsys("x=%s; echo ${#x} > /tmp/out; exit 5", text.c_str()), 5) << length;
        EXPECT_EQ(read_text("/tmp/out"), std::to_string(length) + "\n");
    }
}

TEST(Orvsys, TakesATextThatJustFitsAnArgumentAndOneThatDoesNot) {
    for (const size_t length : {131070UL, 131071UL, 131072UL, 131073UL})
        EXPECT_EQ(orvsys("exit 5 #%s", std::string(length - 8, 'x').c_str()), 5) << length;
}

TEST(Orvsys, GivesMinusOneWithoutAShell) {
    {
        const missing_command shell("sh");
        EXPECT_EQ(orvsys("true"), -1);
    }
    EXPECT_EQ(orvsys("true"), 0);
}

TEST(Orvsys, GoesOnWaitingWhenASignalComes) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    struct sigaction before {};
    sigaction(SIGALRM, &action, &before);
    const itimerval often{{0, 5000}, {0, 5000}};
    const itimerval never{};
    setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_EQ(orvsys("sleep 0.1; exit 3"), 3);
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before, nullptr);
}

TEST(Orvsys, LearnsTheStatusInAProcessThatWasStartedToIgnoreItsChildren) {
    EXPECT_EQ(exit_status_of([] {
                  signal(SIGCHLD, SIG_IGN);
                  return orvsys("exit 9");
              }),
              9);
}

TEST(Orvsys, LetsABrokenPipeEndACommand) {
    EXPECT_EQ(exit_status_of([] {
                  signal(SIGPIPE, SIG_IGN); // as the MQTT library does
                  return orvsys("kill -PIPE $$");
              }),
              128 + SIGPIPE);
}

TEST(Orvsys, HandsNoOpenFileDown) {
    constexpr int FD = 57;
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(dup2(null, FD), FD);
    EXPECT_EQ(orvsys("test ! -e /proc/$$/fd/%d", FD), 0);
    EXPECT_EQ(orvsys("test -e /proc/$$/fd/1"), 0);
    close(FD);
    close(null);
}

TEST(Orvsys, GivesEachOfTwoThreadsItsOwnStatus) {
    int other = 0;
    std::thread thread([&] {
        for (int i = 0; i < 20; ++i)
            other += orvsys("exit 1");
    });
    int own = 0;
    for (int i = 0; i < 20; ++i)
        own += orvsys("exit 2");
    thread.join();
    EXPECT_EQ(other, 20);
    EXPECT_EQ(own, 40);
}
