// What almost every test makes the compiler build from the same templates, built once: in compiled_once.cpp.
// Only the time that a test takes to compile hangs on this; a line that no longer fits goes.
#pragma once

#include "platform/mqtt_orv.h"
#include "tests/fakes/log.h"
#include "tests/fakes/mqtt.h"

#include <gmock/gmock.h>
#include <json/json.h>

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

#ifndef COMPILED_ONCE
#define COMPILED_ONCE extern
#endif

#define COMPILED_ONCE_MATCHERS_OF(TYPE)                                                                      \
    COMPILED_ONCE template class testing::internal::MatcherBase<TYPE>;                                       \
    COMPILED_ONCE template class testing::Matcher<TYPE>

COMPILED_ONCE template class std::__cxx11::basic_string<char>;
COMPILED_ONCE template class std::vector<std::string>;
COMPILED_ONCE template class std::set<std::string>;
COMPILED_ONCE template class std::vector<const char *>;
COMPILED_ONCE template class std::vector<log_line>;
COMPILED_ONCE template class std::vector<fakes::published_message>;
COMPILED_ONCE template class std::map<ORV_MQTT_RC, std::string>;

COMPILED_ONCE_MATCHERS_OF(const std::string &);
COMPILED_ONCE_MATCHERS_OF(const log_line &);
COMPILED_ONCE_MATCHERS_OF(const std::vector<std::string> &);
COMPILED_ONCE_MATCHERS_OF(const std::vector<log_line> &);
COMPILED_ONCE template class testing::internal::MatcherBase<const std::vector<fakes::published_message> &>;
COMPILED_ONCE_MATCHERS_OF(const Json::Value &);
COMPILED_ONCE_MATCHERS_OF(const int &);
COMPILED_ONCE_MATCHERS_OF(size_t);
COMPILED_ONCE template class testing::internal::MatcherBase<std::string>;

COMPILED_ONCE template class std::vector<testing::Matcher<const std::string &>>;
COMPILED_ONCE template class std::vector<testing::Matcher<const log_line &>>;
COMPILED_ONCE template class testing::internal::QuantifierMatcherImpl<const std::vector<log_line> &>;
COMPILED_ONCE template class testing::internal::ContainsMatcherImpl<const std::vector<log_line> &>;
COMPILED_ONCE template class testing::internal::ContainsTimesMatcherImpl<const std::vector<log_line> &>;
COMPILED_ONCE template class testing::internal::QuantifierMatcherImpl<const std::vector<std::string> &>;
COMPILED_ONCE template class testing::internal::ContainsMatcherImpl<const std::vector<std::string> &>;
COMPILED_ONCE template class testing::internal::NotMatcherImpl<const std::vector<log_line> &>;

#undef COMPILED_ONCE_MATCHERS_OF
