// The failsafe restores and the factory reset.
#include "tests/platform/cmd_fixture.h"

#include "host/cmd/paths.h"
#include "platform/cmd.h"
#include "tests/fakes/private_root.h"

#include <unistd.h>

#include <filesystem>

namespace {

using testing::HasSubstr;
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

// A hash is calculated anew by boot; the configuration beside it counts.
TEST_F(Restores, AreDoneWhenOnlyTheHashCannotBeWritten) {
    given_failsafe_copy();
    unlink(conf::STORED_HASH);
    write_text(std::string(conf::STORED_HASH) + "/in-the-way", "");

    EXPECT_EQ(restore_failsafe_files_to_nv(), 0);

    EXPECT_EQ(read_json(conf::STORED_CONFIG), saved);
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

TEST_F(Restores, WithoutAFailsafeCopyTheDeliveredConfigurationTakesThePlaceOfTheOneInForce) {
    ASSERT_EQ(restore_failsafe_files_to_nv(), 0);
    EXPECT_EQ(read_json(conf::STORED_CONFIG), default_config());
    EXPECT_EQ(hash_in(conf::STORED_HASH), config_hash(default_config()));
    write_json(conf::STORED_CONFIG, current);
    ASSERT_EQ(restore_failsafe_files_to_running(), 0);
    EXPECT_EQ(read_json(conf::RUNNING_CONFIG), default_config());
}

// What a flash cell or a careless hand may leave of a failsafe copy.
class RestoresABadCopy : public Restores, public testing::WithParamInterface<const char *> {
protected:
    RestoresABadCopy() {
        write_text(conf::FAILSAFE_CONFIG, bad);
        write_text(conf::FAILSAFE_HASH, config_hash(current) + "\n"); // which is not asked
    }

    const std::string bad =
        GetParam() == std::string("one digit")
            ? default_with("network.interfaces.lan.address", "192.968.1.1").toStyledString()
            : GetParam();
};

TEST_P(RestoresABadCopy, NeverOverTheLastCommittedOneAfterAFailedVerification) {
    write_text(conf::FAILSAFE_TIMER, "{}");
    given_running(default_with("system.general.hostname", "failed"));
    ASSERT_EQ(restore_failsafe_files_to_nv(), 0);
    ASSERT_EQ(restore_failsafe_files_to_running(), 0);
    EXPECT_EQ(read_json(conf::STORED_CONFIG), current);
    EXPECT_EQ(read_json(conf::RUNNING_CONFIG), current);
    EXPECT_EQ(hash_in(conf::RUNNING_HASH), config_hash(current));
}

TEST_P(RestoresABadCopy, NeverInsteadOfTheDeliveredOneAtTheButton) {
    ASSERT_EQ(restore_failsafe_files_to_nv(), 0);
    ASSERT_EQ(restore_failsafe_files_to_running(), 0);
    EXPECT_EQ(read_json(conf::STORED_CONFIG), default_config());
    EXPECT_EQ(read_json(conf::RUNNING_CONFIG), default_config());
}

TEST_P(RestoresABadCopy, AndSaysWhy) {
    const int log = open_dev_log();
    ASSERT_EQ(restore_failsafe_files_to_nv(), 0);
    EXPECT_THAT(read_dev_log(log), testing::ElementsAre(HasSubstr(
                                       "failsafe restore: /var/data/orv/config.failsafe cannot be used: ")));
    close(log);
}

TEST_P(RestoresABadCopy, AsTheDeliveredOneWhenTheCommittedOneIsBadToo) {
    write_text(conf::FAILSAFE_TIMER, "{}");
    write_text(conf::STORED_CONFIG, bad);
    ASSERT_EQ(restore_failsafe_files_to_nv(), 0);
    ASSERT_EQ(restore_failsafe_files_to_running(), 0);
    EXPECT_EQ(read_json(conf::STORED_CONFIG), default_config());
    EXPECT_EQ(read_json(conf::RUNNING_CONFIG), default_config());
}

INSTANTIATE_TEST_SUITE_P(Rows, RestoresABadCopy,
                         testing::Values("", "{ torn", "[]", "{}", R"({"network": {}})", "one digit"));

TEST_F(Restores, OfAGoodCopySayNothing) {
    const int log = open_dev_log();
    given_failsafe_copy();
    ASSERT_EQ(restore_failsafe_files_to_nv(), 0);
    EXPECT_THAT(read_dev_log(log), IsEmpty());
    close(log);
}

// A firmware that is not verified asks for something that the one before did not know.
TEST_F(Restores, DuringAnUpgradeKeepWhatTheFormerFirmwareCommitted) {
    Json::Value former = saved;
    former["system"]["former"] = true;
    write_json(conf::FAILSAFE_CONFIG, former);
    for (const char *mark : {conf::FIRMWARE_UPDATED, conf::MIGRATE}) {
        write_json(conf::STORED_CONFIG, default_with("network.interfaces.wan.former", 1));
        write_text(mark, "");
        ASSERT_EQ(restore_failsafe_files_to_nv(), 0);
        EXPECT_EQ(read_json(conf::STORED_CONFIG), former) << mark;
        unlink(mark);
    }
}

TEST_F(Restores, DuringAnUpgradePreferWhatIsValid) {
    write_text(conf::FAILSAFE_TIMER, "{}");
    write_text(conf::FIRMWARE_UPDATED, "");
    write_text(conf::FAILSAFE_CONFIG, "{}");
    ASSERT_EQ(restore_failsafe_files_to_nv(), 0);
    EXPECT_EQ(read_json(conf::STORED_CONFIG), current);
}

TEST_F(Restores, WithoutMetaDataTakeWhatCanBeRead) {
    given_failsafe_copy();
    std::filesystem::remove_all(conf::IMAGE_META_FOLDER);
    ASSERT_EQ(restore_failsafe_files_to_nv(), 0);
    EXPECT_EQ(read_json(conf::STORED_CONFIG), saved);
}

TEST_F(Restores, ThatCannotWriteTheFailsafeCopyAreDoneWhenTheLastCommittedOneIsThere) {
    given_failsafe_copy();
    write_text(conf::FAILSAFE_TIMER, "{}");
    write_text("/var/data/.tmp", "a file where the library wants a folder");
    EXPECT_EQ(restore_failsafe_files_to_nv(), 0);
    EXPECT_EQ(read_json(conf::STORED_CONFIG), current);
}

TEST_F(Restores, TheRunningHardwareSettingsFollow) {
    write_json(conf::HARDWARE_SETTINGS, json(R"({"rejected": true})"));
    given_failsafe_copy();
    ASSERT_EQ(restore_failsafe_files_to_running(), 0);
    EXPECT_EQ(read_json(conf::HARDWARE_SETTINGS), saved["hardware"]);
}

TEST_F(Restores, WithNothingToRestoreFromTheyFailAndChangeNothing) {
    unlink(conf::DEFAULT_CONFIG);
    write_text(conf::FAILSAFE_CONFIG, "{}");
    EXPECT_EQ(restore_failsafe_files_to_nv(), -1);
    EXPECT_EQ(read_json(conf::STORED_CONFIG), current);
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
