#include "host/cmd/meta.h"

#include "host/cmd/dotted.h"
#include "host/cmd/paths.h"

#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>

namespace conf {
namespace {

const Json::Value &demand(const Json::Value &document, const char *name, Json::ValueType type,
                          const char *kind) {
    const Json::Value *member = document.isObject() ? find_member(document, name) : nullptr;
    if (!member || member->type() != type)
        throw std::runtime_error(std::string("'") + name + "' is no " + kind);
    return *member;
}

std::vector<std::string> demand_texts(const Json::Value &document, const char *name) {
    std::vector<std::string> texts;
    for (const Json::Value &text : demand(document, name, Json::arrayValue, "list")) {
        if (!text.isString())
            throw std::runtime_error(std::string("'") + name + "' has an element that is no text");
        texts.push_back(text.asString());
    }
    return texts;
}

int access_level(const Json::Value &level) {
    if (!level.isInt() || level.asInt() < LOWEST_ACCESS || level.asInt() > HIGHEST_ACCESS)
        throw std::runtime_error("an access level is no number from 0 to 3");
    return level.asInt();
}

std::vector<access_rule> access_rules(const Json::Value &document) {
    std::vector<access_rule> rules;
    if (!document.isMember("access_below"))
        return rules;
    const Json::Value &below = demand(document, "access_below", Json::objectValue, "object");
    for (const std::string &path : below.getMemberNames())
        rules.push_back({path, access_level(below[path])});
    return rules;
}

bool flag(const Json::Value &document, const char *name, bool value) {
    config_get_bool(document, &value, name);
    return value;
}

area parse_area(const Json::Value &document) {
    area parsed;
    parsed.path = demand(document, "path", Json::stringValue, "text").asString();
    if (parsed.path.empty())
        throw std::runtime_error("'path' is empty");
    parsed.order = demand(document, "order", Json::intValue, "number").asInt();
    parsed.access = access_level(demand(document, "access", Json::intValue, "number"));
    parsed.access_below = access_rules(document);
    parsed.required = flag(document, "required", false);
    parsed.available = flag(document, "available", true);
    config_get_string(document, &parsed.module, "module");
    demand_texts(document, "cmd_apply");
    parsed.cmd_apply = document["cmd_apply"];
    parsed.cmd_restart = demand_texts(document, "cmd_restart");
    parsed.sensitive = demand_texts(document, "sensitive");
    parsed.schema = demand(document, "schema", Json::objectValue, "object");
    return parsed;
}

void refuse_overlaps(const std::vector<area> &areas) {
    for (const area &one : areas)
        for (const area &other : areas)
            if (&one != &other && is_inside(one.path, other.path))
                throw std::runtime_error("area " + one.path + " lies inside area " + other.path);
}

bool matches(std::string_view path, std::string_view pattern) {
    const auto names = split_path(path);
    const auto parts = split_path(pattern);
    return std::ranges::equal(names, parts, [](const std::string &name, const std::string &part) {
        return part == "*" || name == part;
    });
}

// The file's name in front of the reason.
void add_document(Json::Value &meta, const std::filesystem::path &file) {
    const std::string name = file.filename().string();
    Json::Value document;
    if (read_json_file(file.c_str(), document) != 0 || !document.isObject())
        throw std::runtime_error(name + " is no JSON object");
    if (document.isMember("definitions")) {
        meta["definitions"] = document["definitions"];
        return;
    }
    try {
        parse_area(document);
    } catch (const std::exception &reason) {
        throw std::runtime_error(name + ": " + reason.what());
    }
    meta["areas"].append(document);
}

void sort_areas(Json::Value &areas) {
    std::vector<Json::Value> sorted(areas.begin(), areas.end());
    std::ranges::stable_sort(sorted, {}, [](const Json::Value &document) {
        return std::pair(document["order"].asInt(), document["path"].asString());
    });
    areas = Json::Value(Json::arrayValue);
    for (const Json::Value &document : sorted)
        areas.append(document);
}

std::string section_hash(const Json::Value &config) {
    const Json::Value *hardware = find_member(config, "hardware");
    return hardware ? config_hash(*hardware) : "";
}

// A module that the configuration does not mention is taken as fitted.
bool is_fitted(const Json::Value &config, const std::string &module) {
    return module.empty() || flag(config, ("hardware.modules." + module).c_str(), true);
}

// The object schema at the area's parent, made on the way.
Json::Value &parent_schema(Json::Value &root, const std::vector<std::string> &names, bool required) {
    Json::Value *schema = &root;
    for (const std::string &name : names) {
        (*schema)["type"] = "object";
        (*schema)["description"] = "an object";
        (*schema)["additionalProperties"] = false;
        Json::Value &demanded = (*schema)["required"];
        if (demanded.isNull())
            demanded = Json::Value(Json::arrayValue);
        if (required && std::find(demanded.begin(), demanded.end(), Json::Value(name)) == demanded.end())
            demanded.append(name);
        schema = &(*schema)["properties"][name];
    }
    return *schema;
}

} // namespace

// The longest rule counts.
int area::level_of(std::string_view full_path) const {
    const access_rule *closest = nullptr;
    for (const access_rule &rule : access_below)
        if (is_inside(full_path, path + "." + rule.below) &&
            (!closest || rule.below.size() > closest->below.size()))
            closest = &rule;
    return closest ? closest->level : access;
}

const area *meta_data::area_of(std::string_view path) const {
    for (const area &one : areas)
        if (is_inside(path, one.path))
            return &one;
    return nullptr;
}

bool meta_data::is_sensitive(std::string_view path) const {
    const area *one = area_of(path);
    if (!one || path.size() == one->path.size())
        return false;
    const std::string_view within = path.substr(one->path.size() + 1);
    return std::ranges::any_of(one->sensitive,
                               [&](const std::string &pattern) { return matches(within, pattern); });
}

std::optional<meta_data> parse_meta(const Json::Value &document, std::string &fault) try {
    meta_data meta;
    for (const Json::Value &one : demand(document, "areas", Json::arrayValue, "list"))
        meta.areas.push_back(parse_area(one));
    if (meta.areas.empty())
        throw std::runtime_error("there is no area");
    refuse_overlaps(meta.areas);
    meta.definitions = demand(document, "definitions", Json::objectValue, "object");
    config_get_string(document, &meta.hardware, "hardware");
    return meta;
} catch (const std::exception &reason) {
    fault = reason.what();
    return std::nullopt;
}

Json::Value read_meta_folder(const std::string &folder, std::string &fault) try {
    Json::Value meta;
    meta["areas"] = Json::Value(Json::arrayValue);
    meta["definitions"] = Json::Value(Json::objectValue);
    std::error_code missing;
    for (const auto &entry : std::filesystem::directory_iterator(folder, missing))
        if (entry.path().extension() == ".json")
            add_document(meta, entry.path());
    sort_areas(meta["areas"]);
    return parse_meta(meta, fault) ? meta : Json::Value();
} catch (const std::exception &reason) {
    fault = reason.what();
    return Json::Value();
}

Json::Value fit_meta(const Json::Value &document, const Json::Value &config) {
    Json::Value meta = document;
    meta["hardware"] = section_hash(config);
    for (Json::Value &one : meta["areas"])
        one["available"] = is_fitted(config, one.get("module", "").asString());
    return meta;
}

std::optional<meta_data> load_meta() {
    std::string ignored;
    Json::Value document;
    if (read_json_file(META_FILE, document) == 0)
        if (auto meta = parse_meta(document, ignored))
            return meta;
    for (const char *folder : {META_FOLDER, IMAGE_META_FOLDER})
        if (auto meta = parse_meta(read_meta_folder(folder, ignored), ignored))
            return meta;
    return std::nullopt;
}

Json::Value root_schema(const meta_data &meta) {
    Json::Value root;
    for (const area &one : meta.areas)
        parent_schema(root, split_path(one.path), one.required) = one.schema;
    root["definitions"] = meta.definitions;
    return root;
}

} // namespace conf
