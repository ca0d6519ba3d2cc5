// vtrcfg: the configuration, for people and scripts on the router.
#include "host/cmd/vtrcfg/commands.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <iostream>

namespace {

class command_line {
public:
    command_line() : app("Reads and changes the configuration", "vtrcfg") {
        app.require_subcommand(1);
        app.footer(
            "Exit codes: 0 done or yes, 1 no (invalid, different, not applied), 2 it could not be done.");
        add_get();
        add_changes();
        add_questions();
        add_request();
        add("status", "tell what is running, stored, edited and being applied",
            [] { return vtrcfg::status(); });
        add("init", "rebuild the running configuration from the persistent one; for the boot",
            [] { return vtrcfg::init(); });
    }

    int run(int argc, char **argv) {
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError &error) {
            return app.exit(error) == 0 ? vtrcfg::YES : vtrcfg::TROUBLE;
        }
        try {
            return chosen();
        } catch (const std::exception &reason) {
            std::cerr << "vtrcfg: " << reason.what() << "\n";
            return vtrcfg::TROUBLE;
        }
    }

private:
    CLI::App *add(const std::string &name, const std::string &help, const std::function<int()> &action) {
        CLI::App *command = app.add_subcommand(name, help);
        command->callback([this, action] { chosen = action; });
        return command;
    }

    void add_get() {
        CLI::App *command = add("get", "print a value of the running configuration",
                                [this] { return vtrcfg::get(path, plain, edited); });
        command->add_option("PATH", path, "as in network.interfaces.wan; without it the whole");
        command->add_flag("--plain", plain, "sensitive fields decoded");
        command->add_flag("--edited", edited, "of the edited configuration");
    }

    void add_changes() {
        CLI::App *set = add("set", "change a value of the edited configuration",
                            [this] { return vtrcfg::set(path, value, as_text); });
        set->add_option("PATH", path)->required();
        set->add_option("VALUE", value, "JSON, or a text")->required();
        set->add_flag("--text", as_text, "VALUE is a text, whatever it looks like");
        add("unset", "remove a member of the edited configuration", [this] { return vtrcfg::unset(path); })
            ->add_option("PATH", path)
            ->required();
        add("discard", "forget the edited configuration", [] { return vtrcfg::discard(); });
    }

    void add_questions() {
        add("diff", "tell what differs from the running configuration", [this] {
            return vtrcfg::diff(file);
        })->add_option("FILE", file, "default: the edited configuration");
        add("validate", "tell every fault of a configuration", [this] {
            return vtrcfg::validate(file);
        })->add_option("FILE", file, "default: the edited configuration, else the running one");
        add("hash", "print the hash of a configuration", [this] {
            return vtrcfg::hash(file);
        })->add_option("FILE", file, "default: the running configuration");
    }

    void add_request() {
        CLI::App *command = add("request", "ask the agent to apply a configuration", [this] {
            options.validate = !unchecked;
            return vtrcfg::request(options);
        });
        command->add_option("FILE", options.file, "default: the edited configuration");
        command->add_flag("--unchecked", unchecked, "leave the validation to the agent");
        command->add_flag("--wait", options.wait, "show the progress until the apply has ended");
        command->add_option("--timeout", options.wait_seconds, "seconds to wait at most (900)")
            ->check(CLI::PositiveNumber);
    }

    CLI::App app;
    std::function<int()> chosen;
    std::string path;
    std::string value;
    std::string file;
    bool plain = false;
    bool edited = false;
    bool as_text = false;
    bool unchecked = false;
    vtrcfg::request_options options;
};

} // namespace

int main(int argc, char **argv) {
    return command_line().run(argc, argv);
}
