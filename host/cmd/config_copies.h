// Moving whole configurations between their places, each with its hash.
#pragma once

#include <json/json.h>

namespace conf {

// Reads a configuration: a JSON object. 0 ok; config stays as it was on failure.
int read_config(const char *path, Json::Value &config);

bool is_readable(const char *path);

// The configuration first, then its hash, computed from it; so a cut between the two leaves a whole
// configuration with a former hash, which the next boot puts right. 0 ok; -1 when the source is missing
// or no JSON object (nothing has changed then), or a write fails. What is there already is not written again.
int install_config(const char *from, const char *config_path, const char *hash_path);

// Both files hold the same document; false when one of them cannot be read.
bool holds_same_config(const char *one, const char *other);

// Writes the configuration's hash unless the hash file holds it. 0 ok.
int refresh_hash(const char *config_path, const char *hash_path);

// The hardware section of config.running becomes the settings in force, hardware.running; without a section
// there are none. 0 ok.
int refresh_hardware_settings();

} // namespace conf
