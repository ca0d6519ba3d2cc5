#include "host/cmd/ipv4.h"

#include <arpa/inet.h>

#include <bit>
#include <charconv>

namespace conf {

std::optional<uint32_t> to_ipv4(const std::string &text) {
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) != 1)
        return std::nullopt;
    return ntohl(address.s_addr);
}

std::optional<subnet> subnet_of(const std::string &address, const std::string &netmask) {
    const auto ip = to_ipv4(address);
    const auto mask = to_ipv4(netmask);
    if (!ip || !mask || std::countl_one(*mask) != std::popcount(*mask))
        return std::nullopt;
    return subnet{*ip & *mask, *ip | ~*mask};
}

std::optional<subnet> to_subnet(const std::string &text) {
    const size_t slash = text.find('/');
    if (slash == std::string::npos)
        return std::nullopt;
    unsigned int length = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + slash + 1, end, length);
    if (error != std::errc() || stop != end || length > 32)
        return std::nullopt;
    const uint32_t mask = length == 0 ? 0 : ~uint32_t{0} << (32 - length);
    return subnet_of(text.substr(0, slash), to_text(mask));
}

std::string to_text(uint32_t address) {
    char text[INET_ADDRSTRLEN] = "";
    const in_addr network{htonl(address)};
    inet_ntop(AF_INET, &network, text, sizeof text);
    return text;
}

} // namespace conf
