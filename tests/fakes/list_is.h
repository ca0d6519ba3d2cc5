// A list compared element by element: EXPECT_THAT(calls(), ListIs("delete_file /tmp/x", "sleep 2")).
//
// What gmock's ElementsAre does, and with its words when it fails, for lists of texts and of log lines. Those
// matchers are built here and once; ElementsAre is compiled anew for every number and type of elements, which
// was most of the time that a test took to compile. A text stands for itself, a matcher of texts works too.
#pragma once

#include "tests/fakes/log.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace fakes {

using text_matcher = testing::Matcher<const std::string &>;
using line_matcher = testing::Matcher<const log_line &>;

testing::Matcher<const std::vector<std::string> &> list_of_texts(const std::vector<text_matcher> &texts);
testing::Matcher<const std::vector<log_line> &> list_of_lines(const std::vector<line_matcher> &lines);

} // namespace fakes

template <class... Texts> testing::Matcher<const std::vector<std::string> &> ListIs(Texts... texts) {
    return fakes::list_of_texts({fakes::text_matcher(texts)...});
}

template <class... Others>
testing::Matcher<const std::vector<log_line> &> ListIs(fakes::line_matcher first, Others... others) {
    return fakes::list_of_lines({first, fakes::line_matcher(others)...});
}

template <class... Others>
testing::Matcher<const std::vector<log_line> &> ListIs(const log_line &first, Others... others) {
    return ListIs(fakes::line_matcher(first), others...);
}
