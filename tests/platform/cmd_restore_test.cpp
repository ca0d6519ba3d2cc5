// The failsafe restores and the factory reset.
#include "tests/platform/cmd_fixture.h"

#include "host/cmd/paths.h"
#include "platform/cmd.h"
#include "tests/fakes/private_root.h"

#include <filesystem>

namespace {

using testing::IsEmpty;

class Restores : public CmdTest {
protected:
    const Json::Value current = default_with("system.general.hostname", "current");
    const Json::Value saved = default_with("system.general.hostname", "saved");

    Restores() {
        given_running(current);
        write_json(conf::STORED_CONFIG, current);
        write_text(conf::STORED_HASH, config_hash(current) + "\n");
    }

    void given_failsafe_copy() {
        write_json(conf::FAILSAFE_CONFIG, saved);
        write_text(conf::FAILSAFE_HASH, config_hash(saved) + "\n");
    }
};

TEST_F(Restores, FailsafeBecomesThePersistentConfigurationWithItsHash) {
    given_failsafe_copy();
    ASSERT_EQ(restore_failsafe_files_to_nv(), 0);
    EXPECT_EQ(read_json(conf::STORED_CONFIG), saved);
    EXPECT_EQ(hash_in(conf::STORED_HASH), config_hash(saved));
    EXPECT_EQ(read_json(conf::RUNNING_CONFIG), current);
}

TEST_F(Restores, FailsafeBecomesTheRunningConfigurationWithItsHash) {
    given_failsafe_copy();
    ASSERT_EQ(restore_failsafe_files_to_running(), 0);
    EXPECT_EQ(read_json(conf::RUNNING_CONFIG), saved);
    EXPECT_EQ(hash_in(conf::RUNNING_HASH), config_hash(saved));
    EXPECT_EQ(current_config_hash(), config_hash(saved));
    EXPECT_EQ(read_json(conf::STORED_CONFIG), current);
}

TEST_F(Restores, AFailsafeHashOfAnotherConfigurationIsNotTaken) {
    given_failsafe_copy();
    write_text(conf::FAILSAFE_HASH, config_hash(current) + "\n");
    ASSERT_EQ(restore_failsafe_files_to_nv(), 0);
    EXPECT_EQ(hash_in(conf::STORED_HASH), config_hash(saved));
    unlink(conf::FAILSAFE_HASH);
    ASSERT_EQ(restore_failsafe_files_to_running(), 0);
    EXPECT_EQ(hash_in(conf::RUNNING_HASH), config_hash(saved));
}

TEST_F(Restores, WithoutAFailsafeCopyTheDefaultBecomesPersistent) {
    ASSERT_EQ(restore_failsafe_files_to_nv(), 0);
    EXPECT_EQ(read_json(conf::STORED_CONFIG), default_config());
    EXPECT_EQ(hash_in(conf::STORED_HASH), config_hash(default_config()));
}

TEST_F(Restores, WithoutAFailsafeCopyThePersistentConfigurationBecomesTheRunningOne) {
    given_running(saved);
    write_text(conf::FAILSAFE_CONFIG, "{ torn");
    ASSERT_EQ(restore_failsafe_files_to_running(), 0);
    EXPECT_EQ(read_json(conf::RUNNING_CONFIG), current);
}

TEST_F(Restores, DuringAVerificationABrokenFailsafeCopyKeepsTheLastCommittedConfiguration) {
    write_text(conf::FAILSAFE_CONFIG, "{");
    write_text(conf::FAILSAFE_TIMER, "{}");
    ASSERT_EQ(restore_failsafe_files_to_nv(), 0);
    EXPECT_EQ(read_json(conf::STORED_CONFIG), current);
    unlink(conf::FAILSAFE_TIMER);
    ASSERT_EQ(restore_failsafe_files_to_nv(), 0);
    EXPECT_EQ(read_json(conf::STORED_CONFIG), default_config());
}

TEST_F(Restores, TheRunningHardwareSettingsFollow) {
    write_json(conf::HARDWARE_SETTINGS, json(R"({"rejected": true})"));
    given_failsafe_copy();
    ASSERT_EQ(restore_failsafe_files_to_running(), 0);
    EXPECT_EQ(read_json(conf::HARDWARE_SETTINGS), saved["hardware"]);
}

TEST_F(Restores, WithNothingToRestoreFromTheyFailAndChangeNothing) {
    std::filesystem::remove_all("/usr/share/vantrel");
    EXPECT_EQ(restore_failsafe_files_to_nv(), -1);
    EXPECT_EQ(read_json(conf::STORED_CONFIG), current);
    unlink(conf::STORED_CONFIG);
    EXPECT_EQ(restore_failsafe_files_to_running(), -1);
    EXPECT_EQ(read_json(conf::RUNNING_CONFIG), current);
}

TEST_F(Restores, WhenTheWriteFailsTheOldConfigurationStays) {
    given_failsafe_copy();
    write_text("/var/data/.tmp", "a file where the library wants a folder");
    EXPECT_EQ(restore_failsafe_files_to_nv(), -1);
    EXPECT_EQ(read_json(conf::STORED_CONFIG), current);
}

class FactoryReset : public Restores {
protected:
    FactoryReset() {
        for (const char *path :
             {conf::FAILSAFE_CONFIG, conf::FAILSAFE_HASH, conf::STAGED_CONFIG, conf::STAGED_HASH,
              conf::STORED_NEW_CONFIG, conf::STORED_ACTIVE_JOB, conf::FAILSAFE_TIMER, conf::STORED_META_FILE,
              conf::STORED_HARDWARE, conf::NEW_CONFIG, conf::NEW_HASH, conf::EDITED_CONFIG,
              conf::EDITED_BASE_HASH, conf::CONFIG_MODIFIED})
            write_text(path, "{}");
        write_text("/var/data/orv/vantrel_iot/jobs/active/77", "{}");
        write_text("/var/data/orv/vantrel_iot/jobs/archive/76", "{}");
        write_text("/var/data/factory/key", "kept");
        write_text("/var/data/orv/ROOTFS2", "");
        write_text("/var/data/sysdb/sysdb.sqlite", "kept");
    }

    static std::vector<std::string> files_in(const char *folder) {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(folder))
            if (entry.is_regular_file())
                names.push_back(entry.path().filename());
        return names;
    }
};

TEST_F(FactoryReset, LeavesTheDefaultConfigurationAndNoJobs) {
    ASSERT_EQ(cmd_factory_reset(1), 0);
    EXPECT_EQ(read_json(conf::STORED_CONFIG), default_config());
    EXPECT_EQ(hash_in(conf::STORED_HASH), config_hash(default_config()));
    EXPECT_THAT(files_in("/var/data/orv"),
                testing::UnorderedElementsAre("config.json", "config.hash", "ROOTFS2"));
    EXPECT_THAT(files_in(conf::ACTIVE_JOBS), IsEmpty());
    EXPECT_THAT(files_in(conf::ARCHIVED_JOBS), IsEmpty());
    EXPECT_FALSE(exists(conf::NEW_CONFIG));
    EXPECT_FALSE(exists(conf::CONFIG_MODIFIED));
}

TEST_F(FactoryReset, KeepsWhatMakesTheDeviceItself) {
    ASSERT_EQ(cmd_factory_reset(1), 0);
    EXPECT_EQ(read_text("/var/data/factory/key"), "kept");
    EXPECT_EQ(read_text("/var/data/sysdb/sysdb.sqlite"), "kept");
}

TEST_F(FactoryReset, LeavesTheRunningConfigurationUntilTheReboot) {
    ASSERT_EQ(cmd_factory_reset(1), 0);
    EXPECT_EQ(read_json(conf::RUNNING_CONFIG), current);
}

TEST_F(FactoryReset, OfTheConfigurationAloneKeepsTheJobs) {
    ASSERT_EQ(cmd_factory_reset(0), 0);
    EXPECT_EQ(read_json(conf::STORED_CONFIG), default_config());
    EXPECT_TRUE(exists("/var/data/orv/vantrel_iot/jobs/active/77"));
    EXPECT_TRUE(exists("/var/data/orv/vantrel_iot/jobs/archive/76"));
}

TEST_F(FactoryReset, MayBeRepeated) {
    ASSERT_EQ(cmd_factory_reset(1), 0);
    EXPECT_EQ(cmd_factory_reset(1), 0);
}

TEST_F(FactoryReset, OfAnUnknownModeIsRefusedAndChangesNothing) {
    for (const int mode : {-1, 2, 99})
        EXPECT_EQ(cmd_factory_reset(mode), -1) << mode;
    EXPECT_EQ(read_json(conf::STORED_CONFIG), current);
    EXPECT_TRUE(exists("/var/data/orv/vantrel_iot/jobs/active/77"));
}

TEST_F(FactoryReset, ThatCannotWriteKeepsWhatToFallBackOnAndLeavesNothingUnderWay) {
    write_json(conf::FAILSAFE_CONFIG, saved);
    write_text("/var/data/.tmp", "a file where the library wants a folder");
    EXPECT_EQ(cmd_factory_reset(1), -1);
    EXPECT_EQ(read_json(conf::STORED_CONFIG), current);
    EXPECT_EQ(read_json(conf::FAILSAFE_CONFIG), saved);
    EXPECT_FALSE(exists(conf::STORED_NEW_CONFIG));
    EXPECT_FALSE(exists(conf::STORED_ACTIVE_JOB));
    EXPECT_THAT(files_in(conf::ACTIVE_JOBS), IsEmpty());
    unlink("/var/data/.tmp");
    EXPECT_EQ(cmd_factory_reset(1), 0);
}

TEST_F(FactoryReset, ThatCannotDeleteWhatIsUnderWayFails) {
    unlink(conf::STORED_NEW_CONFIG);
    std::filesystem::create_directories(std::string(conf::STORED_NEW_CONFIG) + "/inside");
    EXPECT_EQ(cmd_factory_reset(1), -1);
    std::filesystem::remove_all(conf::STORED_NEW_CONFIG);
    EXPECT_EQ(cmd_factory_reset(1), 0);
}

TEST_F(FactoryReset, WithoutADefaultConfigurationFailsAndChangesNothing) {
    unlink(conf::DEFAULT_CONFIG);
    EXPECT_EQ(cmd_factory_reset(1), -1);
    EXPECT_EQ(read_json(conf::STORED_CONFIG), current);
    EXPECT_TRUE(exists(conf::FAILSAFE_CONFIG));
    EXPECT_TRUE(exists(conf::STORED_NEW_CONFIG));
    EXPECT_TRUE(exists("/var/data/orv/vantrel_iot/jobs/active/77"));
}

} // namespace
