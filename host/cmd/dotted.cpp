#include "host/cmd/dotted.h"

#include <charconv>
#include <optional>

namespace conf {
namespace {

std::optional<Json::ArrayIndex> as_index(std::string_view part) {
    Json::ArrayIndex index = 0;
    const auto [end, error] = std::from_chars(part.data(), part.data() + part.size(), index);
    if (error != std::errc() || end != part.data() + part.size())
        return std::nullopt;
    return index;
}

const Json::Value *find_child(const Json::Value &parent, std::string_view part) {
    if (parent.isObject())
        return parent.find(part.data(), part.data() + part.size());
    if (!parent.isArray())
        return nullptr;
    const auto index = as_index(part);
    return index && *index < parent.size() ? &parent[*index] : nullptr;
}

Json::Value *make_child(Json::Value &parent, const std::string &part) {
    if (parent.isNull() || parent.isObject())
        return part.empty() ? nullptr : &parent[part];
    if (!parent.isArray())
        return nullptr;
    const auto index = as_index(part);
    return index && *index <= parent.size() ? &parent[*index] : nullptr;
}

} // namespace

std::vector<std::string> split_path(std::string_view path) {
    std::vector<std::string> parts;
    while (!path.empty()) {
        const size_t dot = path.find('.');
        parts.emplace_back(path.substr(0, dot));
        if (dot == std::string_view::npos)
            return parts;
        path.remove_prefix(dot + 1);
        if (path.empty())
            parts.emplace_back(); // a trailing dot names a member without a name: never found
    }
    return parts;
}

const Json::Value *find_member(const Json::Value &root, std::string_view path) {
    const Json::Value *found = &root;
    for (const std::string &part : split_path(path)) {
        found = find_child(*found, part);
        if (!found)
            return nullptr;
    }
    return found;
}

bool set_member(Json::Value &root, std::string_view path, const Json::Value &value) {
    Json::Value changed = root;
    Json::Value *target = &changed;
    for (const std::string &part : split_path(path)) {
        target = make_child(*target, part);
        if (!target)
            return false;
    }
    *target = value;
    root.swap(changed);
    return true;
}

bool remove_member(Json::Value &root, std::string_view path) {
    const size_t dot = path.rfind('.');
    const std::string_view parent = dot == std::string_view::npos ? "" : path.substr(0, dot);
    const Json::Value *found = find_member(root, parent);
    if (path.empty() || !found || !found->isObject())
        return false;
    Json::Value members = *found;
    const std::string name(dot == std::string_view::npos ? path : path.substr(dot + 1));
    return members.removeMember(name, nullptr) && set_member(root, parent, members);
}

bool is_inside(std::string_view path, std::string_view area) {
    if (!path.starts_with(area))
        return false;
    return area.empty() || path.size() == area.size() || path[area.size()] == '.';
}

} // namespace conf
