// Sensitive fields in their stored form.
#include "tests/platform/cmd_fixture.h"

#include "host/cmd/canonical.h"
#include "host/cmd/dotted.h"
#include "host/vtrsec/field_cipher.h"
#include "platform/cmd.h"
#include "platform/vtrsec.h"

#include <sys/stat.h>

#include <barrier>
#include <thread>

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr char FILE_PATH[] = "/var/volatile/config/config.new";
constexpr char KEY[] = "/var/data/factory/key";
constexpr char PASSPHRASE[] = "network.wireless.wifi.security.passphrase";

class Encoding : public CmdTest {
protected:
    Encoding() {
        conf::set_member(secret, PASSPHRASE, "wifi passphrase");
        conf::set_member(secret, "network.wireless.wifi.security.mode", "wpa2-psk");
        conf::set_member(secret, "network.wireless.cell.sim1.pin", "1234");
        conf::set_member(
            secret, "network.tunnels.ipsec.tunnels",
            json(R"([{"name": "a", "enable": true, "remote": "a.example", "psk": "first shared key",
                                   "local_subnet": "192.168.1.0/24", "remote_subnet": "10.1.0.0/16"},
                                  {"name": "b", "enable": true, "remote": "b.example", "psk": "other shared key",
                                   "local_subnet": "192.168.1.0/24", "remote_subnet": "10.2.0.0/16"}])"));
        conf::set_member(secret, "apps.installed.monitor",
                         json(R"({"enable": true, "secret": "app's own"})"));
    }

    static std::string encoded(const Json::Value &config) {
        write_json(FILE_PATH, config);
        EXPECT_EQ(encode_encrypt_fields_config_file(FILE_PATH, nullptr), 0);
        return read_text(FILE_PATH);
    }

    Json::Value secret = default_config();
};

TEST_F(Encoding, HidesEverySensitiveFieldAndNothingElse) {
    const std::string text = encoded(secret);
    for (const char *plain : {"wifi passphrase", "1234", "first shared key", "other shared key", "app's own"})
        EXPECT_THAT(text, Not(HasSubstr(plain)));
    EXPECT_EQ(conf::canonical(json(text)), secret);
    EXPECT_EQ(conf::find_member(json(text), "network.wireless.wifi.security.mode")->asString(), "wpa2-psk");
    EXPECT_THAT(conf::find_member(json(text), PASSPHRASE)->asString(), StartsWith("$siv1$"));
}

TEST_F(Encoding, IsDeterministic) {
    EXPECT_EQ(encoded(secret), encoded(secret));
}

TEST_F(Encoding, IsIdempotent) {
    const std::string once = encoded(secret);
    bool changed = true;
    EXPECT_EQ(encode_encrypt_fields_config_file(FILE_PATH, &changed), 0);
    EXPECT_FALSE(changed);
    EXPECT_EQ(read_text(FILE_PATH), once);
}

TEST_F(Encoding, TellsWhetherTheFileWasRewritten) {
    write_json(FILE_PATH, secret);
    bool changed = false;
    EXPECT_EQ(encode_encrypt_fields_config_file(FILE_PATH, &changed), 0);
    EXPECT_TRUE(changed);
    write_text(FILE_PATH, "{ }");
    EXPECT_EQ(encode_encrypt_fields_config_file(FILE_PATH, &changed), 0);
    EXPECT_FALSE(changed);
    EXPECT_EQ(read_text(FILE_PATH), "{ }");
}

TEST_F(Encoding, LeavesHashAndVerdictAsTheyWere) {
    const std::string hash = config_hash(secret);
    EXPECT_EQ(config_hash(json(encoded(secret))), hash);
    std::string result;
    EXPECT_EQ(config_validator(FILE_PATH, result), 0) << result;
}

TEST_F(Encoding, ShowsWhichSecretIsWrongWithoutTheSecret) {
    conf::set_member(secret, PASSPHRASE, "short");
    encoded(secret);
    std::string result;
    EXPECT_EQ(config_validator(FILE_PATH, result), -1);
    EXPECT_EQ(result,
              std::string(PASSPHRASE) + ": expected a passphrase of 8 to 63 printable ASCII characters");
}

TEST_F(Encoding, LeavesEmptyTextsAndOtherTypes) {
    conf::set_member(secret, PASSPHRASE, "");
    conf::set_member(secret, "network.wireless.cell.sim1.pin", 1234);
    const Json::Value stored = json(encoded(secret));
    EXPECT_EQ(conf::find_member(stored, PASSPHRASE)->asString(), "");
    EXPECT_EQ(conf::find_member(stored, "network.wireless.cell.sim1.pin")->asInt(), 1234);
}

TEST_F(Encoding, BindsASecretToItsPlace) {
    Json::Value stored = json(encoded(secret));
    conf::set_member(stored, "network.wireless.cell.sim1.password", *conf::find_member(stored, PASSPHRASE));
    write_json(FILE_PATH, stored);
    std::string result;
    EXPECT_EQ(config_validator(FILE_PATH, result), -1);
    EXPECT_THAT(result,
                HasSubstr("network.wireless.cell.sim1.password: was not encoded on this device, or not at"));
}

TEST_F(Encoding, LetsTheElementsOfAListChangePlaces) {
    Json::Value stored = json(encoded(secret));
    Json::Value &tunnels = stored["network"]["tunnels"]["ipsec"]["tunnels"];
    tunnels[0].swap(tunnels[1]);
    EXPECT_EQ(conf::find_member(conf::canonical(stored), "network.tunnels.ipsec.tunnels.0.psk")->asString(),
              "other shared key");
}

TEST_F(Encoding, UnderAnotherKeyIsToldByTheValidatorAndLeftAlone) {
    const std::string foreign = encoded(secret);
    write_text(KEY, std::string(64, '7') + "\n");
    bool changed = true;
    EXPECT_EQ(encode_encrypt_fields_config_file(FILE_PATH, &changed), 0);
    EXPECT_FALSE(changed);
    EXPECT_EQ(read_text(FILE_PATH), foreign);
    std::string result;
    EXPECT_EQ(config_validator(FILE_PATH, result), -1);
    EXPECT_THAT(result, HasSubstr("was not encoded on this device"));
}

TEST_F(Encoding, DependsOnTheKey) {
    const std::string one = encoded(secret);
    write_text(KEY, std::string(64, '7') + "\n");
    EXPECT_NE(encoded(secret), one);
}

TEST_F(Encoding, ATamperedTextIsNotDecoded) {
    const vtrsec::field_cipher cipher(true);
    const std::string stored = cipher.encode("a.b", "the text").value();
    EXPECT_EQ(cipher.decode("a.b", stored), "the text");
    for (size_t i = 6; i < stored.size(); ++i) {
        std::string tampered = stored;
        tampered[i] = tampered[i] == 'A' ? 'B' : 'A';
        EXPECT_NE(cipher.decode("a.b", tampered), "the text") << i;
    }
    for (const char *text : {"", "the text", "$siv1$", "$siv1$AAAA", "$siv1$====", "$siv1$!!!!", "$siv1$AAA",
                             "$siv1$AAAAAAAAAAAAAAAAAAAAAA=="})
        EXPECT_EQ(cipher.decode("a.b", text), std::nullopt) << text;
}

TEST_F(Encoding, CarriesAnyText) {
    const vtrsec::field_cipher cipher(true);
    for (const std::string &text : {std::string("x"), std::string(5000, 'y'), std::string("a\0b", 3),
                                    std::string("\xc3\xa4\xf0\x9f\x98\x80"), std::string("$siv1$AAAA")}) {
        const auto stored = cipher.encode("a.b", text);
        ASSERT_TRUE(stored);
        EXPECT_EQ(cipher.decode("a.b", *stored), text);
    }
}

TEST_F(Encoding, MakesTheKeyAtFirstUseForRootAlone) {
    EXPECT_FALSE(exists(KEY));
    encoded(secret);
    EXPECT_EQ(read_text(KEY).size(), 65U);
    struct stat status {};
    ASSERT_EQ(stat(KEY, &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    const std::string key = read_text(KEY);
    encoded(secret);
    EXPECT_EQ(read_text(KEY), key);
}

TEST_F(Encoding, OfSeveralWhoMakeTheKeyAtOnceOneWins) {
    constexpr int MAKERS = 4;
    for (int round = 0; round < 25; ++round) {
        unlink(KEY);
        std::barrier start(MAKERS);
        std::vector<std::string> stored(MAKERS);
        std::vector<std::thread> makers;
        for (std::string &text : stored)
            makers.emplace_back([&] {
                start.arrive_and_wait();
                text = vtrsec::field_cipher(true).encode("a", "b").value_or("none");
            });
        for (std::thread &maker : makers)
            maker.join();
        ASSERT_THAT(stored, testing::Each(stored[0]));
        ASSERT_THAT(stored[0], StartsWith("$siv1$"));
    }
}

TEST_F(Encoding, WithABrokenKeyFailsAndLeavesFileAndKey) {
    write_text(KEY, "short\n");
    write_json(FILE_PATH, secret);
    const std::string before = read_text(FILE_PATH);
    bool changed = true;
    EXPECT_EQ(encode_encrypt_fields_config_file(FILE_PATH, &changed), -1);
    EXPECT_TRUE(changed);
    EXPECT_EQ(read_text(FILE_PATH), before);
    EXPECT_EQ(read_text(KEY), "short\n");
}

TEST_F(Encoding, OfAMissingOrBrokenFileFails) {
    EXPECT_EQ(encode_encrypt_fields_config_file(FILE_PATH, nullptr), -1);
    EXPECT_EQ(encode_encrypt_fields_config_file(nullptr, nullptr), -1);
    for (const char *content : {"", "{ torn", "[]"}) {
        write_text(FILE_PATH, content);
        EXPECT_EQ(encode_encrypt_fields_config_file(FILE_PATH, nullptr), -1) << content;
        EXPECT_EQ(read_text(FILE_PATH), content);
    }
    EXPECT_FALSE(exists(KEY));
}

TEST_F(Encoding, WithoutMetaDataFailsRatherThanLeaveSecretsPlain) {
    write_json(FILE_PATH, secret);
    std::filesystem::remove_all("/usr/share/vantrel/meta");
    EXPECT_EQ(encode_encrypt_fields_config_file(FILE_PATH, nullptr), -1);
}

} // namespace
