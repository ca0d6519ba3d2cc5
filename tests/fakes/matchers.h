// Matchers for log lines and JSON values.
#pragma once

#include "tests/fakes/files.h"
#include "tests/fakes/log.h"

#include <gmock/gmock.h>
#include <syslog.h>

#include <string>

// EXPECT_THAT(log_lines(), Contains(Alert("job: 77 ...")));  a matcher instead of the text works too.
inline testing::Matcher<const log_line &> Line(int priority, const testing::Matcher<std::string> &text) {
    return testing::AllOf(testing::Field("priority", &log_line::priority, priority),
                          testing::Field("text", &log_line::text, text));
}
inline testing::Matcher<const log_line &> Alert(const testing::Matcher<std::string> &text) {
    return Line(LOG_ALERT, text);
}
inline testing::Matcher<const log_line &> Error(const testing::Matcher<std::string> &text) {
    return Line(LOG_ERR, text);
}
inline testing::Matcher<const log_line &> Notice(const testing::Matcher<std::string> &text) {
    return Line(LOG_NOTICE, text);
}
inline testing::Matcher<const log_line &> Info(const testing::Matcher<std::string> &text) {
    return Line(LOG_INFO, text);
}
inline testing::Matcher<const log_line &> Debug(const testing::Matcher<std::string> &text) {
    return Line(LOG_DEBUG, text);
}

// Equal as a person reads it: 1 as signed and 1 as unsigned are the same number.
bool same_json(const Json::Value &left, const Json::Value &right);

// The value is an object and has each member of `expected_text` with that value; it may have more.
// An object inside is compared whole.
MATCHER_P(HasMembers, expected_text, "has the members " + std::string(expected_text)) {
    const Json::Value expected = json(expected_text);
    if (!arg.isObject()) {
        *result_listener << "which is no object";
        return false;
    }
    for (const auto &key : expected.getMemberNames()) {
        if (arg.isMember(key) && same_json(arg[key], expected[key]))
            continue;
        *result_listener << "where \"" << key << "\" is "
                         << (arg.isMember(key) ? arg[key].toStyledString() : "missing");
        return false;
    }
    return true;
}

// The whole value, members and no more.
MATCHER_P(IsJson, expected_text, "is " + std::string(expected_text)) {
    return same_json(arg, json(expected_text));
}
