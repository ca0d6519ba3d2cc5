// What a killed agent has left in memory, before the next one starts.
#include "tests/unit/boot_bed.h"

#include <sys/stat.h>

using testing::IsEmpty;

namespace {

const std::string FOLDER = "/var/volatile/orv/";

} // namespace

class Leftovers : public BootTest {
protected:
    static void restart() { clear_what_a_kill_has_left(); }

    // What the folder still holds.
    static std::vector<std::string> left_of(const std::vector<std::string> &names, const std::string &text) {
        for (const std::string &name : names)
            write_text(FOLDER + name, text);
        restart();
        return names_in(FOLDER);
    }
};

TEST_F(Leftovers, OfACriticalJobGo) {
    EXPECT_THAT(left_of({"CRITICAL_JOB_EXECUTING"}, "1\n"), IsEmpty());
    EXPECT_THAT(log_lines(),
                ListIs(Notice("/var/volatile/orv/CRITICAL_JOB_EXECUTING of a killed agent is deleted")));
}

TEST_F(Leftovers, OfAJobInProgressGo) {
    EXPECT_THAT(left_of({"FW_JOBID"}, "42\n"), IsEmpty());
    EXPECT_THAT(log_lines(), ListIs(Notice("/var/volatile/orv/FW_JOBID of a killed agent is deleted")));
}

TEST_F(Leftovers, ThatNameProcessesOfScriptsGo) {
    EXPECT_THAT(left_of({"42.pid", "a b.pid", "1.2.pid"}, "4711\n"), IsEmpty());
    EXPECT_THAT(left_of({"43.pid"}, ""), IsEmpty());
    EXPECT_EQ(log_lines().size(), 4U);
}

TEST_F(Leftovers, AreNotWhatElseHasThatName) {
    mkdir((FOLDER + "folder.pid").c_str(), 0755);
    mkfifo((FOLDER + "pipe.pid").c_str(), 0644);
    write_text("/run/service", "4711\n");
    ASSERT_EQ(symlink("/run/service", (FOLDER + "link.pid").c_str()), 0);
    write_text(FOLDER + "words.pid", "one 4711\n");
    write_text(FOLDER + ".pid", "4711\n");

    restart();

    EXPECT_THAT(names_in(FOLDER), ListIs(".pid", "folder.pid", "link.pid", "pipe.pid", "words.pid"));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(Leftovers, AreNotScriptsAndOtherMarks) {
    const std::vector<std::string> others = {"42_9:5:7_3-3-2024", "CONFIG_JOB_EXECUTING",  "DEV_MGMT",
                                             "FW_JOB_EXECUTING",  "RADIOFW_JOB_EXECUTING", "WD_MGMT"};
    EXPECT_EQ(left_of(others, "1\n"), others);
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(Leftovers, AreNoneAtTheFirstStartOfABoot) {
    restart();
    EXPECT_THAT(log_lines(), IsEmpty());
    EXPECT_THAT(calls(), IsEmpty());
    rmdir("/var/volatile/orv");
    restart();
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(Leftovers, AreNothingThatIsPersistent) {
    given_cut_apply("failed");
    write_text(UPDATED, "2\n");
    const auto before = all_files();
    restart();
    EXPECT_EQ(all_files(), before);
}
