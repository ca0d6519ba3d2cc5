#include "tests/fuzz/areas.h"

#include <vector>

namespace fuzz {

const char RUNNING_AT_FIRST[] =
    R"({"hardware": {"leds": true}, "iot": {"vantrel_iot": {"enable": true, "port": 80, )"
    R"("protocol": "HTTP"}}, "network": {"wireless": {"cell": {"enable": false}}}, )"
    R"("system": {"failsafe": {"auto_mode": true, "destination_ip": "192.0.2.1", )"
    R"("enable": true, "timer": 2}}})";

namespace {

struct area {
    const char *path;
    std::vector<const char *> commands;
};

const std::vector<area> AREAS = {
    {"hardware", {}},
    {"iot", {"/bin/systemctl reload vtr-iot"}},
    {"network.wireless.cell", {"/bin/systemctl reload qtel-mgr"}},
    {"network.wireless.wifi", {"/usr/bin/cmd_wifi apply"}},
    {"network.tunnels.ipsec", {}},
    {"network.monitoring.multiwan", {}},
    {"network.interfaces", {"/usr/bin/cmd_netgen apply --pulse-ethernet"}},
    {"network.firewall", {"/usr/bin/cmd_firewall apply"}},
    {"gps.gps", {"/bin/systemctl reload vtr-netwd"}},
    {"apps", {}},
    {"system", {"/usr/bin/other apply"}},
};

Json::Value member(const Json::Value &config, const std::string &path) {
    Json::Value found;
    const size_t dot = path.find('.');
    if (!config.isObject())
        return found;
    found = config.get(path.substr(0, dot), Json::Value());
    return dot == path.npos ? found : member(found, path.substr(dot + 1));
}

} // namespace

Json::Value list_changes(const Json::Value &before, const Json::Value &after) {
    Json::Value changes(Json::arrayValue);
    for (const area &one : AREAS) {
        if (member(before, one.path) == member(after, one.path))
            continue;
        Json::Value change;
        change["path"] = one.path;
        change["cmd_apply"] = Json::Value(Json::arrayValue);
        for (const char *command : one.commands)
            change["cmd_apply"].append(command);
        changes.append(change);
    }
    return changes;
}

int validate(const Json::Value &config, std::string &result) {
    if (config.isObject() && !config.isMember("invalid"))
        return 0;
    result = "this configuration is invalid";
    return -1;
}

} // namespace fuzz
