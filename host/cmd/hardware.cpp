// The hardware section of the configuration.
#include "host/cmd/config_copies.h"
#include "host/cmd/dotted.h"
#include "host/cmd/meta_files.h"
#include "host/cmd/paths.h"

#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <net/if.h>

namespace {

bool read_hardware(Json::Value &running, Json::Value &hardware) {
    return conf::read_config(conf::RUNNING_CONFIG, running) == 0 &&
           config_get_object(running, &hardware, "hardware");
}

bool has_all_enabled_ports(const Json::Value &hardware) {
    Json::Value ports;
    if (!config_get_object(hardware, &ports, "ports"))
        return false;
    for (const std::string &name : ports.getMemberNames()) {
        bool enabled = false;
        config_get_bool(ports[name], &enabled, "enable");
        if (enabled && if_nametoindex(name.c_str()) == 0)
            return false;
    }
    return true;
}

int write_if_different(const char *path, const Json::Value &value) {
    Json::Value former;
    return read_json_file(path, former) == 0 && former == value ? 0 : write_json_file(path, value);
}

} // namespace

int conf::refresh_hardware_settings() {
    Json::Value running;
    Json::Value hardware;
    if (!read_hardware(running, hardware))
        return delete_file(HARDWARE_SETTINGS);
    return write_if_different(HARDWARE_SETTINGS, hardware);
}

// The section becomes the hardware settings in RAM (hardware.running), which drivers read, and the meta
// file is made anew for it. Fails, and changes nothing, when the section is missing, a port that it
// enables does not exist as a network device, or there is no usable meta data; fails too when a write
// fails.
int cmd_hwconfig() try {
    Json::Value running;
    Json::Value hardware;
    if (!read_hardware(running, hardware) || !has_all_enabled_ports(hardware))
        return -1;
    if (conf::regenerate_meta_file(running) != 0)
        return -1;
    return write_json_file(conf::HARDWARE_SETTINGS, hardware);
} catch (...) {
    return -1;
}

// The section to the persistent config.hardware, where an early boot finds it before there is a running
// configuration. Fails, and leaves the stored one, when the running configuration has none or the write
// fails. What is stored already is not written again.
int save_hw_config_section_to_nv() try {
    Json::Value running;
    Json::Value hardware;
    return read_hardware(running, hardware) ? write_if_different(conf::STORED_HARDWARE, hardware) : -1;
} catch (...) {
    return -1;
}
