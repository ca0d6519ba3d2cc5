#include "platform/vantrel.h"
#include "platform/vtrsec.h"
#include "tests/fakes/private_root.h"
#include "tests/platform/support.h"

#include <gmock/gmock.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <map>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

// The library's waits cost nothing here.
unsigned sleep(unsigned) {
    return 0;
}

namespace {

// A reboot that notes how it was called and ends its caller, as a real one does.
class Reboot : public testing::Test {
protected:
    Reboot() {
        fs::remove("/tmp/reboot");
        fs::remove_all("/var/data/boot");
        write_stub(
            "reboot",
            "echo \"reboot $@\" >> /tmp/reboot; cat /var/data/boot/slot >> /tmp/reboot 2> /dev/null; kill -9 $PPID");
    }
};

bool ended_by_reboot(const std::function<void()> &body) {
    const int status = wait_status_of([&] {
        body();
        return 0;
    });
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

} // namespace

TEST_F(Reboot, RunsAndDoesNotReturn) {
    EXPECT_TRUE(ended_by_reboot(request_reboot_blocking));
    EXPECT_EQ(read_text("/tmp/reboot"), "reboot -f\n");
}

TEST_F(Reboot, IsForcedWithoutReturning) {
    EXPECT_TRUE(ended_by_reboot(stop_watchdog_and_force_hw_reboot_blocking));
    EXPECT_EQ(read_text("/tmp/reboot"), "reboot -f\n");
}

TEST_F(Reboot, IsTriedAgainAndLoggedWhenItFails) {
    write_stub("reboot",
               "echo again >> /tmp/reboot; test $(wc -l < /tmp/reboot) -lt 3 && exit 5; kill -9 $PPID");
    const int log = open_dev_log();
    EXPECT_TRUE(ended_by_reboot(request_reboot_blocking));
    EXPECT_EQ(read_text("/tmp/reboot"), "again\nagain\nagain\n");
    const std::string failed = "/sbin/reboot -f failed: 5";
    EXPECT_THAT(read_dev_log(log),
                testing::ElementsAre(testing::HasSubstr(failed), testing::HasSubstr(failed)));
    close(log);
}

TEST_F(Reboot, ComesAfterTheOtherSlotIsTheOneToBoot) {
    set_kernel_command_line("console=ttyS0 root=/dev/mmcblk0p1 ro quiet\n");
    EXPECT_TRUE(ended_by_reboot([] { switch_firmware_partition(); }));
    EXPECT_EQ(read_text("/tmp/reboot"), "reboot -f\n2\n");
    EXPECT_TRUE(ended_by_reboot([] { switch_firmware_partition(); })) << "still runs slot 1";
    EXPECT_EQ(read_text("/var/data/boot/slot"), "2\n");

    set_kernel_command_line("root=/dev/slot2\n");
    EXPECT_TRUE(ended_by_reboot([] { switch_firmware_partition(); }));
    EXPECT_EQ(read_text("/var/data/boot/slot"), "1\n");
}

TEST_F(Reboot, DoesNotComeWhenTheSlotIsNotKnown) {
    set_kernel_command_line("quiet nfsroot=/dev/slot1\n");
    EXPECT_NE(exit_status_of(switch_firmware_partition), 0);
    EXPECT_FALSE(fs::exists("/tmp/reboot"));
    EXPECT_FALSE(fs::exists("/var/data/boot/slot"));
}

TEST_F(Reboot, DoesNotComeWhenTheSlotCannotBeWritten) {
    set_kernel_command_line("root=/dev/slot1\n");
    write_text("/var/data/boot", "no folder");
    EXPECT_NE(exit_status_of(switch_firmware_partition), 0);
    EXPECT_FALSE(fs::exists("/tmp/reboot"));
}

TEST(ExecuteSystemctlReload, ReloadsTheUnit) {
    write_stub("systemctl", "echo \"$@\" > /tmp/systemctl; test \"$2\" = qtel-mgr");
    EXPECT_EQ(execute_systemctl_reload("qtel-mgr"), 0);
    EXPECT_EQ(read_text("/tmp/systemctl"), "reload qtel-mgr\n");
    EXPECT_EQ(execute_systemctl_reload("unknown"), -1);
}

TEST(ExecuteSystemctlReload, TakesNoShellAndNoOptions) {
    write_stub("systemctl", "echo \"$#\" > /tmp/systemctl");
    EXPECT_EQ(execute_systemctl_reload("a b;c"), 0);
    EXPECT_EQ(read_text("/tmp/systemctl"), "2\n");
    EXPECT_EQ(execute_systemctl_reload("--help"), -1);
    EXPECT_EQ(execute_systemctl_reload(""), -1);
}

TEST(FwtimeS, IsTheClockOfTime) {
    const time_t before = time(nullptr);
    const time_t now = fwtime_s(12345);
    EXPECT_GE(now, before);
    EXPECT_LE(now, time(nullptr));
}

TEST(DeviceType, IsReadFromTheFactoryData) {
    EXPECT_EQ(get_vantrel_dev_type_as_enum(), 0) << "none there";
    for (const auto &[text, type] : std::map<std::string, int>{
             {"5\n", 5}, {"1", 1}, {"12\n", 12}, {"", 0}, {"x\n", 0}, {"5x\n", 0}, {"99999999999\n", 0}}) {
        write_text("/var/data/factory/device_type", text);
        EXPECT_EQ(get_vantrel_dev_type_as_enum(), type) << text;
    }
}

class DeviceToken : public testing::Test {
protected:
    ~DeviceToken() override { delete_file("/var/data/factory/token"); }

    std::array<char, 128> buffer{"before"};
};

TEST_F(DeviceToken, IsTheFirstLine) {
    write_text("/var/data/factory/token", "s3cret-Token/+=\n");
    EXPECT_EQ(get_device_token(128, buffer.data()), 0);
    EXPECT_STREQ(buffer.data(), "s3cret-Token/+=");
}

TEST_F(DeviceToken, FitsWithItsZeroOrFails) {
    write_text("/var/data/factory/token", std::string(127, 't') + "\n");
    EXPECT_EQ(get_device_token(128, buffer.data()), 0);
    EXPECT_EQ(buffer.data(), std::string(127, 't'));
    for (const size_t length : {128UL, 255UL, 256UL, 1000UL}) {
        buffer = {"before"};
        write_text("/var/data/factory/token", std::string(length, 't') + "\n");
        EXPECT_NE(get_device_token(128, buffer.data()), 0) << length;
        EXPECT_STREQ(buffer.data(), "before");
    }
    EXPECT_NE(get_device_token(0, buffer.data()), 0);
    EXPECT_NE(get_device_token(-1, buffer.data()), 0);
}

TEST_F(DeviceToken, FailsWithoutOne) {
    EXPECT_NE(get_device_token(128, buffer.data()), 0);
    write_text("/var/data/factory/token", "\n");
    EXPECT_NE(get_device_token(128, buffer.data()), 0);
}

TEST_F(DeviceToken, IsNeverLogged) {
    const int log = open_dev_log();
    write_text("/var/data/factory/token", "s3cret\n");
    get_device_token(128, buffer.data());
    get_device_token(3, buffer.data());
    for (const std::string &line : read_dev_log(log))
        EXPECT_THAT(line, testing::Not(testing::HasSubstr("s3cret")));
    close(log);
}
