#include "platform/vantrel.h"
#include "tests/platform/disk_model.h"
#include "tests/platform/support.h"
#include "tests/platform/traced_run.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <set>
#include <sys/syscall.h>
#include <unistd.h>

using testing::AnyOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char *FOLDER = "/var/data/orv/vantrel_iot/jobs/active";
const std::string TARGET = std::string(FOLDER) + "/77";
const std::string OLD = "old content\n";

// The ways in which a file is replaced.
struct replacing {
    const char *name;
    std::function<int()> run;
};

void PrintTo(const replacing &row, std::ostream *out) {
    *out << row.name;
}

class PowerCut : public testing::TestWithParam<replacing> {
protected:
    PowerCut() {
        write_text("/var/data/source", std::string(150000, 's'));
        write_json_file(TARGET.c_str(), 0); // the folder for temporary files is there already
        EXPECT_EQ(GetParam().run(), 0);
        new_content = read_text(TARGET);
        write_text(TARGET, OLD);
    }

    // Short names for what a cut leaves, so that a failure can be read.
    std::set<std::string> named(const std::set<std::string> &contents) const {
        std::set<std::string> result;
        for (const std::string &content : contents)
            result.insert(content == OLD           ? "old"
                          : content == new_content ? "new"
                                                   : "broken, " + std::to_string(content.size()) + " bytes");
        return result;
    }

    std::string new_content;
};

int write_document() {
    Json::Value document;
    document["jobId"] = "77";
    document["text"] = std::string(20000, 'x');
    return write_json_file(TARGET.c_str(), document);
}

int copy_source() {
    return copy_file("/var/data/source", TARGET.c_str());
}

void write_in_place() {
    std::ofstream(TARGET) << "new content\n";
}

void rename_without_flush() {
    std::ofstream("/var/data/unflushed") << "new content\n";
    std::rename("/var/data/unflushed", TARGET.c_str());
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Each, PowerCut,
                         testing::Values(replacing{"WriteJsonFile", write_document},
                                         replacing{"CopyFile", copy_source}),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_P(PowerCut, KilledBetweenAnyTwoSystemCallsLeavesTheOldFileOrTheNew) {
    unsigned stop = 0;
    for (; killed_at(stop, [&] { GetParam().run(); }); ++stop) {
        ASSERT_THAT(named({read_text(TARGET)}), Each(AnyOf("old", "new"))) << "killed at stop " << stop;
        ASSERT_THAT(names_in(FOLDER), ElementsAre("77"));
        write_text(TARGET, OLD);
    }
    EXPECT_GT(stop, 10U);
    EXPECT_EQ(exit_status_of([&] { return GetParam().run(); }), 0);
    EXPECT_THAT(names_in("/var/data/.tmp"), IsEmpty()) << "left by the killed ones";
}

TEST_P(PowerCut, LosingWhatWasNotFlushedLeavesTheOldFileOrTheNew) {
    const auto calls = calls_of([&] { GetParam().run(); });
    const cut_states states = states_after_cuts(calls, TARGET, OLD);
    ASSERT_THAT(named({states.without_cut}), ElementsAre("new"));
    EXPECT_THAT(named(states.anywhere), ElementsAre("new", "old"));
    EXPECT_THAT(named(states.at_the_end), ElementsAre("new")) << "done, so it stays";
}

TEST(DiskModel, FindsAFileWrittenInPlace) {
    write_text(TARGET, OLD);
    const cut_states states = states_after_cuts(calls_of(write_in_place), TARGET, OLD);
    EXPECT_EQ(states.without_cut, "new content\n");
    EXPECT_THAT(states.anywhere, Contains(""));
    EXPECT_THAT(states.anywhere, Contains("new co"));
}

TEST(DiskModel, FindsARenameWithoutAFlush) {
    write_text(TARGET, OLD);
    const cut_states states = states_after_cuts(calls_of(rename_without_flush), TARGET, OLD);
    EXPECT_EQ(states.without_cut, "new content\n");
    EXPECT_THAT(states.anywhere, Contains(""));
    EXPECT_THAT(states.at_the_end, Contains(OLD));
}

TEST(SyncToFs, FlushesTheFileSystemOfPersistentStorage) {
    const auto calls = calls_of([] { sync_to_fs(2); });
    const auto opened = std::find_if(calls.begin(), calls.end(), [](const traced_call &call) {
        return call.path == "/var/data" && call.result >= 0;
    });
    ASSERT_NE(opened, calls.end());
    const auto flushed = std::find_if(opened, calls.end(), [](const traced_call &call) {
        return call.number == SYS_syncfs || call.number == SYS_sync;
    });
    ASSERT_NE(flushed, calls.end());
    EXPECT_EQ(flushed->result, 0);
    if (flushed->number == SYS_syncfs) {
        EXPECT_EQ(static_cast<int64_t>(flushed->arguments[0]), opened->result);
    }
}
