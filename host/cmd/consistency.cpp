#include "host/cmd/consistency.h"

#include "host/cmd/dotted.h"

#include "platform/cmd.h"

#include <set>

namespace conf {
namespace {

std::string text_of(const Json::Value &object, const char *key) {
    std::string text;
    config_get_string(object, &text, key);
    return text;
}

bool is_on(const Json::Value &object, const char *key) {
    bool on = false;
    config_get_bool(object, &on, key);
    return on;
}

Json::Value list_at(const Json::Value &config, const std::string &path) {
    const Json::Value *list = find_member(config, path);
    return list && list->isArray() ? *list : Json::Value(Json::arrayValue);
}

std::string element(const std::string &path, Json::ArrayIndex index) {
    return path + "." + std::to_string(index);
}

} // namespace

consistency::consistency(const Json::Value &config_) : config(config_) {}

std::vector<fault> consistency::check() {
    check_interfaces();
    check_routes();
    check_firewall();
    check_tunnels();
    check_links();
    check_wifi();
    check_modules();
    return std::move(found);
}

void consistency::check_routes() {
    const std::string path = "network.routes.static";
    const Json::Value routes = list_at(config, path);
    for (Json::ArrayIndex i = 0; i < routes.size(); ++i)
        check_route(element(path, i), routes[i]);
}

void consistency::check_route(const std::string &path, const Json::Value &route) {
    check_subnet(path, route, "destination");
    check_interface_name(path, route);
    const auto gateway = to_ipv4(text_of(route, "gateway"));
    const auto owner = interfaces.find(text_of(route, "interface"));
    if (!gateway || owner == interfaces.end() || !owner->second.net || owner->second.net->contains(*gateway))
        return;
    const subnet &net = *owner->second.net;
    add(path + ".gateway", to_text(*gateway) + " is outside the subnet of interface " + owner->first +
                               ", expected an address from " + to_text(net.first) + " to " +
                               to_text(net.last));
}

void consistency::check_firewall() {
    for (const char *key : {"rules", "port_forwards"})
        check_names_differ(std::string("network.firewall.") + key, "name");

    const Json::Value rules = list_at(config, "network.firewall.rules");
    for (Json::ArrayIndex i = 0; i < rules.size(); ++i)
        check_rule(element("network.firewall.rules", i), rules[i]);
    const Json::Value forwards = list_at(config, "network.firewall.port_forwards");
    for (Json::ArrayIndex i = 0; i < forwards.size(); ++i)
        check_port_forward(element("network.firewall.port_forwards", i), forwards[i]);

    const Json::Value masquerade = list_at(config, "network.firewall.masquerade");
    for (Json::ArrayIndex i = 0; i < masquerade.size(); ++i) {
        Json::Value named;
        named["interface"] = masquerade[i];
        check_interface_name(element("network.firewall.masquerade", i), named);
    }
}

void consistency::check_rule(const std::string &path, const Json::Value &rule) {
    check_interface_name(path, rule);
    check_subnet(path, rule, "source");
    check_subnet(path, rule, "destination");
    int port = 0;
    int last_port = 0;
    const bool has_port = config_get_int(rule, &port, "port");
    const bool has_last = config_get_int(rule, &last_port, "last_port");
    const std::string protocol = text_of(rule, "protocol");
    if (has_port && protocol != "tcp" && protocol != "udp")
        add(path + ".protocol", "expected \"tcp\" or \"udp\" in a rule with a port");
    if (has_last && !has_port)
        add(path + ".port", "is missing, expected the first port of the range");
    if (has_last && has_port && last_port < port)
        add(path + ".last_port", "expected at least the first port, " + std::to_string(port) + ", found " +
                                     std::to_string(last_port));
}

void consistency::check_port_forward(const std::string &path, const Json::Value &forward) {
    check_interface_name(path, forward);
    const auto target = to_ipv4(text_of(forward, "to_address"));
    if (!target)
        return;
    for (const auto &[name, facts] : interfaces)
        if (facts.role == "lan" && facts.net && facts.net->contains(*target))
            return;
    add(path + ".to_address", to_text(*target) + " is in the subnet of no lan interface");
}

void consistency::check_tunnels() {
    const std::string path = "network.tunnels.ipsec.tunnels";
    check_names_differ(path, "name");
    const Json::Value tunnels = list_at(config, path);
    for (Json::ArrayIndex i = 0; i < tunnels.size(); ++i) {
        check_subnet(element(path, i), tunnels[i], "local_subnet");
        check_subnet(element(path, i), tunnels[i], "remote_subnet");
        const auto local = to_subnet(text_of(tunnels[i], "local_subnet"));
        const auto remote = to_subnet(text_of(tunnels[i], "remote_subnet"));
        if (local && remote && local->overlaps(*remote))
            add(element(path, i) + ".remote_subnet", "overlaps the local subnet");
    }
}

void consistency::check_links() {
    const std::string path = "network.monitoring.multiwan.links";
    check_names_differ(path, "interface");
    const Json::Value links = list_at(config, path);
    for (Json::ArrayIndex i = 0; i < links.size(); ++i)
        check_interface_name(element(path, i), links[i]);
}

void consistency::check_wifi() {
    const std::string path = "network.wireless.wifi";
    Json::Value wifi;
    if (config_get_object(config, &wifi, path.c_str()))
        check_interface_name(path, wifi);
}

void consistency::check_modules() {
    for (const auto &[module, area] :
         {std::pair("cell", "network.wireless.cell"), std::pair("wifi", "network.wireless.wifi"),
          std::pair("gps", "gps.gps")}) {
        bool fitted = true;
        config_get_bool(config, &fitted, (std::string("hardware.modules.") + module).c_str());
        if (!fitted && is_on(config, (std::string(area) + ".enable").c_str()))
            add(std::string(area) + ".enable",
                std::string("expected false, hardware.modules.") + module + " says that there is none");
    }
}

void consistency::check_interface_name(const std::string &path, const Json::Value &object) {
    std::string name;
    if (!config_get_string(object, &name, "interface") || name == "cell")
        return;
    const Json::Value *all = find_member(config, "network.interfaces");
    if (!all || !all->isObject() || !all->isMember(name))
        add(path + ".interface", "there is no interface \"" + name + "\" in network.interfaces");
}

void consistency::check_subnet(const std::string &path, const Json::Value &object, const char *key) {
    const std::string text = text_of(object, key);
    const auto net = to_subnet(text);
    const size_t slash = text.find('/');
    if (net && to_ipv4(text.substr(0, slash)) != net->first)
        add(path + "." + key, "expected the first address of the subnet, " + to_text(net->first) +
                                  text.substr(slash) + ", found " + text);
}

void consistency::check_names_differ(const std::string &path, const char *key) {
    std::set<std::string> names;
    const Json::Value list = list_at(config, path);
    for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
        std::string name;
        if (config_get_string(list[i], &name, key) && !names.insert(name).second)
            add(element(path, i) + "." + key, "\"" + name + "\" is used twice");
    }
}

void consistency::add(const std::string &path, const std::string &text) {
    found.push_back({path, text});
}

std::vector<fault> consistency_faults(const Json::Value &config) {
    return consistency(config).check();
}

} // namespace conf
