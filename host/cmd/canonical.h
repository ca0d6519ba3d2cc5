// The one form in which configurations are compared, hashed and checked.
#pragma once

#include <json/json.h>

#include <string>

namespace conf {

// The document with every sensitive field that was encoded on this device in plain text, and whole
// numbers as integers (5.0 is 5). What cannot be decoded stays as it stands.
Json::Value canonical(const Json::Value &document);

// One line of JSON in UTF-8: members sorted by name, no white space.
std::string one_line(const Json::Value &value);

// The canonical form as one line: the same text for the same configuration, however its members were
// ordered and whether or not its sensitive fields are encoded.
std::string canonical_text(const Json::Value &document);

} // namespace conf
