#include "tests/fakes/list_is.h"

namespace fakes {

testing::Matcher<const std::vector<std::string> &> list_of_texts(const std::vector<text_matcher> &texts) {
    return testing::ElementsAreArray(texts);
}

testing::Matcher<const std::vector<log_line> &> list_of_lines(const std::vector<line_matcher> &lines) {
    return testing::ElementsAreArray(lines);
}

} // namespace fakes
