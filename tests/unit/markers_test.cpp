#include "tests/fakes/agent_test.h"

#include "jobs/markers.h"

#include <filesystem>
#include <thread>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct busy_flag {
    const char *name;
    void (*set)(int on);
    bool (*is_set)();
    std::string marker;
};

void PrintTo(const busy_flag &flag, std::ostream *out) {
    *out << flag.marker;
}

const std::vector<busy_flag> &flags() {
    static const std::vector<busy_flag> ALL = {
        {"Firmware", set_fw_job_executing, is_fw_job_executing, "FW_JOB_EXECUTING"},
        {"Config", set_config_job_executing, is_config_job_executing, "CONFIG_JOB_EXECUTING"},
        {"Modem", set_radiofw_job_executing, is_radiofw_job_executing, "RADIOFW_JOB_EXECUTING"},
        {"Critical", set_critical_job_executing, is_critical_job_executing, "CRITICAL_JOB_EXECUTING"}};
    return ALL;
}

constexpr const char *MARKER_FOLDER = "/var/volatile/orv/";
constexpr const char *DEV_MGMT = "/var/volatile/orv/DEV_MGMT";
constexpr const char *WD_MGMT = "/var/volatile/orv/WD_MGMT";

} // namespace

class BusyFlag : public AgentTest, public testing::WithParamInterface<busy_flag> {
protected:
    ~BusyFlag() override {
        for (const auto &each : flags())
            each.set(0);
    }

    // What the flag says just before the marker file changes.
    void watch_flag() {
        fakes::before_change = [this](const fakes::call &) { seen.push_back(flag.is_set()); };
    }

    const busy_flag &flag = GetParam();
    const std::string marker = MARKER_FOLDER + flag.marker;
    std::vector<bool> seen;
};

INSTANTIATE_TEST_SUITE_P(Each, BusyFlag, testing::ValuesIn(flags()),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_P(BusyFlag, StartsClearedWhateverMarkerAnEarlierRunLeft) {
    write_text(marker, "1\n");

    EXPECT_FALSE(flag.is_set());
    EXPECT_TRUE(exists(marker));
}

TEST_P(BusyFlag, WhenSetHasItsMarkerAndNoOther) {
    flag.set(1);

    EXPECT_EQ(file_text(marker), "1\n");
    EXPECT_THAT(names_in(MARKER_FOLDER), ListIs(flag.marker));
    EXPECT_THAT(calls(), ListIs("orvsys echo 1 > " + marker));
    for (const auto &each : flags())
        EXPECT_EQ(each.is_set(), each.marker == flag.marker) << each.marker;
}

TEST_P(BusyFlag, WhenClearedHasNoMarker) {
    for (const auto &each : flags())
        each.set(1);
    fakes::reset_calls();
    flag.set(0);

    EXPECT_FALSE(exists(marker));
    EXPECT_THAT(calls(), ListIs("delete_file " + marker));
    for (const auto &each : flags())
        EXPECT_EQ(each.is_set(), each.marker != flag.marker) << each.marker;
}

TEST_P(BusyFlag, IsSetByAnyNumberButZero) {
    for (const int on : {-1, 2, 256}) {
        flag.set(on);
        EXPECT_TRUE(flag.is_set()) << on;
        flag.set(0);
    }
}

TEST_P(BusyFlag, IsSetBeforeItsMarkerIsWritten) {
    watch_flag();
    flag.set(1);

    EXPECT_THAT(seen, ElementsAre(true));
}

TEST_P(BusyFlag, IsClearedBeforeItsMarkerIsDeleted) {
    flag.set(1);
    watch_flag();
    flag.set(0);

    EXPECT_THAT(seen, ElementsAre(false));
}

TEST_P(BusyFlag, IsClearedWhenItsMarkerIsGoneAlready) {
    flag.set(1);
    std::filesystem::remove(marker);
    flag.set(0);

    EXPECT_FALSE(flag.is_set());
    EXPECT_FALSE(exists(marker));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_P(BusyFlag, HoldsWhenItsMarkerCannotBeWrittenOrDeleted) {
    answer_command("echo 1 > ", 2);
    flag.set(1);
    EXPECT_TRUE(flag.is_set());

    fakes::always_returns("delete_file", -1);
    flag.set(0);
    EXPECT_FALSE(flag.is_set());
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_P(BusyFlag, IsReadByAnotherThreadWhileItChanges) {
    std::thread writer([this] {
        for (int i = 0; i < 20; i++)
            flag.set(i % 2);
    });
    while (!flag.is_set()) {
    }
    writer.join();

    EXPECT_TRUE(flag.is_set());
}

class DevMgmtFlags : public AgentTest {};

TEST_F(DevMgmtFlags, AreWrittenOneAfterTheOther) {
    set_dev_mgmt_flags("a value");

    EXPECT_EQ(file_text(DEV_MGMT), "a value\n");
    EXPECT_EQ(file_text(WD_MGMT), "a value\n");
    EXPECT_THAT(calls(), ListIs("orvsys echo 'a value' > /var/volatile/orv/DEV_MGMT",
                                "orvsys echo 'a value' > /var/volatile/orv/WD_MGMT"));
    EXPECT_THAT(log_lines(), ListIs(Debug("set dev mgmt flag files: a value")));
}

TEST_F(DevMgmtFlags, OfTheSecondValueAreNotCreated) {
    set_dev_mgmt_flags("#FLAG_VALUE2");

    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_FALSE(exists(DEV_MGMT));
    EXPECT_FALSE(exists(WD_MGMT));
    EXPECT_THAT(log_lines(), ListIs(Debug("set dev mgmt flag files: #FLAG_VALUE2")));
}

TEST_F(DevMgmtFlags, OfTheSecondValueAreWrittenIntoTheFileThatExists) {
    for (const std::string path : {DEV_MGMT, WD_MGMT}) {
        write_text(path, "before\n");
        fakes::reset_calls();
        set_dev_mgmt_flags("#FLAG_VALUE2");

        EXPECT_EQ(file_text(path), "#FLAG_VALUE2\n");
        EXPECT_THAT(calls(), ListIs("orvsys echo '#FLAG_VALUE2' > " + path));
        std::filesystem::remove(path);
    }
}

TEST_F(DevMgmtFlags, OfTheSecondValueAreWrittenIntoRegularFilesOnly) {
    std::filesystem::create_directory(DEV_MGMT);
    std::filesystem::create_symlink("/var/volatile/orv/gone", WD_MGMT);
    set_dev_mgmt_flags("#FLAG_VALUE2");

    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(DevMgmtFlags, OfAnyOtherValueAreCreated) {
    for (const char *value : {"", "#FLAG_VALUE", "#FLAG_VALUE22", " #FLAG_VALUE2", "#flag_value2"}) {
        set_dev_mgmt_flags(value);

        EXPECT_EQ(file_text(DEV_MGMT), std::string(value) + "\n");
        EXPECT_EQ(file_text(WD_MGMT), std::string(value) + "\n");
        fakes::reset_files();
    }
}

TEST_F(DevMgmtFlags, GoOnAfterAFailure) {
    answer_command("DEV_MGMT", 1);
    set_dev_mgmt_flags("v");

    EXPECT_EQ(file_text(WD_MGMT), "v\n");
    EXPECT_THAT(log_lines(), ListIs(Debug("set dev mgmt flag files: v")));
}

class CellConnected : public AgentTest {};

TEST_F(CellConnected, IsTrueForAnyNumberButZero) {
    for (const int value : {1, 2, -1}) {
        fakes::config().database_ints["CELL_CONNECTED"] = value;
        EXPECT_TRUE(is_cell_connected()) << value;
    }
    fakes::config().database_ints["CELL_CONNECTED"] = 0;
    EXPECT_FALSE(is_cell_connected());
}

TEST_F(CellConnected, IsFalseWhenItCannotBeRead) {
    EXPECT_FALSE(is_cell_connected());

    fakes::config().database_ints["CELL_CONNECTED"] = 1;
    fakes::will_return("sysdb_read_int", {-1});
    EXPECT_FALSE(is_cell_connected());
    EXPECT_THAT(log_lines(), IsEmpty());
}

class CurrentPartition : public AgentTest {
protected:
    static constexpr const char *SCRATCH = "/tmp/.current_part";
    char buffer[256] = "untouched";
};

TEST_F(CurrentPartition, IsTheRootDeviceThatTheCommandLeavesBehind) {
    answer_command("/proc/cmdline", [](const std::string &) {
        write_text(SCRATCH, "/dev/mmcblk0p2\n");
        return 0;
    });

    EXPECT_EQ(get_current_partition(buffer), 0);

    EXPECT_STREQ(buffer, "/dev/mmcblk0p2");
    EXPECT_THAT(calls_of({"orvsys", "read_var_file"}),
                ListIs("orvsys /bin/cat /proc/cmdline|awk -F'root=' '{print $2}'|awk '{print $1'} > "
                       "/tmp/.current_part",
                       "read_var_file /tmp/.current_part"));
    EXPECT_THAT(log_lines(), IsEmpty());
}

TEST_F(CurrentPartition, ComesBackWithTheReadErrorAndALogLine) {
    fakes::will_return("read_var_file", {-7});

    EXPECT_EQ(get_current_partition(buffer), -7);

    EXPECT_STREQ(buffer, "untouched");
    EXPECT_THAT(log_lines(), ListIs(Error("error querying current partition")));
}

TEST_F(CurrentPartition, FailsWhenTheCommandLeavesNoFile) {
    answer_command("/proc/cmdline", 127);

    EXPECT_NE(get_current_partition(buffer), 0);

    EXPECT_THAT(log_lines(), ListIs(Error("error querying current partition")));
}

class Rootfs2 : public AgentTest {
protected:
    static constexpr const char *MARK = "/var/data/orv/ROOTFS2";
};

TEST_F(Rootfs2, IsTheSystemThatRunsWhenItsFileExists) {
    EXPECT_FALSE(is_rootfs2());
    write_text(MARK, "");
    EXPECT_TRUE(is_rootfs2());
}

TEST_F(Rootfs2, IsNotTheSystemThatRunsWhenItsNameIsNoRegularFile) {
    std::filesystem::create_directory(MARK);
    EXPECT_FALSE(is_rootfs2());
    std::filesystem::remove(MARK);
    std::filesystem::create_symlink("/var/data/orv/gone", MARK);
    EXPECT_FALSE(is_rootfs2());
}
