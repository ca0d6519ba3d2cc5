// The hash of a configuration and its file.
#include "tests/platform/cmd_fixture.h"

#include "host/cmd/paths.h"
#include "platform/cmd.h"

#include <algorithm>
#include <random>

namespace {

constexpr char CONFIG[] = "/var/volatile/config/some.json";
constexpr char HASH[] = "/var/volatile/config/some.hash";

class ConfigHash : public CmdTest {};

// The same members in another order, as text: jsoncpp itself sorts what it holds.
std::string shuffled(const Json::Value &value, std::mt19937 &random) {
    if (value.isArray()) {
        std::string text;
        for (const Json::Value &element : value)
            text += (text.empty() ? "" : " ,\n") + shuffled(element, random);
        return "[" + text + "]";
    }
    if (!value.isObject())
        return value.toStyledString();
    auto names = value.getMemberNames();
    std::shuffle(names.begin(), names.end(), random);
    std::string text;
    for (const std::string &name : names)
        text += (text.empty() ? "" : ",") + Json::valueToQuotedString(name.c_str()) + " : " +
                shuffled(value[name], random);
    return "{" + text + "}";
}

TEST_F(ConfigHash, IsTheSha256OfTheCanonicalText) {
    // printf '{"a":[1,2.5,true,null],"b":"\303\244/\\n"}' | sha256sum
    EXPECT_EQ(config_hash(json("{ \"b\": \"\\u00e4/\\n\", \"a\": [1, 2.5, true, null] }")),
              "230375e6cb31b96cda656b547ba86f63dee3f54b627ba9adb97f80ae55355bca");
}

TEST_F(ConfigHash, IsTheSameHoweverMembersAreOrdered) {
    std::mt19937 random(7);
    const std::string hash = config_hash(default_config());
    for (int i = 0; i < 50; ++i) {
        write_text(CONFIG, shuffled(default_config(), random));
        ASSERT_EQ(calculate_and_write_config_hash(CONFIG, HASH), 0);
        EXPECT_EQ(hash_in(HASH), hash);
    }
}

TEST_F(ConfigHash, DiffersWhenAnythingDiffers) {
    const std::string hash = config_hash(default_config());
    EXPECT_NE(config_hash(default_with("system.failsafe.timer", 6)), hash);
    EXPECT_NE(config_hash(default_with("system.failsafe.timer", "5")), hash);
    EXPECT_NE(config_hash(default_without("system.failsafe.timer")), hash);
    EXPECT_NE(config_hash(default_with("system.failsafe.other", Json::Value())), hash);
}

TEST_F(ConfigHash, TakesAWholeNumberInAnyForm) {
    EXPECT_EQ(config_hash(json("{\"timer\": 5.0}")), config_hash(json("{\"timer\": 5}")));
    EXPECT_EQ(config_hash(json("{\"timer\": 50e-1}")), config_hash(json("{\"timer\": 5}")));
    Json::Value as_unsigned;
    as_unsigned["timer"] = 5U;
    EXPECT_EQ(config_hash(as_unsigned), config_hash(json("{\"timer\": 5}")));
}

TEST_F(ConfigHash, OfTheRunningConfigurationIsComputedFromIt) {
    given_running(default_config());
    EXPECT_EQ(current_config_hash(), config_hash(default_config()));
    given_running(default_with("system.failsafe.timer", 6));
    EXPECT_EQ(current_config_hash(), config_hash(default_with("system.failsafe.timer", 6)));
    unlink(conf::RUNNING_CONFIG);
    EXPECT_EQ(current_config_hash(), "");
}

TEST_F(ConfigHash, FileIsOneLineOfItsOwn) {
    write_json(CONFIG, default_config());
    ASSERT_EQ(calculate_and_write_config_hash(CONFIG, HASH), 0);
    EXPECT_EQ(read_text(HASH), config_hash(default_config()) + "\n");
}

TEST_F(ConfigHash, OfAMissingOrBrokenConfigurationFailsAndLeavesTheFile) {
    write_text(HASH, "before\n");
    EXPECT_EQ(calculate_and_write_config_hash(CONFIG, HASH), -1);
    for (const char *content : {"", "{", "[]", "7", "{} {}"}) {
        write_text(CONFIG, content);
        EXPECT_EQ(calculate_and_write_config_hash(CONFIG, HASH), -1) << content;
    }
    EXPECT_EQ(read_text(HASH), "before\n");
    write_text(CONFIG, "{}");
    EXPECT_EQ(calculate_and_write_config_hash(CONFIG, "/var/volatile/none/some.hash"), -1);
}

TEST_F(ConfigHash, ReadingAMissingOrEmptyOrOverlongFileLeavesTheBuffer) {
    char buffer[128] = "before";
    EXPECT_EQ(read_hash(HASH, buffer), -1);
    write_text(HASH, "");
    EXPECT_EQ(read_hash(HASH, buffer), -1);
    write_text(HASH, "\n");
    EXPECT_EQ(read_hash(HASH, buffer), -1);
    write_text(HASH, std::string(128, 'x'));
    EXPECT_EQ(read_hash(HASH, buffer), -1);
    EXPECT_STREQ(buffer, "before");
    write_text(HASH, std::string(127, 'x'));
    EXPECT_EQ(read_hash(HASH, buffer), 0);
    EXPECT_EQ(buffer, std::string(127, 'x'));
}

} // namespace
