#include "platform/vantrel.h"
#include "tests/fakes/private_root.h"
#include "tests/platform/support.h"

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

constexpr const char *JOB = "/var/data/orv/vantrel_iot/jobs/active/77";
constexpr const char *JOBS = "/var/data/orv/vantrel_iot/jobs/active";

Json::Value document(const std::string &name, size_t size = 0) {
    Json::Value value;
    value["name"] = name;
    value["text"] = std::string(size, 'x');
    return value;
}

mode_t mode_of(const std::string &path) {
    struct stat status {};
    stat(path.c_str(), &status);
    return status.st_mode & 07777;
}

// Sees each name that is made in a folder.
class folder_watch {
public:
    explicit folder_watch(const std::string &folder) : fd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        inotify_add_watch(fd, folder.c_str(), IN_CREATE | IN_MOVED_TO);
    }
    ~folder_watch() { close(fd); }
    folder_watch(const folder_watch &) = delete;
    folder_watch &operator=(const folder_watch &) = delete;

    std::vector<std::string> names() const {
        alignas(inotify_event) std::array<char, 65536> buffer;
        const ssize_t size = read(fd, buffer.data(), buffer.size());
        std::vector<std::string> result;
        for (ssize_t at = 0; at < size;) {
            const auto *event = reinterpret_cast<const inotify_event *>(buffer.data() + at);
            result.emplace_back(event->name);
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
        return result;
    }

private:
    int fd;
};

// A device after boot: empty but for its folders, with room on its disk.
class FilesTest : public testing::Test {
protected:
    ~FilesTest() override {
        limit_var_data(VAR_DATA_SIZE);
        for (const char *folder : {"/var/data", "/var/volatile", "/run", "/tmp"})
            empty_directory(folder);
        make_boot_directories();
    }
};
class WriteJsonFile : public FilesTest {};
class ReadJsonFile : public FilesTest {};
class CopyFile : public FilesTest {};
class ReadVarFile : public FilesTest {};
class FileExists : public FilesTest {};
class DeleteFile : public FilesTest {};
class CreatePidfile : public FilesTest {};

// A process id that was a process's a moment ago.
pid_t ended_process() {
    const pid_t child = fork();
    if (child == 0)
        _exit(0);
    int status = 0;
    waitpid(child, &status, 0);
    return child;
}

} // namespace

TEST_F(WriteJsonFile, GivesBackWhatWasWritten) {
    Json::Value value = document("a\"\n\\\tä");
    value["number"] = -1;
    value["big"] = Json::Value::UInt64(18446744073709551615u);
    value["real"] = 0.1;
    value["list"].append(Json::nullValue);
    ASSERT_EQ(write_json_file(JOB, value), 0);
    Json::Value back;
    ASSERT_EQ(read_json_file(JOB, back), 0);
    EXPECT_EQ(back, value);
}

TEST_F(WriteJsonFile, ReplacesALongerFileWhole) {
    ASSERT_EQ(write_json_file(JOB, document("long", 100000)), 0);
    ASSERT_EQ(write_json_file(JOB, document("short")), 0);
    Json::Value back;
    ASSERT_EQ(read_json_file(JOB, back), 0);
    EXPECT_EQ(back, document("short"));
}

TEST_F(WriteJsonFile, MakesNothingButTheFileInTheTargetsFolder) {
    const folder_watch watch(JOBS);
    ASSERT_EQ(write_json_file(JOB, document("a")), 0);
    ASSERT_EQ(copy_file(JOB, (std::string(JOBS) + "/78").c_str()), 0);
    ASSERT_EQ(write_json_file(JOB, document("b")), 0);
    EXPECT_THAT(watch.names(), ElementsAre("77", "78", "77"));
    EXPECT_THAT(names_in("/var/data/.tmp"), IsEmpty());
}

TEST_F(WriteJsonFile, WorksOnEveryFileSystemOfTheDevice) {
    for (const char *path :
         {"/var/data/a", "/var/volatile/orv/a", "/var/run/a", "/run/a", "/tmp/a", "/dev/shm/a"}) {
        EXPECT_EQ(write_json_file(path, document(path)), 0) << path;
        Json::Value back;
        EXPECT_EQ(read_json_file(path, back), 0) << path;
        EXPECT_EQ(back, document(path));
    }
    for (const char *folder :
         {"/var/data/.tmp", "/var/volatile/.tmp", "/run/.tmp", "/tmp/.tmp", "/dev/shm/.tmp"}) {
        EXPECT_TRUE(fs::is_directory(folder)) << folder;
        EXPECT_THAT(names_in(folder), IsEmpty()) << folder;
    }
}

TEST_F(WriteJsonFile, FailsWithoutTheTargetsFolder) {
    EXPECT_EQ(write_json_file("/var/data/missing/file", document("a")), -1);
    EXPECT_THAT(names_in("/var/data/.tmp"), IsEmpty());
}

TEST_F(WriteJsonFile, KeepsTheModeOfAFileThatIsThere) {
    const mode_t mask = umask(022);
    write_json_file(JOB, document("a"));
    for (const mode_t mode : {0640, 0600, 0644}) {
        chmod(JOB, mode);
        write_json_file(JOB, document("b"));
        EXPECT_EQ(mode_of(JOB), mode);
    }
    umask(mask);
}

// A job or a candidate may hold a passphrase in plain text.
TEST_F(WriteJsonFile, MakesANewFileForItsOwnerAlone) {
    const mode_t mask = umask(022);
    for (const char *path : {JOB, "/var/volatile/config/config.new", "/var/data/orv/config.staged"}) {
        write_json_file(path, document("a"));
        EXPECT_EQ(mode_of(path), mode_t{0600}) << path;
    }
    copy_file(JOB, "/var/data/orv/ACTIVE_JOB");
    EXPECT_EQ(mode_of("/var/data/orv/ACTIVE_JOB"), mode_t{0600});
    umask(mask);
}

TEST_F(WriteJsonFile, LeavesWhatOtherServicesReadReadable) {
    const mode_t mask = umask(022);
    for (const char *path :
         {"/var/volatile/config/config.running", "/var/volatile/config/apply.status",
          "/var/volatile/config/config.meta", "/var/volatile/config/hardware.running",
          "/var/data/orv/config.json", "/var/data/orv/config.hardware", "/var/data/orv/FAILSAFE_TIMER"}) {
        write_json_file(path, document("a"));
        EXPECT_EQ(mode_of(path), mode_t{0644}) << path;
        unlink(path);
        write_json_file("/var/volatile/config/config.new", document("candidate"));
        copy_file("/var/volatile/config/config.new", path);
        EXPECT_EQ(mode_of(path), mode_t{0644}) << path;
    }
    create_pidfile("/var/run/tessard.pid");
    EXPECT_EQ(mode_of("/var/run/tessard.pid"), mode_t{0644});
    umask(mask);
}

TEST_F(WriteJsonFile, FollowsALink) {
    write_json_file(JOB, document("a"));
    fs::create_symlink(JOB, "/var/run/LINK");
    ASSERT_EQ(write_json_file("/var/run/LINK", document("b")), 0);
    EXPECT_TRUE(fs::is_symlink("/var/run/LINK"));
    Json::Value back;
    read_json_file(JOB, back);
    EXPECT_EQ(back, document("b"));
}

TEST_F(WriteJsonFile, KeepsTheOldFileWhenTheDiskIsFull) {
    write_json_file(JOB, document("old", 1000));
    const std::string old = read_text(JOB);
    limit_var_data(1 << 20);
    EXPECT_EQ(write_json_file(JOB, document("new", 2 << 20)), -1);
    EXPECT_EQ(read_text(JOB), old);
    EXPECT_THAT(names_in("/var/data/.tmp"), IsEmpty());
    EXPECT_EQ(write_json_file(JOB, document("small")), 0);
}

TEST_F(WriteJsonFile, KeepsTheOldFileWhenNotEvenAnEmptyFileFits) {
    write_json_file(JOB, document("old", 1000));
    const std::string old = read_text(JOB);
    limit_var_data(1 << 20);
    std::ofstream("/var/data/filler") << std::string(2 << 20, 'x');
    EXPECT_EQ(write_json_file(JOB, document("new", 1000)), -1);
    EXPECT_EQ(copy_file("/proc/self/maps", JOB), -1);
    EXPECT_EQ(read_text(JOB), old);
    EXPECT_THAT(names_in("/var/data/.tmp"), IsEmpty());
}

TEST_F(WriteJsonFile, RemovesWhatAKilledWriterLeft) {
    const std::string dead = "/var/data/.tmp/" + std::to_string(ended_process()) + ".0";
    const std::string alive = "/var/data/.tmp/" + std::to_string(getppid()) + ".0";
    const int status = exit_status_of([&] { // a process that has written nothing yet
        write_text(dead, "half");
        write_text(alive, "half");
        write_text("/var/data/.tmp/note", "not a temporary file");
        return write_json_file(JOB, document("a"));
    });
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(fs::exists(dead));
    EXPECT_TRUE(fs::exists(alive));
    EXPECT_TRUE(fs::exists("/var/data/.tmp/note"));
}

TEST_F(WriteJsonFile, NeverShowsAReaderAPart) {
    write_json_file(JOB, document("first", 20000));
    std::atomic<bool> done{false};
    std::vector<int> results;
    std::thread reader([&] {
        while (!done) {
            Json::Value seen;
            results.push_back(read_json_file(JOB, seen));
        }
    });
    std::thread other([&] {
        for (int i = 0; i < 100; ++i)
            write_json_file(JOB, document("other", 30000));
    });
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(write_json_file(JOB, document("one", 10000)), 0);
    other.join();
    done = true;
    reader.join();
    EXPECT_THAT(results, Each(0));
}

TEST_F(ReadJsonFile, FailsAndLeavesTheValueWithoutAWholeDocument) {
    Json::Value value = document("before");
    EXPECT_EQ(read_json_file("/var/data/missing", value), -1);
    EXPECT_EQ(read_json_file("/var/data", value), -1);
    for (const char *text : {"", "  \n", "{", R"({"a":1)", R"({"a":1} x)", "{}{}", R"({"a":01})", "nul"}) {
        write_text("/var/data/broken", text);
        EXPECT_EQ(read_json_file("/var/data/broken", value), -1) << text;
    }
    EXPECT_EQ(value, document("before"));
}

TEST_F(CopyFile, CopiesBytesAndMode) {
    const std::string bytes("a\0b\n\xff", 5);
    write_text("/var/data/from", bytes + std::string(200000, 'y'));
    chmod("/var/data/from", 0640);
    ASSERT_EQ(copy_file("/var/data/from", "/var/volatile/config/to"), 0);
    EXPECT_EQ(read_text("/var/volatile/config/to"), read_text("/var/data/from"));
    EXPECT_EQ(mode_of("/var/volatile/config/to"), mode_t{0640});
}

TEST_F(CopyFile, CopiesAnEmptyFile) {
    write_text("/var/data/from", "");
    write_text("/var/data/to", "old");
    ASSERT_EQ(copy_file("/var/data/from", "/var/data/to"), 0);
    EXPECT_EQ(fs::file_size("/var/data/to"), 0U);
}

TEST_F(CopyFile, LeavesTheTargetWithoutASource) {
    write_text("/var/data/to", "old");
    EXPECT_EQ(copy_file("/var/data/missing", "/var/data/to"), -1);
    EXPECT_EQ(copy_file("/var/data", "/var/data/to"), -1);
    EXPECT_EQ(read_text("/var/data/to"), "old");
    EXPECT_NE(copy_file("/var/data/missing", "/var/data/none"), 0);
    EXPECT_FALSE(fs::exists("/var/data/none"));
}

TEST_F(CopyFile, LeavesTheTargetWhenTheDiskIsFull) {
    write_text("/tmp/large", std::string(2 << 20, 'x'));
    write_text("/var/data/to", "old");
    limit_var_data(1 << 20);
    EXPECT_EQ(copy_file("/tmp/large", "/var/data/to"), -1);
    EXPECT_EQ(read_text("/var/data/to"), "old");
    EXPECT_THAT(names_in("/var/data/.tmp"), IsEmpty());
}

namespace {

struct line_case {
    std::string text;
    std::string line;
};

} // namespace

TEST_F(ReadVarFile, ReadsTheFirstLineWithoutItsEnd) {
    const std::string longest(255, 'l');
    for (const line_case &row : std::vector<line_case>{{"1234-abc\n", "1234-abc"},
                                                       {"no end", "no end"},
                                                       {"one\ntwo\n", "one"},
                                                       {"\nsecond", ""},
                                                       {"", ""},
                                                       {" spaces \n", " spaces "},
                                                       {longest + "\n", longest},
                                                       {longest + "more", longest}}) {
        write_text("/var/volatile/orv/file", row.text);
        std::array<char, 256> buffer{};
        EXPECT_EQ(read_var_file("/var/volatile/orv/file", buffer.data()), 0);
        EXPECT_STREQ(buffer.data(), row.line.c_str());
    }
}

TEST_F(ReadVarFile, WritesNothingBehindTheText) {
    write_text("/var/volatile/orv/file", "12\nmore");
    std::array<char, 256> buffer;
    buffer.fill('#');
    read_var_file("/var/volatile/orv/file", buffer.data());
    EXPECT_EQ(std::string(buffer.data(), 5), std::string("12\0##", 5));
}

TEST_F(ReadVarFile, FailsWithoutAFileAndLeavesTheBuffer) {
    std::array<char, 256> buffer{"before"};
    EXPECT_EQ(read_var_file("/var/volatile/missing", buffer.data()), -1);
    EXPECT_EQ(read_var_file("/var/volatile", buffer.data()), -1);
    EXPECT_STREQ(buffer.data(), "before");
}

TEST_F(FileExists, TellsFilesAndFolders) {
    write_text("/var/data/file", "");
    EXPECT_NE(file_exists("/var/data/file"), 0);
    EXPECT_NE(file_exists("/var/data"), 0);
    EXPECT_EQ(file_exists("/var/data/missing"), 0);
    EXPECT_EQ(file_exists("/var/data/file/below"), 0);
}

TEST_F(DeleteFile, RemovesTheLinkAndNotItsTarget) {
    write_text("/var/data/file", "kept");
    fs::create_symlink("/var/data/file", "/var/run/ACTIVE_JOB");
    EXPECT_EQ(delete_file("/var/run/ACTIVE_JOB"), 0);
    EXPECT_FALSE(fs::is_symlink("/var/run/ACTIVE_JOB"));
    EXPECT_EQ(read_text("/var/data/file"), "kept");
    EXPECT_EQ(delete_file("/var/data/file"), 0);
    EXPECT_FALSE(fs::exists("/var/data/file"));
}

TEST_F(DeleteFile, TakesAMissingFileForDeleted) {
    write_text("/var/data/file", "");
    EXPECT_EQ(delete_file("/var/data/missing"), 0);
    EXPECT_EQ(delete_file("/var/data/file/below"), 0);
    EXPECT_NE(delete_file("/var/data"), 0);
}

TEST_F(CreatePidfile, HoldsTheProcessId) {
    ASSERT_EQ(create_pidfile("/var/run/tessard.pid"), 0);
    EXPECT_EQ(std::stoi(read_text("/var/run/tessard.pid")), getpid());
    EXPECT_NE(create_pidfile("/var/run/missing/tessard.pid"), 0);
}
