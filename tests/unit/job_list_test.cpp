// The list of the active jobs: oldest first.
#include "tests/fakes/agent_test.h"

#include "jobs/job_store.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <functional>

using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

// The C library's scandir, which the tests below look over the shoulder.
namespace {

using entry_filter = int (*)(const dirent *);
using entry_order = int (*)(const dirent **, const dirent **);
using entry_list = dirent ***;

std::function<void(entry_filter, entry_order, dirent **, int)> after_scandir;

} // namespace

extern "C" int __real_scandir(const char *path, entry_list entries, entry_filter filter, entry_order order);
extern "C" int __wrap_scandir(const char *path, entry_list entries, entry_filter filter, entry_order order);

extern "C" int __wrap_scandir(const char *path, entry_list entries, entry_filter filter, entry_order order) {
    const int count = __real_scandir(path, entries, filter, order);
    if (after_scandir && count > 0)
        after_scandir(filter, order, *entries, count);
    return count;
}

class ActiveJobList : public AgentTest {
protected:
    ~ActiveJobList() override { after_scandir = nullptr; }

    static std::string active_path(const std::string &name) { return ACTIVE_FOLDER + name; }

    std::vector<std::string> listed() {
        Json::Value job_ids(Json::arrayValue);
        result = get_active_job_list(job_ids);
        std::vector<std::string> names;
        for (const Json::Value &id : job_ids)
            names.push_back(id.asString());
        return names;
    }

    int result = 1;
};

TEST_F(ActiveJobList, RunsFromTheOldestToTheNewest) {
    write_text(active_path("b"), "{}", 10);
    write_text(active_path("c"), "{}", 20);
    write_text(active_path("a"), "{}", 30);

    EXPECT_THAT(listed(), ListIs("b", "c", "a"));
    EXPECT_EQ(result, 0);
}

TEST_F(ActiveJobList, RunsFromTheOldestToTheNewestInWhateverOrderTheyWereWritten) {
    std::vector<std::string> expected(60);
    for (size_t i = 0; i < expected.size(); i++) {
        const size_t age = (i * 37) % expected.size(); // each age once
        expected[age] = "job" + std::to_string(i);
        write_text(active_path(expected[age]), "{}", START_TIME + static_cast<time_t>(age));
    }

    EXPECT_EQ(listed(), expected);
}

TEST_F(ActiveJobList, GoesByTheFilesTimeAndNotByTheRecord) {
    write_text(active_path("1"), R"({"jobId":"1", "timestamp":10, "ackId":10})", START_TIME + 1);
    write_text(active_path("2"), R"({"jobId":"2", "timestamp":20, "ackId":20})", START_TIME);

    EXPECT_THAT(listed(), ListIs("2", "1"));
}

TEST_F(ActiveJobList, HoldsJobsOfEqualTimeToo) {
    write_text(active_path("1"), "{}", 10);
    write_text(active_path("2"), "{}", 10);
    write_text(active_path("3"), "{}", 10);

    EXPECT_THAT(listed(), UnorderedElementsAre("1", "2", "3"));
}

TEST_F(ActiveJobList, KeepsTheOrderOfOthersAmongJobsOfEqualTime) {
    for (const char *name : {"e", "a", "d", "b"})
        write_text(active_path(name), "{}", 20);
    write_text(active_path("c"), "{}", 30);
    write_text(active_path("f"), "{}", 10);

    const auto names = listed();

    EXPECT_EQ(names.front(), "f");
    EXPECT_EQ(names.back(), "c");
    EXPECT_EQ(names.size(), 6U);
}

TEST_F(ActiveJobList, IsEmptyWithoutJobs) {
    EXPECT_THAT(listed(), IsEmpty());
    EXPECT_EQ(result, 0);
}

TEST_F(ActiveJobList, HoldsEveryNameButTheDirectoryAndItsParent) {
    write_text(active_path(".hidden"), "no JSON", 10);
    write_text(active_path("..x"), "{}", 20);
    std::filesystem::create_directory(active_path("folder"));

    EXPECT_THAT(listed(), UnorderedElementsAre(".hidden", "..x", "folder"));
}

TEST_F(ActiveJobList, IsAppendedToWhatTheArrayHolds) {
    write_text(active_path("1"), "{}", 10);
    Json::Value job_ids = json(R"(["before"])");

    EXPECT_EQ(get_active_job_list(job_ids), 0);

    EXPECT_THAT(job_ids, IsJson(R"(["before", "1"])"));
}

TEST_F(ActiveJobList, OfAMissingDirectoryFailsAndLeavesTheArray) {
    std::filesystem::remove(ACTIVE_FOLDER);
    Json::Value job_ids = json(R"(["before"])");

    testing::internal::CaptureStderr();
    const int failed = get_active_job_list(job_ids);

    EXPECT_EQ(testing::internal::GetCapturedStderr(), "scandir: No such file or directory\n");
    EXPECT_EQ(failed, -1);
    EXPECT_THAT(job_ids, IsJson(R"(["before"])"));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(ActiveJobList, HoldsANameThatCannotBeExaminedAndSaysSo) {
    write_text(active_path("1"), "{}", 10);
    write_text(active_path("2"), "{}", 20);
    std::filesystem::create_symlink("/nowhere", active_path("link"));
    write_text(active_path(std::string(230, 'x')), "{}", 30); // its path does not fit into 256 bytes

    testing::internal::CaptureStderr();
    const auto names = listed();

    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("stat: No such file or directory\n"));
    EXPECT_THAT(names, UnorderedElementsAre("1", "2", "link", std::string(230, 'x')));
    EXPECT_LT(std::ranges::find(names, "1"), std::ranges::find(names, "2"));
    EXPECT_EQ(result, 0);
}

TEST_F(ActiveJobList, AsksTheCLibraryForTheNewestFirstByOneAndZeroAlone) {
    write_text(active_path("old"), "{}", START_TIME);
    write_text(active_path("new"), "{}", START_TIME + 1);
    write_text(active_path("new too"), "{}", START_TIME + 1);
    int compared = 0;
    after_scandir = [&](entry_filter filter, entry_order order, dirent **entries, int count) {
        EXPECT_EQ(filter, nullptr);
        const auto modified = [](const dirent *entry) {
            struct stat info {};
            stat(active_path(entry->d_name).c_str(), &info);
            return info.st_mtime;
        };
        for (int a = 0; a < count; a++)
            for (int b = 0; b < count; b++, compared++) {
                const dirent *left = entries[a];
                const dirent *right = entries[b];
                EXPECT_EQ(order(&left, &right), modified(left) < modified(right) ? 1 : 0)
                    << left->d_name << " " << right->d_name;
            }
    };

    listed();

    EXPECT_EQ(compared, 25); // with the directory and its parent
}

TEST_F(ActiveJobList, IsInOrderWhateverTheCLibraryMakesOfThatComparison) {
    for (int i = 1; i <= 7; i++)
        write_text(active_path(std::to_string(i)), "{}", i * 10);
    after_scandir = [](entry_filter, entry_order, dirent **entries, int count) {
        std::reverse(entries, entries + count);
        std::swap(entries[0], entries[count / 2]);
    };

    EXPECT_THAT(listed(), ListIs("1", "2", "3", "4", "5", "6", "7"));
}
