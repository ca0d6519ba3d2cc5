// JSON Schema (draft 7). The one user of the schema library.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

namespace conf {

struct schema_fault {
    std::vector<std::string> path; // names and indices from the document's root
    std::string text;              // the schema library's words
};

// Empty when the document follows the schema. A schema that cannot be used is a fault at the root.
std::vector<schema_fault> check_schema(const Json::Value &schema, const Json::Value &document);

// Empty when the schema can be used, else the reason.
std::string schema_defect(const Json::Value &schema);

} // namespace conf
