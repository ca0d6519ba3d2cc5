// Where meta data and the hardware section move, and when each step fails.
#include "tests/platform/cmd_fixture.h"

#include "host/cmd/config_copies.h"
#include "host/cmd/dotted.h"
#include "host/cmd/meta.h"
#include "host/cmd/paths.h"
#include "platform/cmd.h"
#include "tests/fakes/private_root.h"

namespace {

namespace fs = std::filesystem;

const std::string IMAGE_WIFI = "/usr/share/vantrel/meta/network.wireless.wifi.json";
const std::string RAM_WIFI = "/var/volatile/config/meta/network.wireless.wifi.json";

class Meta : public CmdTest {
protected:
    // Of the port lo, which exists here.
    static Json::Value config_with_port(const std::string &port) {
        Json::Value ports;
        ports[port]["enable"] = true;
        return default_with("hardware.ports", ports);
    }

    static bool is_available(const std::string &area) {
        const Json::Value meta = read_json(conf::META_FILE);
        for (const Json::Value &one : meta["areas"])
            if (one["path"] == area)
                return one["available"].asBool();
        throw std::invalid_argument(area);
    }

    static void given_image_area(const std::string &member, const Json::Value &value) {
        Json::Value area = read_json(IMAGE_WIFI);
        area[member] = value;
        write_json(IMAGE_WIFI, area);
    }
};

TEST_F(Meta, InitMakesTheFolderAndTheFileInRam) {
    given_running(default_config());
    ASSERT_EQ(cmd_metainit(), 0);
    EXPECT_EQ(read_text(RAM_WIFI), read_text(IMAGE_WIFI));
    std::string fault;
    const auto meta = conf::parse_meta(read_json(conf::META_FILE), fault);
    ASSERT_TRUE(meta) << fault;
    EXPECT_EQ(meta->areas.size(), 13U);
    EXPECT_EQ(meta->areas.front().path, "hardware");
}

TEST_F(Meta, InitTakesWhatANewImageChanged) {
    ASSERT_EQ(cmd_metainit(), 0);
    given_image_area("access", 3);
    fs::remove("/usr/share/vantrel/meta/gps.gps.json");
    ASSERT_EQ(cmd_metainit(), 0);
    EXPECT_EQ(read_json(RAM_WIFI)["access"], 3);
    EXPECT_FALSE(exists("/var/volatile/config/meta/gps.gps.json"));
    EXPECT_THROW(is_available("gps.gps"), std::invalid_argument);
}

TEST_F(Meta, InitFitsTheFileToTheHardware) {
    given_running(default_with("hardware.modules.wifi", false));
    ASSERT_EQ(cmd_metainit(), 0);
    EXPECT_FALSE(is_available("network.wireless.wifi"));
    EXPECT_TRUE(is_available("network.wireless.cell"));
    EXPECT_TRUE(is_available("network.interfaces"));
}

struct broken_area {
    std::string member;
    std::string value;
};

std::ostream &operator<<(std::ostream &out, const broken_area &one) {
    return out << one.member << " " << one.value;
}

class BrokenMeta : public Meta, public testing::WithParamInterface<broken_area> {};

TEST_P(BrokenMeta, OfTheImageIsRefusedAndTheFormerStays) {
    ASSERT_EQ(cmd_metainit(), 0);
    const std::string folder = read_text(RAM_WIFI);
    const std::string file = read_text(conf::META_FILE);
    given_image_area(GetParam().member, json(GetParam().value));
    EXPECT_EQ(cmd_metainit(), -1);
    EXPECT_EQ(read_text(RAM_WIFI), folder);
    EXPECT_EQ(read_text(conf::META_FILE), file);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, BrokenMeta,
    testing::Values(broken_area{"path", "7"}, broken_area{"path", "\"\""},
                    broken_area{"path", "\"network.interfaces\""},
                    broken_area{"path", "\"network.interfaces.wifi\""}, broken_area{"order", "\"first\""},
                    broken_area{"access", "4"}, broken_area{"access", "-1"}, broken_area{"access", "null"},
                    broken_area{"access_below", "[]"}, broken_area{"access_below", "{\"security\": 9}"},
                    broken_area{"cmd_apply", "\"/usr/bin/cmd_wifi apply\""}, broken_area{"cmd_apply", "[1]"},
                    broken_area{"cmd_restart", "null"}, broken_area{"sensitive", "{}"},
                    broken_area{"schema", "[]"}, broken_area{"schema", "{\"type\": \"number!\"}"},
                    broken_area{"schema", "{\"properties\": {\"a\": {\"$ref\": \"#/definitions/none\"}}}"},
                    broken_area{"schema", "{\"minimum\": \"low\"}"}));

TEST_F(Meta, InitWithoutUsableDocumentsFails) {
    write_text(IMAGE_WIFI, "{ torn");
    EXPECT_EQ(cmd_metainit(), -1);
    fs::remove_all(conf::IMAGE_META_FOLDER);
    EXPECT_EQ(cmd_metainit(), -1);
    fs::create_directories(conf::IMAGE_META_FOLDER);
    EXPECT_EQ(cmd_metainit(), -1);
    EXPECT_FALSE(exists(conf::META_FILE));
}

TEST_F(Meta, StoringAndRestoringMoveTheFile) {
    given_running(default_config());
    ASSERT_EQ(cmd_metainit(), 0);
    const std::string original = read_text(conf::META_FILE);
    ASSERT_EQ(store_meta_file(), 0);
    EXPECT_EQ(read_text(conf::STORED_META_FILE), original);

    given_running(default_with("hardware.modules.wifi", false));
    ASSERT_EQ(cmd_metainit(), 0);
    EXPECT_NE(read_text(conf::META_FILE), original);
    ASSERT_EQ(restore_meta_file(), 0);
    EXPECT_EQ(read_text(conf::META_FILE), original);
}

TEST_F(Meta, StoringTheSameAgainWritesNothing) {
    ASSERT_EQ(cmd_metainit(), 0);
    ASSERT_EQ(store_meta_file(), 0);
    const auto first = fs::last_write_time(conf::STORED_META_FILE);
    const auto earlier = first - std::chrono::hours(1);
    fs::last_write_time(conf::STORED_META_FILE, earlier);
    ASSERT_EQ(store_meta_file(), 0);
    EXPECT_EQ(fs::last_write_time(conf::STORED_META_FILE), earlier);
}

TEST_F(Meta, StoringFailsWithoutAUsableFileInRamAndKeepsTheStoredOne) {
    EXPECT_EQ(store_meta_file(), -1);
    ASSERT_EQ(cmd_metainit(), 0);
    ASSERT_EQ(store_meta_file(), 0);
    const std::string stored = read_text(conf::STORED_META_FILE);
    write_text(conf::META_FILE, "{ torn");
    EXPECT_EQ(store_meta_file(), -1);
    write_text(conf::META_FILE, "{\"areas\": []}");
    EXPECT_EQ(store_meta_file(), -1);
    EXPECT_EQ(read_text(conf::STORED_META_FILE), stored);
}

TEST_F(Meta, RestoringFailsWithoutAUsableStoredFileAndKeepsTheOneInRam) {
    ASSERT_EQ(cmd_metainit(), 0);
    const std::string in_ram = read_text(conf::META_FILE);
    EXPECT_EQ(restore_meta_file(), -1);
    write_text(conf::STORED_META_FILE, "{}");
    EXPECT_EQ(restore_meta_file(), -1);
    EXPECT_EQ(read_text(conf::META_FILE), in_ram);
}

class RestoreOrRegenerate : public Meta {
protected:
    RestoreOrRegenerate() {
        given_running(default_config());
        EXPECT_EQ(cmd_metainit(), 0);
        original = read_text(conf::META_FILE);
    }

    std::string original;
};

TEST_F(RestoreOrRegenerate, TakesTheStoredFile) {
    ASSERT_EQ(store_meta_file(), 0);
    unlink(conf::META_FILE);
    EXPECT_EQ(restore_meta_file_or_regenerate_from_meta_folder_in_ram(), 0);
    EXPECT_EQ(read_text(conf::META_FILE), original);
}

TEST_F(RestoreOrRegenerate, MakesItAnewWhenNoneIsStored) {
    unlink(conf::META_FILE);
    EXPECT_EQ(restore_meta_file_or_regenerate_from_meta_folder_in_ram(), 0);
    EXPECT_EQ(read_text(conf::META_FILE), original);
}

TEST_F(RestoreOrRegenerate, MakesItAnewWhenTheStoredOneIsForOtherHardware) {
    ASSERT_EQ(store_meta_file(), 0);
    given_running(default_with("hardware.modules.wifi", false));
    EXPECT_EQ(restore_meta_file_or_regenerate_from_meta_folder_in_ram(), 0);
    EXPECT_FALSE(is_available("network.wireless.wifi"));
}

TEST_F(RestoreOrRegenerate, FailsWithoutEither) {
    fs::remove_all(conf::META_FOLDER);
    EXPECT_EQ(restore_meta_file_or_regenerate_from_meta_folder_in_ram(), -1);
    EXPECT_EQ(read_text(conf::META_FILE), original);
}

class Hardware : public Meta {
protected:
    Hardware() {
        given_running(config_with_port("lo"));
        EXPECT_EQ(cmd_metainit(), 0);
    }
};

TEST_F(Hardware, SettingsAreAppliedFromTheRunningConfiguration) {
    Json::Value config = config_with_port("lo");
    conf::set_member(config, "hardware.modules.gps", false);
    given_running(config);
    ASSERT_EQ(cmd_hwconfig(), 0);
    EXPECT_EQ(read_json(conf::HARDWARE_SETTINGS), config["hardware"]);
    EXPECT_FALSE(is_available("gps.gps"));
}

TEST_F(Hardware, WithAPortThatIsNotThereFailsAndChangesNothing) {
    const std::string meta = read_text(conf::META_FILE);
    given_running(config_with_port("eth77"));
    EXPECT_EQ(cmd_hwconfig(), -1);
    EXPECT_FALSE(exists(conf::HARDWARE_SETTINGS));
    EXPECT_EQ(read_text(conf::META_FILE), meta);
}

TEST_F(Hardware, APortThatIsOffNeedNotBeThere) {
    Json::Value config = config_with_port("lo");
    config["hardware"]["ports"]["eth77"]["enable"] = false;
    given_running(config);
    EXPECT_EQ(cmd_hwconfig(), 0);
}

TEST_F(Hardware, WithoutTheSectionOrMetaDataFails) {
    fs::remove_all(conf::META_FOLDER);
    EXPECT_EQ(cmd_hwconfig(), -1);
    EXPECT_FALSE(exists(conf::HARDWARE_SETTINGS));
    given_running(default_without("hardware"));
    EXPECT_EQ(cmd_hwconfig(), -1);
    unlink(conf::RUNNING_CONFIG);
    EXPECT_EQ(cmd_hwconfig(), -1);
}

TEST_F(Hardware, SectionIsStoredOnce) {
    ASSERT_EQ(save_hw_config_section_to_nv(), 0);
    EXPECT_EQ(read_json(conf::STORED_HARDWARE), config_with_port("lo")["hardware"]);
    const auto earlier = fs::last_write_time(conf::STORED_HARDWARE) - std::chrono::hours(1);
    fs::last_write_time(conf::STORED_HARDWARE, earlier);
    ASSERT_EQ(save_hw_config_section_to_nv(), 0);
    EXPECT_EQ(fs::last_write_time(conf::STORED_HARDWARE), earlier);
}

TEST_F(Hardware, SectionThatIsMissingLeavesTheStoredOne) {
    ASSERT_EQ(save_hw_config_section_to_nv(), 0);
    const std::string stored = read_text(conf::STORED_HARDWARE);
    given_running(default_without("hardware"));
    EXPECT_EQ(save_hw_config_section_to_nv(), -1);
    unlink(conf::RUNNING_CONFIG);
    EXPECT_EQ(save_hw_config_section_to_nv(), -1);
    EXPECT_EQ(read_text(conf::STORED_HARDWARE), stored);
}

class AccessLevel : public Meta {
protected:
    static int level(const char *config, const char *path) {
        metaConfig meta(false, config, nullptr);
        int found = -7;
        return meta.getAccessLevel(path, found) == 0 ? found : -1;
    }
};

TEST_F(AccessLevel, OfAPathIsThatOfItsArea) {
    given_running(default_config());
    EXPECT_EQ(level(conf::RUNNING_CONFIG, "network.interfaces"), 1);
    EXPECT_EQ(level(conf::RUNNING_CONFIG, "network.interfaces.wan.address"), 1);
    EXPECT_EQ(level(conf::RUNNING_CONFIG, "iot.vantrel_iot.host"), 2);
}

TEST_F(AccessLevel, MayBeHigherBelow) {
    given_running(default_config());
    EXPECT_EQ(level(conf::RUNNING_CONFIG, "network.wireless.wifi.ssid"), 1);
    EXPECT_EQ(level(conf::RUNNING_CONFIG, "network.wireless.wifi.security"), 2);
    EXPECT_EQ(level(conf::RUNNING_CONFIG, "network.wireless.wifi.security.passphrase"), 2);
    EXPECT_EQ(level(conf::RUNNING_CONFIG, "network.wireless.wifi.securityfoo"), 1);
    EXPECT_EQ(level(conf::RUNNING_CONFIG, "network.wireless.cell.sim1.pin"), 2);
}

TEST_F(AccessLevel, OfTheClosestRuleCounts) {
    for (const char *rules :
         {R"({"security": 3, "security.mode": 0})", R"({"a": 1, "security.mode": 0, "security": 3})"}) {
        given_image_area("access_below", json(rules));
        given_running(default_config());
        EXPECT_EQ(level(conf::RUNNING_CONFIG, "network.wireless.wifi.security.mode"), 0);
        EXPECT_EQ(level(conf::RUNNING_CONFIG, "network.wireless.wifi.security.passphrase"), 3);
    }
    given_image_area("access_below", json(R"({"a": 3, "a.longer": 0})"));
    EXPECT_EQ(level(conf::RUNNING_CONFIG, "network.wireless.wifi.a.longer.path"), 0);
}

TEST_F(AccessLevel, OfNoAreaFails) {
    given_running(default_config());
    for (const char *path : {"", "network", "network.other", "network.interfacesfoo", "other.path"})
        EXPECT_EQ(level(conf::RUNNING_CONFIG, path), -1) << path;
    EXPECT_EQ(level(conf::RUNNING_CONFIG, nullptr), -1);
}

TEST_F(AccessLevel, OfAnAreaWithoutItsModuleFails) {
    given_running(default_with("hardware.modules.wifi", false));
    EXPECT_EQ(level(conf::RUNNING_CONFIG, "network.wireless.wifi"), -1);
    EXPECT_EQ(level(conf::RUNNING_CONFIG, "network.wireless.cell"), 1);
}

TEST_F(AccessLevel, OfAMissingOrBrokenConfigurationFails) {
    EXPECT_EQ(level("/var/volatile/config/none", "network.interfaces"), -1);
    EXPECT_EQ(level(nullptr, "network.interfaces"), -1);
    write_text(conf::RUNNING_CONFIG, "{ torn");
    EXPECT_EQ(level(conf::RUNNING_CONFIG, "network.interfaces"), -1);
}

TEST_F(AccessLevel, AskedForWithoutPreparingChangesNoFile) {
    given_running(default_config());
    ASSERT_EQ(cmd_metainit(), 0);
    const std::string before = read_text(conf::META_FILE);
    write_json(conf::NEW_CONFIG, default_with("hardware.modules.wifi", false));
    EXPECT_EQ(level(conf::NEW_CONFIG, "network.interfaces"), 1);
    EXPECT_EQ(read_text(conf::META_FILE), before);
}

TEST_F(AccessLevel, PreparingMakesTheMetaFileForTheCandidate) {
    given_running(default_config());
    ASSERT_EQ(cmd_metainit(), 0);
    write_json(conf::NEW_CONFIG, default_with("hardware.modules.wifi", false));
    { metaConfig prepared(true, conf::NEW_CONFIG, nullptr); }
    EXPECT_FALSE(is_available("network.wireless.wifi"));
}

TEST_F(AccessLevel, PreparingForAMissingCandidateLeavesTheMetaFile) {
    given_running(default_config());
    ASSERT_EQ(cmd_metainit(), 0);
    const std::string before = read_text(conf::META_FILE);
    { metaConfig prepared(true, conf::NEW_CONFIG, nullptr); }
    EXPECT_EQ(read_text(conf::META_FILE), before);
}

TEST_F(Meta, WorksFromTheImageBeforeItWasInitialised) {
    given_running(default_config());
    std::string result;
    EXPECT_EQ(config_validator(conf::RUNNING_CONFIG, result), 0) << result;
}

TEST_F(Meta, ABrokenMetaFileIsPassedOver) {
    given_running(default_config());
    ASSERT_EQ(cmd_metainit(), 0);
    write_text(conf::META_FILE, "{ torn");
    std::string result;
    EXPECT_EQ(config_validator(conf::RUNNING_CONFIG, result), 0) << result;
}

TEST_F(Meta, EveryExpectationCanBeExplained) {
    std::string fault;
    const auto meta = conf::parse_meta(conf::read_meta_folder(conf::IMAGE_META_FOLDER, fault), fault);
    ASSERT_TRUE(meta) << fault;
    for (const conf::area &area : meta->areas)
        EXPECT_TRUE(area.schema["description"].isString()) << area.path;
    for (const std::string &name : meta->definitions.getMemberNames())
        EXPECT_TRUE(meta->definitions[name]["description"].isString()) << name;
}

} // namespace
