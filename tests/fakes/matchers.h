// Matchers for log lines and JSON values.
#pragma once

#include "tests/fakes/files.h"
#include "tests/fakes/log.h"

#include <gmock/gmock.h>

#include <string>

// EXPECT_THAT(log_lines(), Contains(Alert("job: 77 ...")));  a matcher instead of the text works too.
testing::Matcher<const log_line &> Line(int priority, const testing::Matcher<std::string> &text);
testing::Matcher<const log_line &> Alert(const testing::Matcher<std::string> &text);
testing::Matcher<const log_line &> Error(const testing::Matcher<std::string> &text);
testing::Matcher<const log_line &> Notice(const testing::Matcher<std::string> &text);
testing::Matcher<const log_line &> Info(const testing::Matcher<std::string> &text);
testing::Matcher<const log_line &> Debug(const testing::Matcher<std::string> &text);

// Equal as a person reads it: 1 as signed and 1 as unsigned are the same number.
bool same_json(const Json::Value &left, const Json::Value &right);

// The value is an object and has each member of `expected_text` with that value; it may have more.
// An object inside is compared whole.
testing::Matcher<const Json::Value &> HasMembers(const std::string &expected_text);

// The whole value, members and no more.
testing::Matcher<const Json::Value &> IsJson(const std::string &expected_text);
