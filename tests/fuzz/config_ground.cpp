#include "tests/fuzz/config_ground.h"

#include "host/cmd/meta.h"
#include "host/cmd/paths.h"
#include "host/vtrsec/field_cipher.h"
#include "platform/cmd.h"
#include "platform/vantrel.h"
#include "tests/fuzz/broken.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string_view>

namespace conf {

std::optional<meta_data> real_load_meta() asm("__real__ZN4conf9load_metaEv");
std::optional<meta_data> kept_load_meta() asm("__wrap__ZN4conf9load_metaEv");

std::optional<meta_data> kept_load_meta() {
    static const std::optional<meta_data> kept = real_load_meta();
    return kept;
}

} // namespace conf

namespace fuzz {
namespace {

constexpr std::string_view FILES[] = {
    conf::RUNNING_CONFIG,    conf::RUNNING_HASH,      conf::NEW_CONFIG,
    conf::NEW_HASH,          conf::EDITED_CONFIG,     conf::EDITED_BASE_HASH,
    conf::APPLY_STATUS,      conf::META_FILE,         conf::STORED_CONFIG,
    conf::HARDWARE_SETTINGS, conf::STORED_HASH,       conf::STORED_META_FILE,
    conf::STORED_HARDWARE,   conf::STORED_NEW_CONFIG, conf::CONFIG_MODIFIED,
    conf::APPLY_EVENTS,      vtrsec::DEVICE_KEY,      INPUT_FILE,
};

bool is_known(const std::string &path) {
    if (std::find(std::begin(FILES), std::end(FILES), path) != std::end(FILES))
        return true;
    const std::string meta = std::string(conf::META_FOLDER) + "/";
    return path.starts_with(meta) && path.ends_with(".json");
}

Json::Value read_json(const std::string &path) {
    Json::Value value;
    if (read_json_file(path.c_str(), value) != 0)
        broken("no JSON in " + path);
    return value;
}

} // namespace

ground config_ground() {
    ground files({"/var/data", "/var/data/.tmp", "/var/data/orv", "/var/data/orv/vantrel_iot",
                  "/var/data/orv/vantrel_iot/jobs", "/var/data/orv/vantrel_iot/jobs/active",
                  "/var/data/orv/vantrel_iot/jobs/archive", "/var/data/factory", "/var/volatile",
                  "/var/volatile/.tmp", "/var/volatile/orv", "/var/volatile/config", conf::META_FOLDER,
                  "/var/run", "/var/run/.tmp", "/tmp", "/tmp/.tmp"},
                 is_known);
    std::string fault;
    const Json::Value delivered = read_json(CMD_SOURCE "/default-config.json");
    const Json::Value meta = conf::read_meta_folder(CMD_SOURCE "/meta", fault);
    if (meta.isNull())
        broken(fault);
    files.keep(vtrsec::DEVICE_KEY, "0123456789abcdef0123456789abcdef\n");
    files.keep(conf::META_FILE, conf::fit_meta(meta, delivered).toStyledString());
    files.keep(conf::RUNNING_CONFIG, delivered.toStyledString());
    files.keep(conf::STORED_CONFIG, delivered.toStyledString());
    files.restore();
    files.keep(conf::RUNNING_HASH, config_hash(delivered) + "\n");
    files.keep(conf::STORED_HASH, config_hash(delivered) + "\n");
    files.restore();
    return files;
}

void write_input(const char *path, const std::string &text) {
    const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (file < 0 || write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        broken(std::string("cannot write ") + path);
    close(file);
}

std::string read_file(const char *path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

} // namespace fuzz
