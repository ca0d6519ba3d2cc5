// IPv4 arithmetic on the texts of a configuration.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace conf {

struct subnet {
    uint32_t first; // host byte order
    uint32_t last;

    bool contains(uint32_t address) const { return first <= address && address <= last; }
    bool overlaps(const subnet &other) const { return first <= other.last && other.first <= last; }
};

// Empty when the text is no such thing.
std::optional<uint32_t> to_ipv4(const std::string &text);
std::optional<subnet> subnet_of(const std::string &address, const std::string &netmask);
// "10.0.0.0/8". The address may be any of the subnet's.
std::optional<subnet> to_subnet(const std::string &text);

std::string to_text(uint32_t address);

} // namespace conf
