// sysdb: reads and writes the system database from a shell.
#include "host/sysdb/store.h"

#include <CLI/CLI.hpp>

#include <iostream>
#include <string>

namespace {

int get(const std::string &key) {
    const std::optional<std::string> value = read_pair(key);
    if (!value) {
        std::cerr << "sysdb: " << key << " is not there\n";
        return 1;
    }
    std::cout << *value << "\n";
    return 0;
}

int set(const std::string &key, const std::string &value) {
    if (write_pair(key, value))
        return 0;
    std::cerr << "sysdb: " << key << " cannot be written\n";
    return 1;
}

int list() {
    for (const auto &[key, value] : all_pairs())
        std::cout << key << "=" << value << "\n";
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    CLI::App app("Reads and writes the system database", "sysdb");
    app.require_subcommand(1);
    std::string key;
    std::string value;
    CLI::App *get_command =
        app.add_subcommand("get", "print the value of a key; exit 1 when it is not there");
    get_command->add_option("KEY", key)->required();
    CLI::App *set_command = app.add_subcommand("set", "store a value");
    set_command->add_option("KEY", key)->required();
    set_command->add_option("VALUE", value)->required();
    app.add_subcommand("list", "print all pairs as KEY=VALUE");
    CLI11_PARSE(app, argc, argv);
    if (get_command->parsed())
        return get(key);
    if (set_command->parsed())
        return set(key, value);
    return list();
}
