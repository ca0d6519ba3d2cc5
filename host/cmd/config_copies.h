// Moving whole configurations between their places, each with its hash.
#pragma once

#include <json/json.h>

namespace conf {

// Reads a configuration: a JSON object. 0 ok; config stays as it was on failure.
int read_config(const char *path, Json::Value &config);

// The configuration first, then its hash, computed from it; so a cut between the two leaves a whole
// configuration with a former hash, which the next boot puts right. 0 ok; -1 when the source is missing
// or no JSON object (nothing has changed then), or a write fails.
int install_config(const char *from, const char *config_path, const char *hash_path);

// As above, from a document.
int install_config(const Json::Value &config, const char *config_path, const char *hash_path);

// The hardware section of config.running becomes the settings in force, hardware.running; without a section
// there are none. 0 ok.
int refresh_hardware_settings();

} // namespace conf
