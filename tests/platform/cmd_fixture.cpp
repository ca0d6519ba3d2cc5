#include "tests/platform/cmd_fixture.h"

#include "host/cmd/dotted.h"
#include "host/cmd/paths.h"
#include "platform/cmd.h"
#include "tests/fakes/private_root.h"

#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace fs = std::filesystem;

namespace {

constexpr char SOURCE_META[] = CMD_SOURCE "/meta";
constexpr char SOURCE_DEFAULT[] = CMD_SOURCE "/default-config.json";

void mount_or_throw(const char *source, const char *target, const char *type, const std::string &options) {
    if (mount(source, target, type, 0, options.c_str()) != 0)
        throw std::system_error(errno, std::generic_category(), target);
}

// /usr/share becomes an overlay of this process's own, once; the image's files go into it.
void mount_image_folder() {
    static bool mounted = false;
    if (mounted)
        return;
    fs::create_directories("/tmp/.share/upper");
    fs::create_directories("/tmp/.share/work");
    const std::string layers = "lowerdir=/usr/share,upperdir=/tmp/.share/upper,workdir=/tmp/.share/work";
    try {
        mount_or_throw("overlay", "/usr/share", "overlay", layers);
    } catch (const std::system_error &) {
        mount_or_throw("overlay", "/usr/share", "overlay", layers + ",userxattr");
    }
    mounted = true;
}

void install_image_files() {
    fs::remove_all("/usr/share/vantrel");
    fs::create_directories("/usr/share/vantrel");
    fs::copy(SOURCE_META, conf::IMAGE_META_FOLDER, fs::copy_options::recursive);
    fs::copy(SOURCE_DEFAULT, conf::DEFAULT_CONFIG);
}

} // namespace

CmdTest::CmdTest() {
    mount_image_folder();
    empty_directory("/var/data");
    empty_directory("/var/volatile");
    empty_directory("/run");
    make_boot_directories();
    install_image_files();
}

Json::Value CmdTest::json(const std::string &text) {
    Json::Value value;
    std::istringstream(text) >> value;
    return value;
}

std::string CmdTest::read_text(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

Json::Value CmdTest::read_json(const std::string &path) {
    return json(read_text(path));
}

void CmdTest::write_text(const std::string &path, const std::string &text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

void CmdTest::write_json(const std::string &path, const Json::Value &value) {
    write_text(path, value.toStyledString());
}

bool CmdTest::exists(const std::string &path) {
    return fs::exists(path);
}

Json::Value CmdTest::default_config() {
    return read_json(conf::DEFAULT_CONFIG);
}

Json::Value CmdTest::default_with(const std::string &path, const Json::Value &value) {
    Json::Value config = default_config();
    if (!conf::set_member(config, path, value))
        throw std::invalid_argument(path);
    return config;
}

Json::Value CmdTest::default_without(const std::string &path) {
    Json::Value config = default_config();
    if (!conf::remove_member(config, path))
        throw std::invalid_argument(path);
    return config;
}

void CmdTest::given_running(const Json::Value &config) {
    write_json(conf::RUNNING_CONFIG, config);
}

std::string CmdTest::hash_in(const std::string &path) {
    char hash[128] = "";
    return read_hash(path.c_str(), hash) == 0 ? hash : "";
}
