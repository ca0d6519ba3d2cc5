// Files as the steps look at them, write and delete them.
#pragma once

#include <json/json.h>

#include <initializer_list>
#include <string>

// Flushed before the next step, which would be wrong without it.
void flush();

// Those that are there, in this order; not flushed. True when there was one.
bool delete_those(std::initializer_list<const char *> paths);

// A JSON object; null when there is none at the path, or something else.
Json::Value object_in(const char *path);

// A file of this one line, whole or not at all, as the upgrade tools write theirs: by way of ".NAME" beside it,
// which the next one takes over where it is left. Not flushed. False when it cannot be written.
bool write_line(const std::string &path, const std::string &line);

bool is_regular_file(const std::string &path);

enum class comparison { SAME, OTHER, UNKNOWN };

// The configuration that the device boots with and another one, whether or not their sensitive fields are encoded.
comparison compare_with_saved(const Json::Value &config);
