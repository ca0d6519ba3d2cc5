// Dotted paths into a JSON document: "network.interfaces.wan"; a number names an element of an
// array ("network.routes.0.device"); the empty path names the document itself.
#pragma once

#include <json/json.h>

#include <string>
#include <string_view>
#include <vector>

namespace conf {

std::vector<std::string> split_path(std::string_view path);

// Null when there is no such member. Never throws on any kind of document.
const Json::Value *find_member(const Json::Value &root, std::string_view path);

// Makes the objects on the way. A number that is the size of an array appends to it. False, with
// root unchanged, when the way leads through something that is no object or beyond an array's end.
bool set_member(Json::Value &root, std::string_view path, const Json::Value &value);

// False when there is no such member of an object.
bool remove_member(Json::Value &root, std::string_view path);

// True when the path is the area itself or lies inside it.
bool is_inside(std::string_view path, std::string_view area);

} // namespace conf
