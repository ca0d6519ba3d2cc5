// The ground of the configuration library's tests: empty configuration folders, and the image's meta
// data and default configuration at their own place.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <filesystem>
#include <string>

class CmdTest : public testing::Test {
protected:
    CmdTest();

    static Json::Value json(const std::string &text);
    static std::string read_text(const std::string &path);
    static Json::Value read_json(const std::string &path);
    static void write_text(const std::string &path, const std::string &text);
    static void write_json(const std::string &path, const Json::Value &value);
    static bool exists(const std::string &path);

    // The default configuration, and the same with one member changed.
    static Json::Value default_config();
    static Json::Value default_with(const std::string &path, const Json::Value &value);
    static Json::Value default_without(const std::string &path);

    static void given_running(const Json::Value &config);
    static std::string hash_in(const std::string &path);
};
