// The checks behind consistency_faults(), one function for each subject.
#pragma once

#include "host/cmd/fault.h"
#include "host/cmd/ipv4.h"

#include <map>

namespace conf {

// The interfaces that are enabled, for those who refer to them.
struct interface_facts {
    std::string role;
    std::optional<subnet> net; // of a static one
};

class consistency {
public:
    explicit consistency(const Json::Value &config);

    std::vector<fault> check();

private:
    void check_interfaces();
    void check_interface(const std::string &name, const Json::Value &interface);
    void check_address(const std::string &path, const Json::Value &interface, const subnet &net);
    void check_gateway(const std::string &path, const Json::Value &interface, const subnet &net);
    void check_dhcp_server(const std::string &path, const Json::Value &interface);
    void check_device(const std::string &path, const std::string &device);
    void check_overlap(const std::string &name, const subnet &net);

    void check_routes();
    void check_route(const std::string &path, const Json::Value &route);
    void check_firewall();
    void check_rule(const std::string &path, const Json::Value &rule);
    void check_port_forward(const std::string &path, const Json::Value &forward);
    void check_tunnels();
    void check_links();
    void check_wifi();
    void check_modules();

    // path names a text that must be an interface, or "cell" where the modem is one.
    void check_interface_name(const std::string &path, const Json::Value &object);
    void check_subnet(const std::string &path, const Json::Value &object, const char *key);
    void check_names_differ(const std::string &path, const char *key);
    void add(const std::string &path, const std::string &text);

    const Json::Value &config;
    std::map<std::string, interface_facts> interfaces;
    std::map<std::string, std::string> user_of_device;
    std::vector<fault> found;
};

} // namespace conf
