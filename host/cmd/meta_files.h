// The meta file in RAM and what it is made from.
#pragma once

#include <json/json.h>

namespace conf {

// Makes the meta file anew from the meta folder in RAM, fitted to the configuration. 0 ok; the former
// meta file stays when the folder holds no usable meta data or the write fails.
int regenerate_meta_file(const Json::Value &config);

} // namespace conf
