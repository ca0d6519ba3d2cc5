// What is wrong with a configuration, for people.
#pragma once

#include "host/cmd/meta.h"

#include <json/json.h>

#include <string>
#include <vector>

namespace conf {

struct fault {
    std::string path; // dotted; empty for the whole document
    std::string text; // what is wrong there and what was expected
};

std::string to_text(const fault &one);

// Every departure of the document, in its canonical form, from the areas' schemas. A value of a sensitive
// field is never repeated.
std::vector<fault> schema_faults(const meta_data &meta, const Json::Value &config);

// What the areas say against each other or against arithmetic: a gateway outside its subnet, two
// interfaces in one subnet, a name that does not exist. Takes any document: what has the wrong type is
// the schemas' business and passes here.
std::vector<fault> consistency_faults(const Json::Value &config);

// All faults of the document at path; empty when it is a valid configuration.
std::vector<fault> configuration_faults(const char *path);

} // namespace conf
