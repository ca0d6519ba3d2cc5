// From the schema library's faults to sentences: the schema's own descriptions say what was expected.
#include "host/cmd/fault.h"

#include "host/cmd/canonical.h"
#include "host/cmd/dotted.h"
#include "host/cmd/schema.h"

#include <algorithm>
#include <regex>
#include <set>

namespace conf {
namespace {

constexpr size_t LONGEST_QUOTE = 80;

std::string join(const std::vector<std::string> &names) {
    std::string path;
    for (const std::string &name : names)
        path += (path.empty() ? "" : ".") + name;
    return path;
}

const Json::Value *resolve(const Json::Value &root, const Json::Value *schema) {
    constexpr std::string_view LOCAL = "#/definitions/";
    while (schema && schema->isObject() && schema->isMember("$ref")) {
        const std::string target = (*schema)["$ref"].asString();
        schema = target.starts_with(LOCAL) ? find_member(root["definitions"], target.substr(LOCAL.size()))
                                           : nullptr;
    }
    return schema;
}

// The schema of one member; null when the object has no such member.
const Json::Value *member_schema(const Json::Value &root, const Json::Value *schema,
                                 const std::string &name) {
    schema = resolve(root, schema);
    if (!schema || !schema->isObject())
        return nullptr;
    if (const Json::Value *items = find_member(*schema, "items"))
        return items;
    if (const Json::Value *properties = find_member(*schema, "properties"))
        if (properties->isMember(name))
            return &(*properties)[name];
    if (const Json::Value *patterns = find_member(*schema, "patternProperties"))
        for (const std::string &pattern : patterns->getMemberNames())
            if (std::regex_search(name, std::regex(pattern)))
                return &(*patterns)[pattern];
    return nullptr;
}

const Json::Value *schema_at(const Json::Value &root, const std::vector<std::string> &path) {
    const Json::Value *schema = &root;
    for (const std::string &name : path)
        schema = member_schema(root, schema, name);
    return resolve(root, schema);
}

std::string expectation(const Json::Value *schema) {
    const Json::Value *description = schema ? find_member(*schema, "description") : nullptr;
    return description ? description->asString() : "";
}

std::string quoted(const Json::Value &value) {
    const std::string text = one_line(value);
    return text.size() <= LONGEST_QUOTE ? text : text.substr(0, LONGEST_QUOTE) + "...";
}

class translation {
public:
    translation(const meta_data &meta_, const Json::Value &config_)
        : meta(meta_), config(config_), root(root_schema(meta_)) {}

    std::vector<fault> faults() {
        for (const schema_fault &one : check_schema(root, config))
            translate(one);
        return std::move(found);
    }

private:
    void translate(const schema_fault &one) {
        if (one.text.starts_with("Object contains a property"))
            add_unknown_members(one.path);
        else if (one.text.starts_with("Missing required property '"))
            add_missing_member(one);
        else if (!is_wrapper(one.text))
            add(one.path, expected_and_found(one));
    }

    // Says only that something inside is wrong; that something has its own fault.
    static bool is_wrapper(const std::string &text) { return text.starts_with("Failed to validate"); }

    void add_unknown_members(const std::vector<std::string> &path) {
        const Json::Value *object = find_member(config, join(path));
        if (!object || !object->isObject())
            return;
        for (const std::string &name : object->getMemberNames())
            if (!member_schema(root, schema_at(root, path), name))
                add(extended(path, name), "unknown member");
    }

    void add_missing_member(const schema_fault &one) {
        const size_t start = one.text.find('\'') + 1;
        const auto path = extended(one.path, one.text.substr(start, one.text.find('\'', start) - start));
        const std::string expected = expectation(schema_at(root, path));
        add(path, "is missing" + (expected.empty() ? "" : ", expected " + expected));
    }

    std::string expected_and_found(const schema_fault &one) const {
        const std::string expected = expectation(schema_at(root, one.path));
        const Json::Value *value = find_member(config, join(one.path));
        const std::string what = expected.empty() ? one.text : "expected " + expected;
        return !value || is_sensitive(one.path) ? what : what + ", found " + quoted(*value);
    }

    bool is_sensitive(const std::vector<std::string> &path) const {
        std::vector<std::string> names;
        const Json::Value *value = &config;
        for (const std::string &name : path) {
            if (value && value->isObject())
                names.push_back(name);
            value = value ? find_member(*value, name) : nullptr;
        }
        return meta.is_sensitive(join(names));
    }

    static std::vector<std::string> extended(std::vector<std::string> path, const std::string &name) {
        path.push_back(name);
        return path;
    }

    // One sentence for each place is enough.
    void add(const std::vector<std::string> &path, const std::string &text) {
        const std::string dotted = join(path);
        if (told.insert(dotted).second)
            found.push_back({dotted, text});
    }

    const meta_data &meta;
    const Json::Value &config;
    const Json::Value root;
    std::set<std::string> told;
    std::vector<fault> found;
};

} // namespace

std::string to_text(const fault &one) {
    return one.path.empty() ? one.text : one.path + ": " + one.text;
}

std::vector<fault> schema_faults(const meta_data &meta, const Json::Value &config) {
    return translation(meta, config).faults();
}

} // namespace conf
