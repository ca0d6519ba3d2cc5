// What came from outside in one execution and may therefore turn up, unquoted, in a file's name or a command.
#pragma once

#include <json/json.h>

#include <set>
#include <string>

namespace fuzz {

struct arrivals {
    // Each text as it came, up to its first zero byte, which is as far as a C function reads it, and as a job file has it.
    // Ids of jobs, those that the device makes itself among them.
    std::set<std::string> ids;
    std::set<std::string> urls;    // members "value", of which a firmware job makes arguments
    std::set<std::string> scripts; // members "script_file": a clean-up deletes what is named there

    void forget();
    void take_job(const Json::Value &job);
    // The names of attributes are ids, their texts are jobs.
    void take_attributes(const Json::Value &attributes);
    void take_id(const std::string &id);
};

arrivals &arrived();

} // namespace fuzz
