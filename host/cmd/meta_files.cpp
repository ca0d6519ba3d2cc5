// Meta data between the image, RAM and persistent storage:
//
//   image's meta folder --cmd_metainit--> meta folder in RAM --cmd_metainit, cmd_hwconfig--> meta file
//   meta file in RAM --store_meta_file--> persistent meta file --restore_meta_file--> meta file in RAM
//
// The library works with the meta file in RAM.
#include "host/cmd/meta_files.h"

#include "host/cmd/config_copies.h"
#include "host/cmd/meta.h"
#include "host/cmd/paths.h"
#include "host/cmd/schema.h"
#include "host/cmd/text_file.h"

#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <filesystem>
#include <mutex>

namespace {

namespace fs = std::filesystem;

std::mutex meta_mutex; // one at a time changes the folder and the file in RAM

bool is_usable(const char *meta_file) {
    std::string ignored;
    Json::Value document;
    return read_json_file(meta_file, document) == 0 && conf::parse_meta(document, ignored).has_value();
}

// A meta file made for other hardware settings would mark the wrong areas as available.
bool is_made_for(const char *meta_file, const Json::Value &config) {
    Json::Value document;
    return read_json_file(meta_file, document) == 0 && conf::fit_meta(document, config) == document;
}

// The schemas together must be usable too, or nothing could be validated any more.
bool is_sound_folder(const char *folder) {
    std::string ignored;
    const auto meta = conf::parse_meta(conf::read_meta_folder(folder, ignored), ignored);
    return meta && conf::schema_defect(conf::root_schema(*meta)).empty();
}

int copy_documents(const char *from, const char *to) {
    int result = 0;
    for (const auto &entry : fs::directory_iterator(from))
        if (copy_file(entry.path().c_str(), (fs::path(to) / entry.path().filename()).c_str()) != 0)
            result = -1;
    return result;
}

int delete_documents_not_in(const char *from, const char *to) {
    int result = 0;
    for (const auto &entry : fs::directory_iterator(to))
        if (!fs::exists(fs::path(from) / entry.path().filename()) && delete_file(entry.path().c_str()) != 0)
            result = -1;
    return result;
}

int make_meta_file(const Json::Value &config) {
    std::string ignored;
    const Json::Value folder = conf::read_meta_folder(conf::META_FOLDER, ignored);
    return folder.isNull() ? -1 : write_json_file(conf::META_FILE, conf::fit_meta(folder, config));
}

Json::Value running_or_empty() {
    Json::Value running(Json::objectValue);
    conf::read_config(conf::RUNNING_CONFIG, running);
    return running;
}

} // namespace

int conf::regenerate_meta_file(const Json::Value &config) {
    const std::lock_guard lock(meta_mutex);
    return make_meta_file(config);
}

// The documents of the image's meta folder are copied into the one in RAM, and the meta file is made for
// the running configuration (for all modules when there is none). Fails, and changes nothing, when the
// image's folder is missing or empty or one of its documents or schemas cannot be used; fails too when a
// write fails.
int cmd_metainit() try {
    const std::lock_guard lock(meta_mutex);
    if (!is_sound_folder(conf::IMAGE_META_FOLDER))
        return -1;
    std::error_code exists;
    fs::create_directories(conf::META_FOLDER, exists);
    if (copy_documents(conf::IMAGE_META_FOLDER, conf::META_FOLDER) != 0 ||
        delete_documents_not_in(conf::IMAGE_META_FOLDER, conf::META_FOLDER) != 0)
        return -1;
    return make_meta_file(running_or_empty());
} catch (...) {
    return -1;
}

// Meta file in RAM to the persistent one. Fails, and leaves the persistent one, when there is no usable
// meta file in RAM or the copy fails. What is stored already is not written again.
int store_meta_file() try {
    const std::lock_guard lock(meta_mutex);
    return is_usable(conf::META_FILE) ? conf::copy_if_different(conf::META_FILE, conf::STORED_META_FILE) : -1;
} catch (...) {
    return -1;
}

// Persistent meta file to the one in RAM. Fails, and leaves the one in RAM, when no usable one was stored
// or the copy fails.
int restore_meta_file() try {
    const std::lock_guard lock(meta_mutex);
    return is_usable(conf::STORED_META_FILE) ? copy_file(conf::STORED_META_FILE, conf::META_FILE) : -1;
} catch (...) {
    return -1;
}

// As restore_meta_file; but when none was stored, or it was made for other hardware settings than those
// of the running configuration, the meta file is made anew from the folder in RAM. Fails when that holds
// no usable meta data either, or a write fails.
int restore_meta_file_or_regenerate_from_meta_folder_in_ram() try {
    const std::lock_guard lock(meta_mutex);
    const Json::Value running = running_or_empty();
    if (is_usable(conf::STORED_META_FILE) && is_made_for(conf::STORED_META_FILE, running))
        return copy_file(conf::STORED_META_FILE, conf::META_FILE);
    return make_meta_file(running);
} catch (...) {
    return -1;
}

// What a configuration's meta data says, kept in memory: null when the configuration cannot be read.
struct metaConfig::state {
    std::optional<conf::meta_data> meta;
};

// With prepare the meta file in RAM is made anew for the configuration at path, for which it then serves
// until it is restored or made for another. The text is not used. A configuration that cannot be read
// leaves the meta file as it was, and every question fails.
metaConfig::metaConfig(bool prepare, const char *path, const char *) : own(std::make_unique<state>()) {
    try {
        const std::lock_guard lock(meta_mutex);
        Json::Value config;
        if (!path || conf::read_config(path, config) != 0)
            return;
        if (prepare)
            make_meta_file(config);
        std::string ignored;
        Json::Value folder = conf::read_meta_folder(conf::META_FOLDER, ignored);
        if (folder.isNull())
            folder = conf::read_meta_folder(conf::IMAGE_META_FOLDER, ignored);
        if (!folder.isNull())
            own->meta = conf::parse_meta(conf::fit_meta(folder, config), ignored);
    } catch (...) {
        own->meta.reset();
    }
}

metaConfig::~metaConfig() = default;

// Fails, and leaves level as it was, for a path in no area, and for one in an area whose module the
// configuration says is not fitted.
int metaConfig::getAccessLevel(const char *path, int &level) try {
    const conf::area *area = path && own->meta ? own->meta->area_of(path) : nullptr;
    if (!area || !area->available)
        return -1;
    level = area->level_of(path);
    return 0;
} catch (...) {
    return -1;
}
