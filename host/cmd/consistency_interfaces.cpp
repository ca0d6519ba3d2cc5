#include "host/cmd/consistency.h"

#include "host/cmd/dotted.h"

#include "platform/cmd.h"

namespace conf {
namespace {

constexpr char INTERFACES[] = "network.interfaces";

std::string text_of(const Json::Value &object, const char *key) {
    std::string text;
    config_get_string(object, &text, key);
    return text;
}

std::string range(const subnet &net) {
    return to_text(net.first) + " to " + to_text(net.last);
}

// Subnets of two addresses and of one (31 and 32 bits) have no network and broadcast address.
bool is_reserved(const subnet &net, uint32_t address) {
    return net.last - net.first > 1 && (address == net.first || address == net.last);
}

} // namespace

void consistency::check_interfaces() {
    Json::Value all;
    if (!config_get_object(config, &all, INTERFACES))
        return;
    for (const std::string &name : all.getMemberNames()) {
        bool enabled = false;
        config_get_bool(all[name], &enabled, "enable");
        if (enabled)
            check_interface(name, all[name]);
    }
}

void consistency::check_interface(const std::string &name, const Json::Value &interface) {
    const std::string path = std::string(INTERFACES) + "." + name;
    interfaces[name].role = text_of(interface, "role");
    check_device(path, text_of(interface, "device"));
    check_dhcp_server(path, interface);
    if (text_of(interface, "mode") != "static")
        return;
    const auto net = subnet_of(text_of(interface, "address"), text_of(interface, "netmask"));
    if (!net)
        return;
    check_address(path, interface, *net);
    check_gateway(path, interface, *net);
    check_overlap(name, *net);
    interfaces[name].net = net;
}

void consistency::check_address(const std::string &path, const Json::Value &interface, const subnet &net) {
    const auto address = to_ipv4(text_of(interface, "address"));
    if (address && is_reserved(net, *address))
        add(path + ".address",
            to_text(*address) + " is the network or broadcast address of its subnet, " + range(net));
}

void consistency::check_gateway(const std::string &path, const Json::Value &interface, const subnet &net) {
    const auto gateway = to_ipv4(text_of(interface, "gateway"));
    if (!gateway)
        return;
    if (!net.contains(*gateway))
        add(path + ".gateway",
            to_text(*gateway) + " is outside the interface's subnet, expected an address from " + range(net));
    else if (is_reserved(net, *gateway))
        add(path + ".gateway", to_text(*gateway) +
                                   " is the network or broadcast address of the interface's subnet, " +
                                   range(net));
    else if (gateway == to_ipv4(text_of(interface, "address")))
        add(path + ".gateway", to_text(*gateway) + " is the interface's own address");
}

void consistency::check_dhcp_server(const std::string &path, const Json::Value &interface) {
    bool enabled = false;
    if (!config_get_bool(interface, &enabled, "dhcp_server.enable") || !enabled)
        return;
    if (text_of(interface, "mode") != "static") {
        add(path + ".dhcp_server.enable", "expected false on an interface that is not static");
        return;
    }
    const auto net = subnet_of(text_of(interface, "address"), text_of(interface, "netmask"));
    const auto first = to_ipv4(text_of(interface, "dhcp_server.first"));
    const auto last = to_ipv4(text_of(interface, "dhcp_server.last"));
    for (const auto &[key, address] : {std::pair("first", first), std::pair("last", last)})
        if (net && address && !net->contains(*address))
            add(path + ".dhcp_server." + key,
                to_text(*address) + " is outside the interface's subnet, expected an address from " +
                    range(*net));
    if (first && last && *last < *first)
        add(path + ".dhcp_server.last", "expected an address not below the first one, " + to_text(*first));
}

void consistency::check_device(const std::string &path, const std::string &device) {
    if (device.empty())
        return;
    const auto [user, is_first] = user_of_device.emplace(device, path);
    if (!is_first)
        add(path + ".device", device + " is used by " + user->second + " already");
    bool port_enabled = true;
    Json::Value ports;
    if (config_get_object(config, &ports, "hardware.ports") && ports.isMember(device))
        config_get_bool(ports[device], &port_enabled, "enable");
    if (!port_enabled)
        add(path + ".device", "hardware.ports." + device + " is not enabled");
}

void consistency::check_overlap(const std::string &name, const subnet &net) {
    for (const auto &[other, facts] : interfaces)
        if (facts.net && facts.net->overlaps(net))
            add(std::string(INTERFACES) + "." + name + ".address", "its subnet, " + range(net) +
                                                                       ", overlaps that of interface " +
                                                                       other + ", " + range(*facts.net));
}

} // namespace conf
