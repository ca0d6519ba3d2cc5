#include "host/cmd/schema.h"

#define VALIJSON_USE_EXCEPTIONS 1
#include <valijson/adapters/jsoncpp_adapter.hpp>
#include <valijson/schema.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validation_results.hpp>
#include <valijson/validator.hpp>

namespace conf {
namespace {

using valijson::adapters::JsonCppAdapter;

void compile(const Json::Value &text, valijson::Schema &schema) {
    valijson::SchemaParser(valijson::SchemaParser::kDraft7).populateSchema(JsonCppAdapter(text), schema);
}

// The library writes the root as "<root>" and every step as "[name]" or "[index]".
std::vector<std::string> to_path(const std::vector<std::string> &context) {
    std::vector<std::string> path;
    for (const std::string &step : context)
        if (step.starts_with('[') && step.ends_with(']'))
            path.push_back(step.substr(1, step.size() - 2));
    return path;
}

} // namespace

std::vector<schema_fault> check_schema(const Json::Value &schema, const Json::Value &document) try {
    valijson::Schema compiled;
    compile(schema, compiled);
    valijson::ValidationResults results;
    valijson::Validator().validate(compiled, JsonCppAdapter(document), &results);

    std::vector<schema_fault> faults;
    for (const auto &error : results)
        faults.push_back({to_path(error.context), error.description});
    return faults;
} catch (const std::exception &reason) {
    return {{{}, std::string("the schema cannot be used: ") + reason.what()}};
}

std::string schema_defect(const Json::Value &schema) try {
    valijson::Schema compiled;
    compile(schema, compiled);
    return "";
} catch (const std::exception &reason) {
    return reason.what();
}

} // namespace conf
