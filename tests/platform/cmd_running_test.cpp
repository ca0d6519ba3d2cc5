// Reading the running configuration and members of JSON objects.
#include "tests/platform/cmd_fixture.h"

#include "host/cmd/paths.h"
#include "platform/cmd.h"

#include <array>

namespace {

class RunningConfiguration : public CmdTest {
protected:
    RunningConfiguration() {
        given_running(
            json(R"({"iot": {"vantrel_iot": {"host": "cloud.example", "port": 8080, "enable": true}},
                               "list": [{"name": "first"}, {"name": "second"}], "nothing": null})"));
    }

    static std::string text_at(const char *path) {
        std::array<char, 256> buffer{};
        return cmd_get_value(path, buffer.data(), buffer.size()) == 0 ? buffer.data() : "(none)";
    }
};

TEST_F(RunningConfiguration, AValueIsFoundByItsDottedPath) {
    Json::Value value;
    ASSERT_EQ(cmd_get_value_json("iot.vantrel_iot", value), 0);
    EXPECT_EQ(value["host"], "cloud.example");
    ASSERT_EQ(cmd_get_value_json("list.1.name", value), 0);
    EXPECT_EQ(value, "second");
    ASSERT_EQ(cmd_get_value_json("nothing", value), 0);
    EXPECT_TRUE(value.isNull());
}

TEST_F(RunningConfiguration, WhatIsNotThereFailsAndLeavesTheValueAsItWas) {
    for (const char *path : {"iot.other", "iot.vantrel_iot.host.deeper", "list.2", "list.first", "list.-1",
                             ".", "iot.", ".iot", "iot..vantrel_iot", "list.99999999999999999999"}) {
        Json::Value value = "before";
        EXPECT_EQ(cmd_get_value_json(path, value), -1) << path;
        EXPECT_EQ(value, "before") << path;
    }
    Json::Value value = "before";
    EXPECT_EQ(cmd_get_value_json(nullptr, value), -1);
}

TEST_F(RunningConfiguration, IsReadAnewAtEachCall) {
    Json::Value value;
    ASSERT_EQ(cmd_get_value_json("iot.vantrel_iot.port", value), 0);
    EXPECT_EQ(value, 8080);
    given_running(json(R"({"iot": {"vantrel_iot": {"port": 443}}})"));
    ASSERT_EQ(cmd_get_value_json("iot.vantrel_iot.port", value), 0);
    EXPECT_EQ(value, 443);
}

TEST_F(RunningConfiguration, AMissingOrBrokenOneFails) {
    Json::Value value;
    for (const char *content : {"", "{", "[1, 2", "not json"}) {
        write_text(conf::RUNNING_CONFIG, content);
        EXPECT_EQ(cmd_get_value_json("iot.vantrel_iot", value), -1) << content;
    }
    write_text(conf::RUNNING_CONFIG, "[1, 2]");
    EXPECT_EQ(cmd_get_value_json("iot.vantrel_iot", value), -1);
    unlink(conf::RUNNING_CONFIG);
    EXPECT_EQ(cmd_get_value_json("iot.vantrel_iot", value), -1);
}

TEST_F(RunningConfiguration, AsTextTakesEachKindOfValue) {
    EXPECT_EQ(text_at("iot.vantrel_iot.host"), "cloud.example");
    EXPECT_EQ(text_at("iot.vantrel_iot.port"), "8080");
    EXPECT_EQ(text_at("iot.vantrel_iot.enable"), "true");
    EXPECT_EQ(text_at("list"), R"([{"name":"first"},{"name":"second"}])");
    EXPECT_EQ(text_at("iot.missing"), "(none)");
}

TEST_F(RunningConfiguration, ATextThatDoesNotFitLeavesTheBufferAsItWas) {
    std::array<char, 14> buffer{"before"};
    EXPECT_EQ(cmd_get_value("iot.vantrel_iot.host", buffer.data(), 13), -1);
    EXPECT_STREQ(buffer.data(), "before");
    EXPECT_EQ(cmd_get_value("iot.vantrel_iot.host", buffer.data(), 14), 0);
    EXPECT_STREQ(buffer.data(), "cloud.example");
    EXPECT_EQ(cmd_get_value("iot.vantrel_iot.host", buffer.data(), 0), -1);
    EXPECT_EQ(cmd_get_value("iot.vantrel_iot.host", nullptr, 14), -1);
}

class Getters : public CmdTest {
protected:
    const Json::Value object = json(R"({"yes": true, "count": 7, "text": "seven", "half": 7.5, "whole": 7.0,
                                        "big": 3000000000, "empty": null, "list": [1],
                                        "inner": {"yes": false, "count": -1, "deep": {"text": "down"}}})");
};

TEST_F(Getters, FindAMemberOfTheirTypeByItsDottedKey) {
    bool yes = true;
    EXPECT_TRUE(config_get_bool(object, &yes, "inner.yes"));
    EXPECT_FALSE(yes);
    int count = 0;
    EXPECT_TRUE(config_get_int(object, &count, "inner.count"));
    EXPECT_EQ(count, -1);
    EXPECT_TRUE(config_get_int(object, &count, "whole"));
    EXPECT_EQ(count, 7);
    std::string text;
    EXPECT_TRUE(config_get_string(object, &text, "inner.deep.text"));
    EXPECT_EQ(text, "down");
    Json::Value inner;
    EXPECT_TRUE(config_get_object(object, &inner, "inner.deep"));
    EXPECT_EQ(inner, object["inner"]["deep"]);
}

TEST_F(Getters, LeaveTheValueAsItWasWhenTheTypeDiffers) {
    for (const char *key : {"count", "text", "half", "empty", "list", "inner", "missing", "inner.missing",
                            "text.more", "list.0", ""}) {
        bool yes = true;
        EXPECT_FALSE(config_get_bool(object, &yes, key)) << key;
        EXPECT_TRUE(yes);
    }
    for (const char *key : {"yes", "text", "half", "big", "empty", "list", "inner", "missing", ""}) {
        int count = 42;
        EXPECT_FALSE(config_get_int(object, &count, key)) << key;
        EXPECT_EQ(count, 42);
    }
    for (const char *key : {"yes", "count", "half", "empty", "list", "inner", "missing", ""}) {
        std::string text = "before";
        EXPECT_FALSE(config_get_string(object, &text, key)) << key;
        EXPECT_EQ(text, "before");
    }
    for (const char *key : {"yes", "count", "text", "empty", "list", "missing"}) {
        Json::Value value = "before";
        EXPECT_FALSE(config_get_object(object, &value, key)) << key;
        EXPECT_EQ(value, "before");
    }
}

TEST_F(Getters, TakeAnyKindOfDocumentWithoutThrowing) {
    for (const char *document : {"null", "true", "7", "-7.5", "\"text\"", "[]", "[[1], {}]", "{}"}) {
        const Json::Value value = json(document);
        bool yes = true;
        int count = 42;
        std::string text = "before";
        Json::Value found = "before";
        EXPECT_FALSE(config_get_bool(value, &yes, "a.b")) << document;
        EXPECT_FALSE(config_get_int(value, &count, "a")) << document;
        EXPECT_FALSE(config_get_string(value, &text, "0")) << document;
        EXPECT_FALSE(config_get_object(value, &found, "a.0.b")) << document;
        EXPECT_FALSE(config_get_object(value, &found, nullptr)) << document;
    }
}

TEST_F(Getters, AnObjectMayBeReadOutOfItself) {
    Json::Value value = object;
    EXPECT_TRUE(config_get_object(value, &value, "inner"));
    EXPECT_EQ(value, object["inner"]);
}

} // namespace
