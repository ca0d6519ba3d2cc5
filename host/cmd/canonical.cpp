#include "host/cmd/canonical.h"

#include "host/vtrsec/field_cipher.h"

namespace conf {
namespace {

void make_canonical(Json::Value &value, const std::string &path, const vtrsec::field_cipher &cipher) {
    if (value.isObject()) {
        for (const std::string &name : value.getMemberNames())
            make_canonical(value[name], path.empty() ? name : path + "." + name, cipher);
    } else if (value.isArray()) {
        for (Json::Value &element : value)
            make_canonical(element, path, cipher);
    } else if (value.isString()) {
        if (const auto plain = cipher.decode(path, value.asString()))
            value = *plain;
    } else if (value.isDouble() && value.isInt64()) {
        value = value.asInt64();
    }
}

} // namespace

Json::Value canonical(const Json::Value &document) {
    Json::Value result = document;
    make_canonical(result, "", vtrsec::field_cipher(false));
    return result;
}

std::string one_line(const Json::Value &value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value);
}

std::string canonical_text(const Json::Value &document) {
    return one_line(canonical(document));
}

} // namespace conf
