#include "platform/sysdb.h"
#include "platform/vantrel.h"
#include "tests/platform/support.h"

#include <gmock/gmock.h>

#include <array>
#include <sqlite3.h>

namespace {

// Runs the command; its output stands in /tmp/out, its errors in /tmp/err.
int sysdb(const std::string &arguments) {
    return orvsys("%s %s > /tmp/out 2> /tmp/err", SYSDB_COMMAND, arguments.c_str());
}

} // namespace

TEST(SysdbCommand, SetsWhatTheLibraryReads) {
    ASSERT_EQ(sysdb("set SYS_FW_LABEL 'release 1.2'"), 0) << read_text("/tmp/err");
    std::array<char, 32> text{};
    EXPECT_EQ(sysdb_read_str(0, "SYS_FW_LABEL", text.data(), 31), 0);
    EXPECT_STREQ(text.data(), "release 1.2");
    EXPECT_EQ(sysdb("set CELL_CONNECTED -1"), 0) << read_text("/tmp/err");
    int value = 0;
    EXPECT_EQ(sysdb_read_int(0, "CELL_CONNECTED", &value), 0);
    EXPECT_EQ(value, -1);
}

TEST(SysdbCommand, TakesATextThatIsNoNumberForNone) {
    int value = 42;
    for (const char *text : {"''", "x", "1x", "1.5", "' 1'", "99999999999"}) {
        ASSERT_EQ(sysdb(std::string("set KEY ") + text), 0);
        EXPECT_NE(sysdb_read_int(0, "KEY", &value), 0) << text;
    }
    EXPECT_EQ(value, 42);
}

TEST(SysdbLock, IsNotTakenToWriteTheValueThatIsThere) {
    ASSERT_EQ(sysdb_namedb_write_int(nullptr, "SYS", "SYS_JOB_COUNT", 17, 0), 0);
    sqlite3 *other = nullptr;
    ASSERT_EQ(sqlite3_open("/var/volatile/sysdb/sysdb.sqlite", &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_EQ(sysdb_namedb_write_int(nullptr, "SYS", "SYS_JOB_COUNT", 17, 0), 0);
    int value = 0;
    EXPECT_EQ(sysdb_read_int(0, "SYS_JOB_COUNT", &value), 0);
    EXPECT_EQ(value, 17);
    sqlite3_close(other);
    EXPECT_EQ(sysdb_namedb_write_int(nullptr, "SYS", "SYS_JOB_COUNT", 18, 0), 0);
}

TEST(SysdbCommand, GetsWhatTheLibraryWrote) {
    sysdb_namedb_write_int(nullptr, "SYS", "SYS_JOB_COUNT", 17, 0);
    EXPECT_EQ(sysdb("get SYS_JOB_COUNT"), 0);
    EXPECT_EQ(read_text("/tmp/out"), "17\n");
}

TEST(SysdbCommand, SaysThatAKeyIsNotThere) {
    EXPECT_EQ(sysdb("get MISSING"), 1);
    EXPECT_EQ(read_text("/tmp/out"), "");
    EXPECT_THAT(read_text("/tmp/err"), testing::HasSubstr("MISSING"));
}

TEST(SysdbCommand, ListsBothDatabasesByKey) {
    sysdb("set ZZZ last");
    sysdb("set SYS_JOB_COUNT 1");
    EXPECT_EQ(sysdb("list"), 0);
    EXPECT_THAT(read_text("/tmp/out"), testing::ContainsRegex("SYS_JOB_COUNT=1\n(.*\n)*ZZZ=last\n"));
}

TEST(SysdbCommand, SaysThatItCannotWrite) {
    orvsys("rm -rf /var/data/sysdb; touch /var/data/sysdb");
    EXPECT_EQ(sysdb("set KEY 1"), 1);
    EXPECT_NE(read_text("/tmp/err"), "");
    delete_file("/var/data/sysdb");
}

TEST(SysdbCommand, RefusesWhatItDoesNotKnow) {
    EXPECT_NE(sysdb(""), 0);
    EXPECT_NE(sysdb("drop KEY"), 0);
    EXPECT_NE(sysdb("get"), 0);
    EXPECT_NE(sysdb("set KEY"), 0);
    EXPECT_EQ(sysdb("--help"), 0);
}
