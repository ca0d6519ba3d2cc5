// JSON text to value, the same everywhere on the host: a message's payload and a stored file are
// judged alike.
#pragma once

#include <json/json.h>

#include <string_view>

// True when text is one whole JSON document (RFC 8259) in UTF-8, a lone number or text included; nothing but
// white space may follow it. Of members with the same name the last one counts. False too for
// nesting deeper than 1000. value stays as it was on failure. Never throws.
bool parse_json(std::string_view text, Json::Value &value);

// True when text is UTF-8 (RFC 3629). What is not is stored by no writer of JSON as it stands.
bool is_utf8(std::string_view text);
