#include "platform/sysdb.h"
#include "tests/platform/support.h"

#include <gmock/gmock.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <map>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

int write_int(const char *key, int value) {
    return sysdb_namedb_write_int(nullptr, "SYS", key, value, 0);
}

int read_int(const char *key) {
    int value = -99;
    EXPECT_EQ(sysdb_read_int(0, key, &value), 0) << key;
    return value;
}

// Path to bytes and time of the last change, of everything below the two folders of the device.
std::map<std::string, std::pair<std::string, int64_t>> all_files() {
    std::map<std::string, std::pair<std::string, int64_t>> files;
    for (const char *folder : {"/var/data", "/var/volatile"})
        for (const auto &entry : fs::recursive_directory_iterator(folder)) {
            struct stat status {};
            stat(entry.path().c_str(), &status);
            const int64_t time = status.st_mtim.tv_sec * 1000000000 + status.st_mtim.tv_nsec;
            files[entry.path()] = {entry.is_regular_file() ? read_text(entry.path()) : "", time};
        }
    return files;
}

pid_t start(const std::function<int()> &body) {
    const pid_t child = fork();
    if (child == 0)
        _exit(body());
    return child;
}

int end_of(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

class Sysdb : public testing::Test {
protected:
    Sysdb() {
        fs::remove_all("/var/data/sysdb");
        fs::remove_all("/var/volatile/sysdb");
    }
};

} // namespace

TEST_F(Sysdb, GivesBackWhatWasWritten) {
    for (const int value : {0, 1, -1, 2147483647, -2147483647 - 1}) {
        EXPECT_EQ(write_int("SYS_JOB_COUNT", value), 0);
        EXPECT_EQ(read_int("SYS_JOB_COUNT"), value);
    }
    std::array<char, 32> text{};
    EXPECT_EQ(sysdb_read_str(0, "SYS_JOB_COUNT", text.data(), 31), 0);
    EXPECT_STREQ(text.data(), "-2147483648");
}

TEST_F(Sysdb, LeavesTheValueWhenTheKeyIsNotThere) {
    int value = 42;
    EXPECT_NE(sysdb_read_int(0, "MISSING", &value), 0) << "no database yet";
    write_int("OTHER", 1);
    EXPECT_NE(sysdb_read_int(0, "MISSING", &value), 0);
    EXPECT_EQ(value, 42);
    std::array<char, 8> text{"before"};
    EXPECT_NE(sysdb_read_str(0, "MISSING", text.data(), 7), 0);
    EXPECT_STREQ(text.data(), "before");
}

TEST_F(Sysdb, WritesAtMostMaxCharactersAndAZero) {
    write_int("KEY", 123456789);
    std::array<char, 8> text;
    for (const auto &[max, expected] : std::map<int, std::string>{{0, ""}, {1, "1"}, {5, "12345"}}) {
        text.fill('#');
        EXPECT_EQ(sysdb_read_str(0, "KEY", text.data(), max), 0);
        EXPECT_STREQ(text.data(), expected.c_str());
        EXPECT_EQ(text[expected.size() + 1], '#');
    }
    EXPECT_NE(sysdb_read_str(0, "KEY", text.data(), -1), 0);
}

TEST_F(Sysdb, HasOneStore) {
    EXPECT_NE(sysdb_namedb_write_int(nullptr, "OTHER", "KEY", 1, 0), 0);
    write_int("KEY", 1);
    int value = 0;
    EXPECT_NE(sysdb_read_int(1, "KEY", &value), 0);
    std::array<char, 8> text{};
    EXPECT_NE(sysdb_read_str(1, "KEY", text.data(), 7), 0);
}

TEST_F(Sysdb, KeepsVolatileKeysOffPersistentStorage) {
    for (const char *key : {"SYS_JOB_COUNT", "CELL_CONNECTED", "SIM_IN_USE"})
        EXPECT_EQ(write_int(key, 1), 0);
    EXPECT_FALSE(fs::exists("/var/data/sysdb"));
    write_int("LASTING", 5);
    fs::remove_all("/var/volatile/sysdb"); // as a reboot does
    int value = 0;
    EXPECT_NE(sysdb_read_int(0, "CELL_CONNECTED", &value), 0);
    EXPECT_EQ(read_int("LASTING"), 5);
}

TEST_F(Sysdb, WritesNothingWhenTheValueIsThere) {
    write_int("SYS_JOB_COUNT", 3);
    write_int("LASTING", 4);
    const auto before = all_files();
    EXPECT_EQ(write_int("SYS_JOB_COUNT", 3), 0);
    EXPECT_EQ(write_int("LASTING", 4), 0);
    EXPECT_EQ(all_files(), before);
    write_int("LASTING", 5);
    EXPECT_NE(all_files(), before);
}

TEST_F(Sysdb, WritesNothingWhenItReads) {
    write_int("LASTING", 4);
    const auto before = all_files();
    EXPECT_EQ(read_int("LASTING"), 4);
    int value = 0;
    sysdb_read_int(0, "MISSING", &value);
    sysdb_read_int(0, "CELL_CONNECTED", &value);
    EXPECT_EQ(all_files(), before);
}

TEST_F(Sysdb, FailsWhenItCannotBeWritten) {
    write_text("/var/data/sysdb", "no folder");
    EXPECT_NE(write_int("LASTING", 1), 0);
    fs::remove("/var/data/sysdb");
    write_text("/var/data/sysdb/sysdb.sqlite", std::string(5000, 'x'));
    EXPECT_NE(write_int("LASTING", 1), 0) << "no database";
    int value = 42;
    EXPECT_NE(sysdb_read_int(0, "LASTING", &value), 0);
    EXPECT_EQ(value, 42);
}

TEST_F(Sysdb, ServesSeveralProcessesAtOnce) {
    constexpr int PROCESSES = 4;
    constexpr int WRITES = 25;
    std::vector<pid_t> children;
    for (int own = 0; own < PROCESSES; ++own)
        children.push_back(start([own] {
            const std::string key = "OWN" + std::to_string(own);
            int failures = 0;
            for (int i = 1; i <= WRITES; ++i) {
                failures += write_int(key.c_str(), i) != 0;
                failures += write_int("SYS_JOB_COUNT", own * WRITES + i) != 0;
                int value = 0;
                failures += sysdb_read_int(0, key.c_str(), &value) != 0 || value != i;
            }
            return failures;
        }));
    for (const pid_t child : children)
        EXPECT_EQ(end_of(child), 0);
    for (int own = 0; own < PROCESSES; ++own)
        EXPECT_EQ(read_int(("OWN" + std::to_string(own)).c_str()), WRITES);
}

TEST_F(Sysdb, ServesTwoThreadsAtOnce) {
    std::thread other([] {
        for (int i = 1; i <= 50; ++i)
            EXPECT_EQ(write_int("CELL_CONNECTED", i), 0);
    });
    for (int i = 1; i <= 50; ++i)
        EXPECT_EQ(write_int("SYS_JOB_COUNT", i), 0);
    other.join();
    EXPECT_EQ(read_int("SYS_JOB_COUNT"), 50);
    EXPECT_EQ(read_int("CELL_CONNECTED"), 50);
}

TEST_F(Sysdb, OutlivesWritersThatAreKilled) {
    write_int("LASTING", 0);
    for (int round = 0; round < 10; ++round) {
        const pid_t child = start([] {
            for (int i = 1;; ++i) {
                write_int("LASTING", i);
                write_int("SYS_JOB_COUNT", i);
            }
            return 0;
        });
        const int before = read_int("LASTING");
        while (read_int("LASTING") == before)
            std::this_thread::yield();
        kill(child, SIGKILL);
        end_of(child);
        EXPECT_GT(read_int("LASTING"), 0);
        EXPECT_EQ(write_int("SYS_JOB_COUNT", -1), 0);
        EXPECT_EQ(write_int("LASTING", 0), 0);
    }
}
