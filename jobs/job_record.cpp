#include "jobs/job_record.h"

std::string text_of(const Json::Value &record, const char *key) {
    if (!record.isObject())
        return "";
    const Json::Value &value = record[key]; // null when missing
    return value.isConvertibleTo(Json::stringValue) ? value.asString() : "";
}

bool is_true(const Json::Value &record, const char *key) {
    if (!record.isObject())
        return false;
    const Json::Value &value = record[key];
    return value.isConvertibleTo(Json::booleanValue) && value.asBool();
}
