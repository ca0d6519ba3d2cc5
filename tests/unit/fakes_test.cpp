// The test bed itself: what the other tests rely on.
#include "tests/fakes/agent_test.h"

#include "platform/cmd.h"
#include "platform/mqtt_orv.h"
#include "platform/sysdb.h"
#include "platform/vantrel.h"
#include "tests/fakes/private_root.h"

#include <sys/mount.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class Fakes : public AgentTest {};

TEST_F(Fakes, ASleepCostsNothingAndMovesTheClock) {
    sleep(300);

    EXPECT_EQ(time(nullptr), START_TIME + 300);
    EXPECT_EQ(fwtime_s(0), START_TIME + 300);
    EXPECT_THAT(sleeps(), ElementsAre(300));
}

TEST_F(Fakes, RunForEndsALoopThatNeverEnds) {
    int passes = 0;

    run_for(10, [&] {
        for (;; passes++)
            sleep(3);
    });

    EXPECT_EQ(passes, 3);
    EXPECT_EQ(time(nullptr), START_TIME + 9);
}

TEST_F(Fakes, ALogLineKeepsItsPriority) {
    syslog(LOG_ALERT, "job %s", "77");
    syslog(LOG_DEBUG, "rc %d", 200);

    EXPECT_THAT(log_lines(), ListIs(Alert("job 77"), Debug(HasSubstr("200"))));
    EXPECT_THAT(log_lines(), Not(Contains(Notice("job 77"))));
}

TEST_F(Fakes, AFailedWriteLeavesTheOldFile) {
    given_active_job(R"({"jobId":"1", "status":"received"})");
    fakes::will_return("write_json_file", {-1});

    EXPECT_EQ(write_json_file((std::string(ACTIVE_FOLDER) + "1").c_str(), json(R"({"jobId":"1"})")), -1);

    EXPECT_THAT(active_job("1"), HasMembers(R"({"status":"received"})"));
    EXPECT_EQ(write_json_file((std::string(ACTIVE_FOLDER) + "1").c_str(), json(R"({"jobId":"1"})")), 0);
    EXPECT_THAT(active_job("1"), IsJson(R"({"jobId":"1"})"));
    EXPECT_THAT(active_jobs(), ListIs("1"));
}

TEST_F(Fakes, AFullDiskLeavesTheOldFile) {
    given_active_job(R"({"jobId":"1", "status":"received"})");
    limit_var_data(64ULL * 1024);

    EXPECT_EQ(write_json_file((std::string(ACTIVE_FOLDER) + "1").c_str(), std::string(100'000, 'x')), -1);

    EXPECT_THAT(active_job("1"), HasMembers(R"({"status":"received"})"));
    EXPECT_THAT(names_in("/var/data/.tmp"), IsEmpty());
}

TEST_F(Fakes, ACommandIsRunUnlessItIsAnswered) {
    answer_command("reboot", 124);

    EXPECT_EQ(orvsys("/sbin/reboot -%c", 'f'), 124);
    EXPECT_EQ(system("/sbin/reboot -f"), 124 << 8);
    EXPECT_EQ(orvsys("echo %s > /tmp/said; exit %d", "hello", 3), 3);

    EXPECT_EQ(file_text("/tmp/said"), "hello\n");
    EXPECT_THAT(calls(), ListIs("orvsys /sbin/reboot -f", "system /sbin/reboot -f",
                                "orvsys echo hello > /tmp/said; exit 3"));
}

TEST_F(Fakes, ACommandThatDiesOfASignalHas128More) {
    EXPECT_EQ(orvsys("kill -9 $$"), 137);
}

TEST_F(Fakes, AStubTakesThePlaceOfACommand) {
    write_stub("reboot", "echo stub > /tmp/rebooted");

    EXPECT_EQ(orvsys("/sbin/reboot -f"), 0);

    EXPECT_EQ(file_text("/tmp/rebooted"), "stub\n");
}

// Something mounted far below a folder that tests empty, as a clone below /tmp is.
class EmptyDirectory : public Fakes {
protected:
    EmptyDirectory() {
        write_text("/tmp/a/gone", "x");
        std::filesystem::create_directories("/tmp/a/b/mounted");
        EXPECT_EQ(mount("elsewhere", "/tmp/a/b/mounted", "tmpfs", 0, nullptr), 0);
        write_text("/tmp/a/b/mounted/.git/kept", "y");
        write_text("/tmp/a/b/gone", "x");
    }
    ~EmptyDirectory() override { umount("/tmp/a/b/mounted"); }
};

TEST_F(EmptyDirectory, DoesNotCrossIntoAMount) {
    empty_directory("/tmp");

    EXPECT_EQ(file_text("/tmp/a/b/mounted/.git/kept"), "y");
    EXPECT_THAT(names_in("/tmp/a"), ListIs("b"));
    EXPECT_THAT(names_in("/tmp/a/b"), ListIs("mounted"));
}

TEST_F(EmptyDirectory, DoesNotCrossIntoAFolderOfTheSameFileSystem) {
    write_text("/run/real/kept", "y");
    write_text("/run/place/gone", "x");
    std::filesystem::create_directories("/run/place/bound");
    ASSERT_EQ(mount("/run/real", "/run/place/bound", nullptr, MS_BIND, nullptr), 0);

    empty_directory("/run/place");

    EXPECT_EQ(file_text("/run/real/kept"), "y");
    EXPECT_THAT(names_in("/run/place"), ListIs("bound"));
    umount("/run/place/bound");
}

TEST_F(EmptyDirectory, RemovesALinkAndNotWhatItPointsTo) {
    write_text("/run/kept", "y");
    std::filesystem::create_symlink("/run", "/tmp/a/link");
    umount("/tmp/a/b/mounted");

    empty_directory("/tmp");

    EXPECT_FALSE(exists("/tmp/a"));
    EXPECT_EQ(file_text("/run/kept"), "y");
}

TEST_F(Fakes, TheSourceTreeCannotBeWritten) {
    std::ofstream file(SOURCE_TREE "/written-by-a-test");

    EXPECT_FALSE(file.is_open());
    EXPECT_EQ(errno, EROFS);
}

TEST_F(Fakes, TheBuildTreeCanBeWritten) {
    const std::string path = BUILD_TREE "/written-by-a-test";
    std::ofstream(path) << "x";

    EXPECT_EQ(file_text(path), "x");
    std::filesystem::remove(path);
}

TEST_F(Fakes, ARebootDoesNotReturn) {
    EXPECT_THROW(stop_watchdog_and_force_hw_reboot_blocking(), fake_reboot);
    EXPECT_EQ(switch_firmware_partition(), 0);

    EXPECT_THAT(reboots(), ListIs("stop_watchdog_and_force_hw_reboot_blocking", "switch_firmware_partition"));
}

TEST_F(Fakes, ConfigurationValuesAreFoundByDottedPath) {
    set_config("system.failsafe", R"({"enabled": true, "timer": 5})");

    Json::Value value;
    EXPECT_EQ(cmd_get_value_json("system.failsafe", value), 0);
    EXPECT_THAT(value, HasMembers(R"({"timer": 5})"));
    EXPECT_NE(cmd_get_value_json("system.nothing", value), 0);
    char text[8];
    EXPECT_EQ(cmd_get_value("system.failsafe.timer", text, sizeof text), 0);
    EXPECT_STREQ(text, "5");

    int timer = 7;
    EXPECT_FALSE(config_get_int(value, &timer, "enabled"));
    EXPECT_EQ(timer, 7);
    EXPECT_TRUE(config_get_int(fakes::config().running, &timer, "system.failsafe.timer"));
    EXPECT_EQ(timer, 5);
}

TEST_F(Fakes, TheHashIgnoresTheOrderOfMembers) {
    write_text("/var/data/orv/a", R"({"x":1, "y":{"a":2, "b":3}})");
    EXPECT_EQ(calculate_and_write_config_hash("/var/data/orv/a", "/var/data/orv/a.hash"), 0);

    char hash[128];
    EXPECT_EQ(read_hash("/var/data/orv/a.hash", hash), 0);
    EXPECT_EQ(config_hash(json(R"({"y":{"b":3, "a":2}, "x":1})")), hash);
}

TEST_F(Fakes, AVarFileIsItsFirstLine) {
    write_text("/tmp/one", "first\nsecond\n");
    write_text("/tmp/long", std::string(300, 'x'));
    char buffer[256];

    EXPECT_EQ(read_var_file("/tmp/one", buffer), 0);
    EXPECT_STREQ(buffer, "first");
    EXPECT_EQ(read_var_file("/tmp/long", buffer), 0);
    EXPECT_EQ(std::string(buffer), std::string(255, 'x'));
    EXPECT_NE(read_var_file("/tmp/none", buffer), 0);
}

TEST_F(Fakes, APublishIsKeptWithItsCounter) {
    mqtt_orv client("tessard", "localhost", 1883, false);
    int counter = 1000;

    client.send_message(&counter, "v1/x", client.serialize(json(R"({"rc": 200})")));
    client.send_message(nullptr, "v1/y", "plain");

    EXPECT_THAT(published_topics(), ListIs("v1/x", "v1/y"));
    EXPECT_EQ(published()[0].message_id, &counter);
    EXPECT_EQ(published()[0].message_id_value, 1000);
    EXPECT_EQ(published()[0].payload, R"({"rc":200})");
    EXPECT_THAT(published()[0].json, HasMembers(R"({"rc": 200})"));
    EXPECT_EQ(published()[1].message_id, nullptr);
}

TEST_F(Fakes, DeserializeRefusesWhatIsNoJson) {
    mqtt_orv client("tessard", "localhost", 1883, false);
    Json::Value value;

    EXPECT_TRUE(client.deserialize(R"({"a": [1, 2]})", value));
    for (const std::string text : {"", "{", "nonsense", "{} {}", "// comment\n{}"})
        EXPECT_FALSE(client.deserialize(text, value)) << text;
    EXPECT_FALSE(client.deserialize(std::string(5000, '['), value));
}

TEST_F(Fakes, BothThreadsMayUseThem) {
    const auto work = [] {
        for (int i = 0; i < 50; i++) {
            syslog(LOG_DEBUG, "%d", i);
            sleep(1);
            write_json_file((std::string(ACTIVE_FOLDER) + "1").c_str(), i);
        }
    };
    std::thread other(work);
    work();
    other.join();

    EXPECT_EQ(time(nullptr), START_TIME + 100);
    EXPECT_EQ(log_lines().size(), 100U);
}

TEST_F(Fakes, DataAndVolatileAreDifferentFileSystems) {
    write_text("/var/data/x", "");
    EXPECT_NE(std::rename("/var/data/x", "/var/volatile/x"), 0);
    EXPECT_TRUE(exists("/var/run/"));
    write_text("/run/y", "1");
    EXPECT_EQ(file_text("/var/run/y"), "1");
}

TEST_F(Fakes, TheSystemLogOfTheCLibraryCanBeRead) {
    const int log = open_dev_log();
    EXPECT_EQ(orvsys("printf '<131>said' | /usr/bin/python3 -c \"import socket,sys; "
                     "socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM).sendto(sys.stdin.buffer.read(), "
                     "'/dev/log')\""),
              0);
    EXPECT_THAT(read_dev_log(log), ListIs("<131>said"));
    close(log);
}
