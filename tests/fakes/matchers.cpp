#include "tests/fakes/matchers.h"

#include <syslog.h>

namespace {

bool same_array(const Json::Value &left, const Json::Value &right) {
    if (!right.isArray() || left.size() != right.size())
        return false;
    for (Json::ArrayIndex i = 0; i < left.size(); i++)
        if (!same_json(left[i], right[i]))
            return false;
    return true;
}

bool same_object(const Json::Value &left, const Json::Value &right) {
    if (!right.isObject() || left.size() != right.size())
        return false;
    for (const auto &key : left.getMemberNames())
        if (!right.isMember(key) || !same_json(left[key], right[key]))
            return false;
    return true;
}

MATCHER_P(HasMembersOf, expected_text, "has the members " + expected_text) {
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

MATCHER_P(IsTheJson, expected_text, "is " + expected_text) {
    return same_json(arg, json(expected_text));
}

} // namespace

bool same_json(const Json::Value &left, const Json::Value &right) {
    if (left.isArray())
        return same_array(left, right);
    if (left.isObject())
        return same_object(left, right);
    if (left.isInt64() && right.isInt64())
        return left.asInt64() == right.asInt64();
    return left == right;
}

testing::Matcher<const log_line &> Line(int priority, const testing::Matcher<std::string> &text) {
    return testing::AllOf(testing::Field("priority", &log_line::priority, priority),
                          testing::Field("text", &log_line::text, text));
}

testing::Matcher<const log_line &> Alert(const testing::Matcher<std::string> &text) {
    return Line(LOG_ALERT, text);
}

testing::Matcher<const log_line &> Error(const testing::Matcher<std::string> &text) {
    return Line(LOG_ERR, text);
}

testing::Matcher<const log_line &> Notice(const testing::Matcher<std::string> &text) {
    return Line(LOG_NOTICE, text);
}

testing::Matcher<const log_line &> Info(const testing::Matcher<std::string> &text) {
    return Line(LOG_INFO, text);
}

testing::Matcher<const log_line &> Debug(const testing::Matcher<std::string> &text) {
    return Line(LOG_DEBUG, text);
}

testing::Matcher<const Json::Value &> HasMembers(const std::string &expected_text) {
    return HasMembersOf(expected_text);
}

testing::Matcher<const Json::Value &> IsJson(const std::string &expected_text) {
    return IsTheJson(expected_text);
}
