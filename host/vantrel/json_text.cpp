#include "host/vantrel/json_text.h"

#include <algorithm>
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

// The second half of a surrogate pair, where no first half stands before it: jsoncpp makes no character of it.
bool is_lone_half(std::string_view escape) {
    return escape.size() >= 4 && escape[0] == 'u' && (escape[1] | 0x20) == 'd' &&
           std::string_view("cdefCDEF").find(escape[2]) != std::string_view::npos;
}

bool is_first_half(std::string_view escape) {
    return escape.size() >= 4 && escape[0] == 'u' && (escape[1] | 0x20) == 'd' &&
           std::string_view("89abAB").find(escape[2]) != std::string_view::npos;
}

// RFC 8259, section 7: control characters stand escaped. jsoncpp takes them as they are.
bool skip_string(std::string_view text, size_t &at) {
    constexpr size_t PAIR = 11; // from the first half's u to the second half's last digit
    for (++at; at < text.size() && text[at] != '"'; ++at) {
        if (static_cast<unsigned char>(text[at]) < 0x20)
            return false;
        if (text[at] != '\\')
            continue;
        ++at;
        const std::string_view escape = text.substr(std::min(at, text.size()));
        if (is_lone_half(escape))
            return false;
        if (is_first_half(escape))
            at += PAIR - 1;
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

// at: the first byte of a character, which becomes its last. False when there is none.
bool skip_character(std::string_view text, size_t &at) {
    const auto byte = [&](size_t offset) { return static_cast<unsigned char>(text[at + offset]); };
    const unsigned char first = byte(0);
    if (first < 0x80)
        return true;
    const size_t more = first >= 0xf0 ? 3 : first >= 0xe0 ? 2 : 1;
    if (first < 0xc2 || first > 0xf4 || text.size() - at <= more)
        return false;
    for (size_t i = 1; i <= more; ++i)
        if ((byte(i) & 0xc0) != 0x80)
            return false;
    const unsigned char second = byte(1);
    const bool is_too_long = (first == 0xe0 && second < 0xa0) || (first == 0xf0 && second < 0x90);
    const bool is_no_character = (first == 0xed && second > 0x9f) || (first == 0xf4 && second > 0x8f);
    at += more;
    return !is_too_long && !is_no_character;
}

} // namespace

bool is_utf8(std::string_view text) {
    for (size_t at = 0; at < text.size(); ++at)
        if (!skip_character(text, at))
            return false;
    return true;
}

// jsoncpp takes any bytes, and replaces those that are no UTF-8 when it writes them.
bool parse_json(std::string_view text, Json::Value &value) try {
    if (!is_utf8(text) || !scalars_are_json(text))
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
