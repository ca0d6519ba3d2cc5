#include "tests/fakes/agent_test.h"

#include "agent/active_job_count.h"

#include <filesystem>

using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr const char *SCRATCH = "/tmp/.active_job_count";
constexpr const char *COUNT_COMMAND =
    "/bin/ls /var/data/orv/vantrel_iot/jobs/active/ | /usr/bin/wc -l > /tmp/.active_job_count";

} // namespace

class ActiveJobCount : public AgentTest {
protected:
    // The counting command leaves this text behind instead.
    static void given_count_text(const std::string &text) {
        answer_command("wc -l", [text](const std::string &) {
            write_text(SCRATCH, text);
            return 0;
        });
    }

    static void expect_database_untouched() { EXPECT_THAT(calls_of({"sysdb_namedb_write_int"}), IsEmpty()); }
};

TEST_F(ActiveJobCount, CountsTheNamesInTheFolder) {
    for (const char *name : {"1", "2", "not a job"})
        write_text(std::string(ACTIVE_FOLDER) + name, "");

    EXPECT_EQ(update_active_job_count(), 3);

    EXPECT_EQ(fakes::config().database_ints["SYS_JOB_COUNT"], 3);
    EXPECT_THAT(log_lines(), ListIs(Debug("active job count: 3")));
}

TEST_F(ActiveJobCount, DeletesCountsAndStoresInThisOrder) {
    write_text(SCRATCH, "99\n");

    EXPECT_EQ(update_active_job_count(), 0);

    EXPECT_THAT(calls(), ListIs("delete_file /tmp/.active_job_count", std::string("orvsys ") + COUNT_COMMAND,
                                "sysdb_namedb_write_int SYS SYS_JOB_COUNT 0"));
}

TEST_F(ActiveJobCount, IsZeroForAnEmptyFolder) {
    EXPECT_EQ(update_active_job_count(), 0);

    EXPECT_THAT(log_lines(), ListIs(Debug("active job count: 0")));
    EXPECT_EQ(fakes::config().database_ints.at("SYS_JOB_COUNT"), 0);
}

TEST_F(ActiveJobCount, IsZeroForAMissingFolder) {
    std::filesystem::remove(ACTIVE_FOLDER);

    EXPECT_EQ(update_active_job_count(), 0);

    EXPECT_EQ(fakes::config().database_ints.at("SYS_JOB_COUNT"), 0);
}

TEST_F(ActiveJobCount, LeavesTheScratchFileBehind) {
    given_active_job(R"({"jobId":"1"})");
    update_active_job_count();

    EXPECT_EQ(file_text(SCRATCH), "1\n");
}

TEST_F(ActiveJobCount, FailsSilentlyWithoutTheScratchFile) {
    answer_command("wc -l", 127);

    EXPECT_EQ(update_active_job_count(), -1);

    EXPECT_THAT(log_lines(), IsEmpty());
    expect_database_untouched();
}

TEST_F(ActiveJobCount, FailsSilentlyOnAnEmptyScratchFile) {
    given_count_text("");

    EXPECT_EQ(update_active_job_count(), -1);

    EXPECT_THAT(log_lines(), IsEmpty());
    expect_database_untouched();
}

TEST_F(ActiveJobCount, NeverReadsTheCountOfAnEarlierTime) {
    write_text(SCRATCH, "99\n");
    answer_command("wc -l", 1);

    EXPECT_EQ(update_active_job_count(), -1);
    expect_database_untouched();
}

TEST_F(ActiveJobCount, LogsButDoesNotStoreANegativeNumber) {
    given_count_text("-3\n");

    EXPECT_EQ(update_active_job_count(), -1);

    EXPECT_THAT(log_lines(), ListIs(Debug("active job count: -3")));
    expect_database_untouched();
}

TEST_F(ActiveJobCount, ReadsTheNumberInBaseTen) {
    given_count_text("   010 jobs\n");

    EXPECT_EQ(update_active_job_count(), 10);
}

TEST_F(ActiveJobCount, TakesALineFarLongerThanANumber) {
    given_count_text("12" + std::string(400, ' '));

    EXPECT_EQ(update_active_job_count(), 12);
}

TEST_F(ActiveJobCount, IgnoresAFailureToStore) {
    fakes::will_return("sysdb_namedb_write_int", {-1});

    EXPECT_EQ(update_active_job_count(), 0);
}
