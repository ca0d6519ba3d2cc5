// Rebuilding the configuration at boot.
#include "tests/platform/cmd_fixture.h"

#include "host/cmd/boot.h"
#include "host/cmd/dotted.h"
#include "host/cmd/paths.h"
#include "platform/cmd.h"
#include "platform/vtrsec.h"
#include "tests/fakes/private_root.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char PIN[] = "network.wireless.cell.sim1.pin";

class Boot : public CmdTest {
protected:
    static int boot() {
        notes.clear();
        empty_directory("/var/volatile");
        make_boot_directories();
        return conf::boot_configuration(notes);
    }

    static std::string at(const char *file, const char *path) {
        const Json::Value config = read_json(file);
        const Json::Value *found = conf::find_member(config, path);
        return found ? found->asString() : "(none)";
    }

    static inline std::vector<std::string> notes;
    const Json::Value stored = default_with("system.general.hostname", "stored");
};

TEST_F(Boot, TheRunningConfigurationIsThePersistentOne) {
    write_json(conf::STORED_CONFIG, stored);
    ASSERT_EQ(boot(), 0);
    EXPECT_THAT(notes, IsEmpty());
    EXPECT_EQ(read_json(conf::RUNNING_CONFIG), stored);
    EXPECT_EQ(hash_in(conf::RUNNING_HASH), config_hash(stored));
    EXPECT_EQ(hash_in(conf::STORED_HASH), config_hash(stored));
    EXPECT_TRUE(exists(conf::META_FILE));
    EXPECT_EQ(read_json(conf::STORED_HARDWARE), stored["hardware"]);
    EXPECT_EQ(read_json(conf::HARDWARE_SETTINGS), stored["hardware"]);
}

// Whoever finishes it has run before, and nobody else knows whether it had ended.
TEST_F(Boot, WhatIsLeftOfAnApplyIsLeftAlone) {
    write_json(conf::STORED_CONFIG, stored);
    write_json(conf::STORED_NEW_CONFIG, stored);
    write_text(conf::FAILSAFE_TIMER, "{}");
    ASSERT_EQ(boot(), 0);
    EXPECT_THAT(notes, IsEmpty());
    EXPECT_TRUE(exists(conf::STORED_NEW_CONFIG));
    EXPECT_TRUE(exists(conf::FAILSAFE_TIMER));
}

TEST_F(Boot, SensitiveFieldsAreEncodedInBoth) {
    Json::Value config = stored;
    conf::set_member(config, PIN, "1234");
    write_json(conf::STORED_CONFIG, config);
    ASSERT_EQ(boot(), 0);
    EXPECT_THAT(at(conf::RUNNING_CONFIG, PIN), testing::StartsWith("$siv1$"));
    EXPECT_EQ(read_text(conf::RUNNING_CONFIG), read_text(conf::STORED_CONFIG));
    EXPECT_EQ(hash_in(conf::STORED_HASH), config_hash(config));
}

TEST_F(Boot, AHashOfAnotherConfigurationIsPutRight) {
    write_json(conf::STORED_CONFIG, stored);
    write_text(conf::STORED_HASH, config_hash(default_config()) + "\n");
    write_json(conf::FAILSAFE_CONFIG, default_config());
    write_text(conf::FAILSAFE_HASH, config_hash(stored) + "\n");
    ASSERT_EQ(boot(), 0);
    EXPECT_EQ(hash_in(conf::STORED_HASH), config_hash(stored));
    EXPECT_EQ(hash_in(conf::FAILSAFE_HASH), config_hash(default_config()));
}

TEST_F(Boot, ASecondBootWritesNothingPersistent) {
    write_json(conf::STORED_CONFIG, stored);
    ASSERT_EQ(boot(), 0);
    const auto earlier = std::filesystem::last_write_time(conf::STORED_CONFIG) - std::chrono::hours(1);
    for (const char *file : {conf::STORED_CONFIG, conf::STORED_HASH, conf::STORED_HARDWARE})
        std::filesystem::last_write_time(file, earlier);
    ASSERT_EQ(boot(), 0);
    for (const char *file : {conf::STORED_CONFIG, conf::STORED_HASH, conf::STORED_HARDWARE})
        EXPECT_EQ(std::filesystem::last_write_time(file), earlier) << file;
}

TEST_F(Boot, AMissingConfigurationIsTheDeliveredOne) {
    ASSERT_EQ(boot(), 0);
    EXPECT_EQ(read_json(conf::STORED_CONFIG), default_config());
    EXPECT_EQ(read_json(conf::RUNNING_CONFIG), default_config());
    ASSERT_EQ(notes.size(), 1U);
    EXPECT_THAT(notes[0], HasSubstr("replaced by /usr/share/vantrel/default-config.json"));
}

TEST_F(Boot, ABrokenConfigurationIsTheFailsafeOneWhereThereIsOne) {
    const Json::Value failsafe = default_with("system.general.hostname", "failsafe");
    write_json(conf::FAILSAFE_CONFIG, failsafe);
    const std::string faulty = default_with("network.interfaces.lan.address", "192.968.1.1").toStyledString();
    for (const std::string &content :
         {std::string(), std::string("{ torn"), std::string("[]"), std::string("{}"), faulty}) {
        write_text(conf::STORED_CONFIG, content);
        write_text(conf::STORED_HASH, config_hash(json("{}")) + "\n"); // which is not asked
        ASSERT_EQ(boot(), 0) << content;
        EXPECT_EQ(read_json(conf::RUNNING_CONFIG), failsafe);
        EXPECT_EQ(read_json(conf::STORED_CONFIG), failsafe);
        EXPECT_THAT(notes,
                    ElementsAre(HasSubstr("/var/data/orv/config.json cannot be used: "),
                                "/var/data/orv/config.json is replaced by /var/data/orv/config.failsafe"));
    }
}

TEST_F(Boot, ABadFailsafeCopyIsNoSubstitute) {
    write_text(conf::FAILSAFE_CONFIG, "{}");
    write_text(conf::STORED_CONFIG, "{");
    ASSERT_EQ(boot(), 0);
    EXPECT_EQ(read_json(conf::RUNNING_CONFIG), default_config());
    EXPECT_EQ(read_json(conf::STORED_CONFIG), default_config());
    EXPECT_THAT(notes, Contains(HasSubstr("/var/data/orv/config.failsafe cannot be used: ")));
}

TEST_F(Boot, AGoodConfigurationBesideAStaleHashIsKept) {
    write_json(conf::STORED_CONFIG, stored);
    write_text(conf::STORED_HASH, config_hash(default_config()) + "\n");
    write_json(conf::FAILSAFE_CONFIG, default_config());
    ASSERT_EQ(boot(), 0);
    EXPECT_THAT(notes, IsEmpty());
    EXPECT_EQ(read_json(conf::RUNNING_CONFIG), stored);
}

TEST_F(Boot, AConfigurationThatIsNotValidIsBetterThanNone) {
    write_json(conf::STORED_CONFIG, default_without("iot"));
    unlink(conf::DEFAULT_CONFIG);
    EXPECT_EQ(boot(), 0);
    EXPECT_EQ(read_json(conf::RUNNING_CONFIG), read_json(conf::STORED_CONFIG));
    EXPECT_THAT(notes, ElementsAre(HasSubstr("/var/data/orv/config.json cannot be used: iot")));
}

// The former firmware may come back, and needs what it has committed.
TEST_F(Boot, DuringAnUpgradeThePersistentConfigurationNeedNotBeValidForTheNewFirmware) {
    Json::Value former = stored;
    former["system"]["former"] = true;
    write_json(conf::STORED_CONFIG, former);
    for (const char *mark : {conf::FIRMWARE_UPDATED, conf::MIGRATE}) {
        write_text(mark, "");
        ASSERT_EQ(boot(), 0);
        EXPECT_THAT(notes, IsEmpty());
        EXPECT_EQ(read_json(conf::STORED_CONFIG), former);
        EXPECT_EQ(read_json(conf::RUNNING_CONFIG), former);
        unlink(mark);
    }
    ASSERT_EQ(boot(), 0);
    EXPECT_EQ(read_json(conf::RUNNING_CONFIG), default_config());
}

TEST_F(Boot, ASubstituteRunsEvenWhenItCannotBeStored) {
    write_text("/var/data/.tmp", "a file where the library wants a folder");
    write_text(conf::STORED_CONFIG, "{}");
    EXPECT_EQ(boot(), -1);
    EXPECT_EQ(read_json(conf::RUNNING_CONFIG), default_config());
    EXPECT_THAT(notes, Contains(HasSubstr("cannot be replaced by /usr/share/vantrel/default-config.json")));
}

TEST_F(Boot, WithoutAnyConfigurationFails) {
    unlink(conf::DEFAULT_CONFIG);
    EXPECT_EQ(boot(), -1);
    EXPECT_THAT(notes.at(0), HasSubstr("nothing to replace it by"));
}

TEST_F(Boot, WithoutMetaDataTheConfigurationRunsAllTheSame) {
    write_json(conf::STORED_CONFIG, stored);
    std::filesystem::remove_all(conf::IMAGE_META_FOLDER);
    EXPECT_EQ(boot(), -1);
    EXPECT_THAT(notes, Contains("the image's meta data cannot be used"));
    EXPECT_EQ(read_json(conf::RUNNING_CONFIG), stored);
    EXPECT_EQ(hash_in(conf::RUNNING_HASH), config_hash(stored));
}

TEST_F(Boot, ABrokenFailsafeCopyIsTold) {
    write_json(conf::STORED_CONFIG, stored);
    write_text(conf::FAILSAFE_CONFIG, "{ torn");
    EXPECT_EQ(boot(), -1);
    EXPECT_THAT(notes.at(0), HasSubstr("failsafe configuration cannot be read"));
    EXPECT_EQ(read_json(conf::RUNNING_CONFIG), stored);
}

} // namespace
