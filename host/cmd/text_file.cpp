#include "host/cmd/text_file.h"

#include "platform/vantrel.h"

#include <fstream>
#include <iterator>
#include <string>

namespace conf {
namespace {

std::string content(std::ifstream &file) {
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

} // namespace

bool same_content(const char *one, const char *other) {
    std::ifstream first(one, std::ios::binary);
    std::ifstream second(other, std::ios::binary);
    return first && second && content(first) == content(second);
}

int copy_if_different(const char *from, const char *to) {
    return same_content(from, to) ? 0 : copy_file(from, to);
}

} // namespace conf
