// Laws that hold for any configuration, tried on random ones.
#include "tests/platform/cmd_fixture.h"

#include "host/cmd/canonical.h"
#include "host/cmd/dotted.h"
#include "host/cmd/fault.h"
#include "platform/cmd.h"
#include "platform/vtrsec.h"

#include <algorithm>
#include <random>

namespace {

constexpr char ONE[] = "/var/volatile/config/one";
constexpr char OTHER[] = "/var/volatile/config/other";
constexpr int ROUNDS = 30;

class RandomConfigurations : public CmdTest, public testing::WithParamInterface<unsigned> {
protected:
    int below(int limit) { return std::uniform_int_distribution(0, limit - 1)(random); }

    template <typename list_type> const auto &any(const list_type &list) {
        return list[static_cast<size_t>(below(static_cast<int>(list.size())))];
    }

    Json::Value scalar() {
        static const std::vector<std::string> TEXTS = {
            "", "x", "192.0.2.7", "\xc3\xa4\xc3\xb6", "a\"b\\c\n\x01", "$siv1$", "$siv1$AAAA", "null", "1"};
        static const std::vector<Json::Value> NUMBERS = {
            0, -1, 65536, Json::Value(Json::UInt64(1) << 63), 5.0, 1e300, -0.5};
        switch (below(5)) {
        case 0:
            return Json::Value();
        case 1:
            return below(2) == 0;
        case 2:
            return any(NUMBERS);
        default:
            return any(TEXTS);
        }
    }

    Json::Value value(int depth) {
        const int kind = depth == 0 ? 2 : below(3);
        if (kind == 2)
            return scalar();
        Json::Value container(kind == 0 ? Json::objectValue : Json::arrayValue);
        for (int i = below(4); i > 0; --i) {
            if (kind == 0)
                container["name" + std::to_string(below(6))] = value(depth - 1);
            else
                container.append(value(depth - 1));
        }
        return container;
    }

    // The default configuration with some members replaced by anything, sensitive ones too.
    Json::Value configuration() {
        static const std::vector<std::string> PLACES = {"network.wireless.wifi.security.passphrase",
                                                        "network.wireless.cell.sim1.pin",
                                                        "network.tunnels.ipsec.tunnels.0.psk",
                                                        "network.tunnels.ipsec.tunnels.1.psk",
                                                        "apps.installed.monitor.secret",
                                                        "network.interfaces.wan",
                                                        "network.interfaces.wan.address",
                                                        "network.firewall.rules",
                                                        "system.failsafe.timer",
                                                        "gps",
                                                        "hardware.modules",
                                                        "extra.deep.down"};
        Json::Value config = default_config();
        for (int i = below(6); i > 0; --i)
            conf::set_member(config, any(PLACES), value(3));
        return config;
    }

    std::string shuffled(const Json::Value &document) {
        if (document.isArray()) {
            std::string text;
            for (const Json::Value &element : document)
                text += (text.empty() ? "" : ",") + shuffled(element);
            return "[" + text + "]";
        }
        if (!document.isObject())
            return conf::one_line(document);
        auto names = document.getMemberNames();
        std::shuffle(names.begin(), names.end(), random);
        std::string text;
        for (const std::string &name : names)
            text += (text.empty() ? "" : ",\n ") + conf::one_line(Json::Value(name)) + ":" +
                    shuffled(document[name]);
        return "{" + text + "}";
    }

    std::mt19937 random{GetParam()};
};

TEST_P(RandomConfigurations, OneConfigurationHasOneHashInEveryForm) {
    for (int round = 0; round < ROUNDS; ++round) {
        const Json::Value config = configuration();
        const std::string hash = config_hash(config);
        write_text(ONE, shuffled(config));
        ASSERT_EQ(config_hash(read_json(ONE)), hash) << config;
        ASSERT_EQ(encode_encrypt_fields_config_file(ONE, nullptr), 0);
        ASSERT_EQ(config_hash(read_json(ONE)), hash) << config;
    }
}

TEST_P(RandomConfigurations, EncodingTwiceIsEncodingOnce) {
    for (int round = 0; round < ROUNDS; ++round) {
        write_json(ONE, configuration());
        ASSERT_EQ(encode_encrypt_fields_config_file(ONE, nullptr), 0);
        const std::string once = read_text(ONE);
        ASSERT_EQ(encode_encrypt_fields_config_file(ONE, nullptr), 0);
        ASSERT_EQ(read_text(ONE), once);
    }
}

// What lies in no area is the validator's business, so it is left out here.
TEST_P(RandomConfigurations, TheChangeListIsEmptyExactlyWhenTheHashesAreEqual) {
    for (int round = 0; round < ROUNDS; ++round) {
        Json::Value one = configuration();
        Json::Value other = below(3) == 0 ? one : configuration();
        for (Json::Value *config : {&one, &other})
            for (const char *replaced : {"extra", "gps"})
                config->removeMember(replaced);
        write_text(ONE, shuffled(one));
        write_text(OTHER, shuffled(other));
        const char *encoded = below(2) == 0 ? ONE : OTHER;
        ASSERT_EQ(encode_encrypt_fields_config_file(encoded, nullptr), 0);
        Json::Value changes;
        ASSERT_EQ(get_config_change_list(ONE, OTHER, changes), 0);
        ASSERT_EQ(changes.empty(), config_hash(one) == config_hash(other)) << one << other;
    }
}

TEST_P(RandomConfigurations, TheVerdictDoesNotDependOnTheForm) {
    for (int round = 0; round < ROUNDS; ++round) {
        const Json::Value config = configuration();
        write_json(ONE, config);
        write_text(OTHER, shuffled(config));
        ASSERT_EQ(encode_encrypt_fields_config_file(OTHER, nullptr), 0);
        std::string one;
        std::string other;
        ASSERT_EQ(config_validator(ONE, one), config_validator(OTHER, other));
        ASSERT_EQ(one, other);
    }
}

TEST_P(RandomConfigurations, AnythingAtAllIsJudgedAndNothingThrows) {
    for (int round = 0; round < ROUNDS; ++round) {
        write_json(ONE, value(5));
        write_json(OTHER, value(5));
        std::string result;
        EXPECT_EQ(config_validator(ONE, result), -1);
        EXPECT_FALSE(result.empty());
        Json::Value changes;
        get_config_change_list(ONE, OTHER, changes);
        EXPECT_TRUE(changes.isArray());
        encode_encrypt_fields_config_file(ONE, nullptr);
        calculate_and_write_config_hash(ONE, OTHER);
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomConfigurations, testing::Values(1U, 2U, 3U));

} // namespace
