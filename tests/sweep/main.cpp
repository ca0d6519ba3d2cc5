// sweep [--every N] GROUP...
//                          sweeps the groups of scenarios; exits with 1 when something broke
// sweep --show GROUP SCENARIO [CHANGE KIND]
//                          one run, with everything that happened in it
// sweep --self-test        the sweep finds what is broken on purpose, where it is broken
#include "tests/fakes/agent_test.h"
#include "tests/fakes/private_root.h"
#include "tests/sweep/commands.h"
#include "tests/sweep/report.h"
#include "tests/sweep/self_test.h"
#include "tests/sweep/sweep.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using namespace sweep;

std::vector<scenario_group> all_groups() {
    return {script_scenarios(),  acknowledgement_scenarios(), delivery_scenarios(),
            staller_scenarios(), config_scenarios(),          failsafe_scenarios(),
            upgrade_scenarios(), other_firmware_scenarios()};
}

restart restart_named(const std::string &name) {
    for (const restart kind :
         {restart::KILL, restart::REBOOT, restart::POWER_CUT, restart::TORN, restart::STALL})
        if (name == name_of(kind))
            return kind;
    std::fprintf(stderr, "no such restart: %s\n", name.c_str());
    std::exit(2);
}

int show(const scenario &given, const cut &where) {
    const auto findings = run_once(given, where);
    long number = 0;
    for (const entry &each : read_ledger()) {
        if (each.kind == entry_kind::SYNCED)
            continue;
        if (each.kind == entry_kind::CHANGE)
            std::printf("%5ld ", ++number);
        else
            std::printf("      ");
        std::printf("%s\n", line_of(each).c_str());
    }
    for (const finding &each : findings)
        std::printf("BROKEN: %s: %s\n", each.invariant.c_str(), each.text.c_str());
    return findings.empty() ? 0 : 1;
}

int show_one(const std::vector<std::string> &words) {
    for (const scenario_group &group : all_groups())
        for (const scenario &given : group.scenarios)
            if (words.size() >= 2 && group.name == words[0] && given.name == words[1])
                return show(given, words.size() < 4
                                       ? cut()
                                       : cut{std::atol(words[2].c_str()), restart_named(words[3])});
    std::fprintf(stderr, "no such scenario\n");
    return 2;
}

int sweep_groups(std::vector<std::string> names) {
    long every = 1;
    if (names.size() > 1 && names[0] == "--every") {
        every = std::max(1L, std::atol(names[1].c_str()));
        names.erase(names.begin(), names.begin() + 2);
    }
    int broken = 0;
    int found = 0;
    for (const std::string &name : names) {
        for (const scenario_group &group : all_groups()) {
            if (group.name != name)
                continue;
            found++;
            broken += sweep_group(group, every);
        }
    }
    if (found == 0)
        std::fprintf(stderr, "no such group of scenarios\n");
    return found > 0 && broken == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
    std::vector<std::string> words(argv + 1, argv + argc);
    enter_private_root();
    fakes::reset();
    fakes::config().running = Json::Value(); // read from its file, as boot makes it
    open_ledger();
    prepare_commands();
    if (!words.empty() && words[0] == "--self-test")
        return self_test();
    if (!words.empty() && words[0] == "--show")
        return show_one({words.begin() + 1, words.end()});
    return sweep_groups(words);
}
