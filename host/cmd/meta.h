// Meta data: what the library knows of each area of the configuration.
//
// An area is a part of the document with a path, an access level, apply command lines and a JSON Schema
// of its own. Its document is a file of the meta folder; types.json there holds the definitions that
// the schemas share. All documents together, fitted to one configuration's hardware, are the meta file:
//   "areas"        the areas' documents in their order, each with "available": false when the module
//                  that it needs is not fitted
//   "definitions"  the shared definitions
//   "hardware"     the hash of the hardware section that it was made for
#pragma once

#include <json/json.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace conf {

// Who may change a path through a user interface.
constexpr int LOWEST_ACCESS = 0;  // everyone
constexpr int HIGHEST_ACCESS = 3; // the maker only; 1 is the operator, 2 the administrator

struct access_rule {
    std::string below; // dotted, within the area
    int level;
};

struct area {
    std::string path;
    int order = 0;
    int access = HIGHEST_ACCESS;
    std::vector<access_rule> access_below;
    bool required = false;
    bool available = true;
    std::string module;    // member of "hardware.modules", or empty
    Json::Value cmd_apply; // for the agent, which folds those that it knows into its own restarts
    std::vector<std::string> cmd_restart; // what a change outside an apply needs
    std::vector<std::string> sensitive;   // within the area; * stands for any one name
    Json::Value schema;

    int level_of(std::string_view full_path) const; // full_path lies inside the area
};

struct meta_data {
    std::vector<area> areas; // in the order in which changes are listed
    Json::Value definitions;
    std::string hardware;

    const area *area_of(std::string_view path) const; // null when the path is in none
    bool is_sensitive(std::string_view path) const;   // path without the indices of arrays
};

// From a meta file's document. Empty, with the reason in fault, when it is not whole.
std::optional<meta_data> parse_meta(const Json::Value &document, std::string &fault);

// All documents of a meta folder as a meta file's document, every area available. Null, with the reason
// in fault, when there is none or one cannot be used.
Json::Value read_meta_folder(const std::string &folder, std::string &fault);

// The same document fitted to the hardware section of config.
Json::Value fit_meta(const Json::Value &document, const Json::Value &config);

// The meta file in RAM; when that is not there, the folder in RAM, then the image's folder.
std::optional<meta_data> load_meta();

// One schema for the whole configuration.
Json::Value root_schema(const meta_data &meta);

} // namespace conf
