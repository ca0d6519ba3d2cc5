// tessard-boot: see packaging/boot/boot.h, and docs/device.md for whoever puts it into a boot.
#include "packaging/boot/boot.h"

#include <iostream>
#include <string_view>

#include <syslog.h>

namespace {

constexpr char USAGE[] =
    "usage: tessard-boot boot|restart\n"
    "\n"
    "Finishes what was left half done when the job agent was cut. Tells the system log what it did.\n"
    "\n"
    "  boot      once a boot, before the running configuration is made and before the agent\n"
    "            starts; may boot the other firmware\n"
    "  restart   before each further start of the agent\n";
constexpr int MISUSE = 2;

} // namespace

int main(int argc, char **argv) {
    const std::string_view verb = argc == 2 ? argv[1] : "";
    if (verb == "--help") {
        std::cout << USAGE;
        return 0;
    }
    openlog("tessard-boot", 0, LOG_DAEMON);
    if (verb == "boot") {
        finish_what_a_cut_has_left();
        return 0;
    }
    if (verb == "restart") {
        clear_what_a_kill_has_left();
        return 0;
    }
    if (argc == 2)
        std::cerr << "tessard-boot: unknown verb '" << verb << "'\n";
    std::cerr << USAGE;
    return MISUSE;
}
