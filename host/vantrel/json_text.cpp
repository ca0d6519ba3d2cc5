#include "host/vantrel/json_text.h"

#include <memory>
#include <string>

namespace {

Json::CharReaderBuilder strict_reader() {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["strictRoot"] = false;
    builder["rejectDupKeys"] = false;
    return builder;
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

void skip_digits(std::string_view text, size_t &at) {
    while (at < text.size() && is_digit(text[at]))
        ++at;
}

// RFC 8259, section 6. jsoncpp's own scanner also takes "01", "+1", "1." and "-".
bool skip_number(std::string_view text, size_t &at) {
    const auto need_digits = [&] {
        const size_t from = at;
        skip_digits(text, at);
        return at > from;
    };
    const auto take = [&](std::string_view any_of) {
        if (at >= text.size() || any_of.find(text[at]) == std::string_view::npos)
            return false;
        ++at;
        return true;
    };
    take("-");
    if (!take("0") && !need_digits())
        return false;
    if (take(".") && !need_digits())
        return false;
    if (take("eE")) {
        take("+-");
        return need_digits();
    }
    return at >= text.size() || !is_digit(text[at]);
}

// RFC 8259, section 7: control characters stand escaped. jsoncpp takes them as they are.
bool skip_string(std::string_view text, size_t &at) {
    for (++at; at < text.size() && text[at] != '"'; ++at) {
        if (static_cast<unsigned char>(text[at]) < 0x20)
            return false;
        if (text[at] == '\\')
            ++at;
    }
    return at++ < text.size();
}

// What jsoncpp is too kind about; the rest of the grammar is its own.
bool scalars_are_json(std::string_view text) {
    for (size_t at = 0; at < text.size();) {
        if (text[at] == '"') {
            if (!skip_string(text, at))
                return false;
        } else if (text[at] == '+' || text[at] == '\0') { // jsoncpp ends at a zero, whatever follows
            return false;
        } else if (text[at] == '-' || is_digit(text[at])) {
            if (!skip_number(text, at))
                return false;
        } else {
            ++at;
        }
    }
    return true;
}

} // namespace

bool parse_json(std::string_view text, Json::Value &value) try {
    if (!scalars_are_json(text))
        return false;
    static const Json::CharReaderBuilder builder = strict_reader();
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value parsed;
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &parsed, &errors))
        return false;
    value.swap(parsed);
    return true;
} catch (...) {
    return false;
}
