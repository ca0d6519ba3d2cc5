#include "host/vantrel/process.h"
#include "platform/sysdb.h"
#include "platform/vantrel.h"

#include <algorithm>
#include <chrono>

namespace {

// ping waits 2 seconds for an answer; the rest is for looking the name up.
constexpr std::chrono::seconds ONE_PING_LIMIT{15};

// These options mean the same to iputils and to BusyBox. -w is left out: together with -c iputils
// would ask for every answer, not for one.
bool answers_one_ping(const std::string &host) {
    return run_program_silently({"ping", "-c", "1", "-W", "2", host}, ONE_PING_LIMIT) == 0;
}

std::string text_member(const Json::Value &object, const std::string &key) {
    return object.isObject() && object[key].isString() ? object[key].asString() : std::string();
}

std::string without_port(const std::string &authority) {
    if (authority.compare(0, 1, "[") == 0)
        return authority.substr(1, authority.find(']') - 1);
    const bool one_colon = std::count(authority.begin(), authority.end(), ':') == 1;
    return one_colon ? authority.substr(0, authority.find(':')) : authority;
}

// "https://user@cloud.example:8443/api" is "cloud.example"; a bare IPv6 address stays as it is.
std::string bare_host(std::string url) {
    url.erase(0, url.find_first_not_of(" \t\r\n"));
    const size_t scheme = url.find("://");
    if (scheme != std::string::npos)
        url.erase(0, scheme + 3);
    url.erase(std::min(url.size(), url.find_first_of("/?# \t\r\n")));
    const size_t user = url.rfind('@');
    if (user != std::string::npos)
        url.erase(0, user + 1);
    return without_port(url);
}

std::string sim_in_use() {
    int sim = 1;
    sysdb_read_int(0, "SIM_IN_USE", &sim);
    return sim == 2 ? "2" : "1";
}

} // namespace

int ping_test(int count, const char *host) try {
    const std::string name = host;
    if (name.empty() || name[0] == '-')
        return -1;
    for (int i = 0; i < count; ++i)
        if (answers_one_ping(name))
            return 0;
    return -1;
} catch (...) {
    return -1;
}

std::string get_iot_url_sim1_or_sim2_from_config(const Json::Value &iot) try {
    const std::string own = bare_host(text_member(iot, "host_sim" + sim_in_use()));
    return own.empty() ? bare_host(text_member(iot, "host")) : own;
} catch (...) {
    return "";
}
