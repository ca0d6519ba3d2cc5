#include "tests/fakes/matchers.h"

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
