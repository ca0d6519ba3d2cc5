// The configuration of the fuzzed device, and what its library says of another one.
#pragma once

#include <json/json.h>

#include <string>

namespace fuzz {

extern const char RUNNING_AT_FIRST[]; // with a failsafe verification of two minutes

// For fakes::config(): the areas of the agent's change actions, with commands that it folds and one that it runs.
Json::Value list_changes(const Json::Value &before, const Json::Value &after);

// Every object without a member "invalid" is valid.
int validate(const Json::Value &config, std::string &result);

} // namespace fuzz
