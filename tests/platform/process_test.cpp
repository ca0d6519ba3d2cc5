// What the host's libraries share to run programs.
#include "host/vantrel/process.h"

#include <gtest/gtest.h>

#include <csignal>

TEST(RunProgram, FindsItOnThePathAndTakesNoShell) {
    EXPECT_EQ(run_program({"sh", "-c", "exit 4"}), 4);
    EXPECT_EQ(run_program({"test", "$HOME", "=", "$HOME"}), 0);
    EXPECT_EQ(run_program({"no-such-program"}), -1);
}

TEST(RunProgramSilently, KillsWhatTakesTooLong) {
    EXPECT_EQ(run_program_silently({"sleep", "1000"}, std::chrono::milliseconds(20)), 128 + SIGKILL);
}

TEST(RunProgramSilently, LeavesInputAndOutputsAlone) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(run_program_silently({"sh", "-c", "echo shown; echo shown >&2; ! read line"},
                                   std::chrono::minutes(1)),
              0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}
