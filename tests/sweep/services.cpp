#include "tests/sweep/services.h"

#include "tests/fakes/config.h"
#include "tests/fakes/device.h"
#include "tests/fakes/files.h"
#include "tests/sweep/scheduler.h"

#include <filesystem>
#include <functional>
#include <map>

namespace sweep {

namespace {

const std::string FOLDER = "/run/services/";
const std::string RUNNING = "/var/volatile/config/config.running";
const std::string MODEM_PID = "/run/qtel-mgr.pid";

constexpr unsigned SECONDS_TO_CHECK = 3;
constexpr unsigned SECONDS_TO_RESTART_NETWORK = 3;

// An area of the configuration, the command that the library names for it, and who reads it.
struct area {
    std::vector<std::string> path;
    const char *command;
    const char *service;
};

const std::vector<area> &areas() {
    static const std::vector<area> ALL = {
        {{"apps"}, "", "vtr-app-mgr"},
        {{"hardware"}, "", "hardware"},
        {{"iot", "vantrel_iot"}, "/bin/systemctl reload vtr-iot", "vtr-iot"},
        {{"network", "firewall"}, "/usr/bin/cmd_firewall apply", "firewall"},
        {{"network", "interfaces"}, "/usr/bin/cmd_netgen apply", "network"},
        {{"network", "tunnels", "ipsec"}, "", "ipsec"},
        {{"network", "wireless", "cell"}, "/bin/systemctl reload qtel-mgr", "qtel-mgr"},
        {{"network", "wireless", "wifi"}, "/usr/bin/cmd_wifi apply", "wifi"},
        {{"system", "failsafe"}, "", ""},
    };
    return ALL;
}

Json::Value part_of(const Json::Value &config, const std::vector<std::string> &path) {
    Json::Value part = config;
    for (const std::string &key : path)
        part = part.isObject() ? part.get(key, Json::Value()) : Json::Value();
    return part;
}

std::string dotted(const std::vector<std::string> &path) {
    std::string text;
    for (const std::string &key : path)
        text += (text.empty() ? "" : ".") + key;
    return text;
}

Json::Value list_changes(const Json::Value &before, const Json::Value &after) {
    Json::Value list(Json::arrayValue);
    for (const area &each : areas()) {
        if (part_of(before, each.path) == part_of(after, each.path))
            continue;
        Json::Value element;
        element["path"] = dotted(each.path);
        element["cmd_apply"] = Json::Value(Json::arrayValue);
        if (*each.command != '\0')
            element["cmd_apply"].append(each.command);
        list.append(element);
    }
    return list;
}

int validate(const Json::Value &config, std::string &result) {
    pause_thread(SECONDS_TO_CHECK);
    const Json::Value invalid = part_of(config, {"invalid"});
    if (invalid.isNull() || (invalid.isString() && invalid != fakes::config().database_texts["SYS_FW_VER"]))
        return 0;
    result = "invalid: expected nothing of that name";
    return -1;
}

// What is outside follows: who answers a ping, and whether the modem is connected.
void look_outside() {
    const Json::Value network = file_json(FOLDER + "network");
    const Json::Value gateway = part_of(network, {"network", "interfaces", "gateway"});
    fakes::device().ping_result = gateway == "wrong" ? -1 : 0;
    const Json::Value modem = file_json(FOLDER + "qtel-mgr");
    if (part_of(modem, {"network", "wireless", "cell", "enable"}).asBool())
        fakes::config().database_ints["CELL_CONNECTED"] = 1;
}

void look_for_cloud() {
    const Json::Value url = part_of(file_json(RUNNING), {"iot", "vantrel_iot", "url"});
    fakes::device().cloud_host = url.isString() ? url.asString() : "cloud.test";
}

void start_modem() {
    static int starts = 0;
    fakes::write_all(MODEM_PID, std::to_string(1000 + ++starts));
}

void start(const std::string &service) {
    fakes::write_all(FOLDER + service, file_text(RUNNING));
    if (service == "qtel-mgr")
        start_modem();
}

void restart(const std::string &service) {
    start(service);
    look_outside();
}

int apply_hardware() {
    pause_thread(SECONDS_TO_CHECK);
    if (part_of(file_json(RUNNING), {"hardware", "broken"}).asBool())
        return -1;
    restart("hardware");
    return 0;
}

} // namespace

void start_services() {
    std::filesystem::create_directories(FOLDER);
    for (const area &each : areas())
        if (*each.service != '\0')
            start(each.service);
}

void enter_services() {
    fakes::config().list_changes = list_changes;
    fakes::config().validate = validate;
    fakes::config().apply_hardware = apply_hardware;
    fakes::device().on_reload = [](const std::string &unit) { restart(unit); };
    const auto followed = fakes::after_replacing;
    fakes::after_replacing = [followed](const std::string &path) {
        followed(path);
        if (path == RUNNING)
            look_for_cloud();
    };
    look_outside();
    look_for_cloud();
}

bool run_service_command(const std::string &command) {
    static const std::map<std::string, const char *> SERVICE_OF = {
        {"/usr/bin/cmd_netgen apply", "network"},
        {"/usr/bin/cmd_netgen apply --pulse-ethernet", "network"},
        {"/usr/bin/cmd_firewall apply", "firewall"},
        {"/usr/bin/cmd_wifi apply", "wifi"},
        {"/usr/bin/cmd_wifi reload", "wifi"},
        {"/usr/bin/cmd_ipsec restart", "ipsec"},
        {"/bin/systemctl reload qtel-mgr", "qtel-mgr"},
    };
    const auto found = SERVICE_OF.find(command);
    if (found == SERVICE_OF.end())
        return false;
    if (found->second == std::string("network"))
        pause_thread(SECONDS_TO_RESTART_NETWORK);
    restart(found->second);
    return true;
}

std::vector<std::string> areas_not_served(const Json::Value &config) {
    std::vector<std::string> all;
    for (const area &each : areas()) {
        const Json::Value has = *each.service == '\0' ? config : file_json(FOLDER + each.service);
        if (part_of(has, each.path) != part_of(config, each.path))
            all.push_back(dotted(each.path));
    }
    return all;
}

} // namespace sweep
