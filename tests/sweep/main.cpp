// sweep [OPTION...] GROUP...
//                          sweeps the groups of scenarios; exits with 1 when something broke
//       --every N          cuts before every so many changes only
//       --first            goes no further when something broke
//       --stall-locks      holds threads up at locks, reads of job files and equal times too
//       --pairs N          cuts about one recovery in N again (0: none), chosen by --seed N (else by the time)
//       --results FOLDER   writes what it has found there, for page.py
//       --all-pairs        cuts every recovery again, before each of its changes
// sweep --show GROUP SCENARIO [CHANGE KIND [VARIANT]]
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
#include <random>
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
         {restart::KILL, restart::REBOOT, restart::POWER_CUT, restart::TORN, restart::STALL, restart::HELD})
        if (name == name_of(kind))
            return kind;
    std::fprintf(stderr, "no such restart: %s\n", name.c_str());
    std::exit(2);
}

int show(const scenario &given, const cut &where) {
    const auto findings = run_once(given, where);
    long number = 0;
    for (const entry &each : read_ledger()) {
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

cut cut_named(const std::vector<std::string> &words) {
    const size_t variant = words.size() < 5 ? 0 : std::strtoul(words[4].c_str(), nullptr, 10);
    return {std::atol(words[2].c_str()), restart_named(words[3]), variant};
}

int show_one(const std::vector<std::string> &words) {
    for (const scenario_group &group : all_groups())
        for (const scenario &given : group.scenarios)
            if (words.size() >= 2 && group.name == words[0] && given.name == words[1])
                return show(given, words.size() < 4 ? cut() : cut_named(words));
    std::fprintf(stderr, "no such scenario\n");
    return 2;
}

// Takes an option and its value off the front.
bool take_option(std::vector<std::string> &words, options &wanted, std::string &results_folder) {
    const std::string name = words.front();
    const bool has_value = name == "--every" || name == "--pairs" || name == "--seed" || name == "--results";
    if (name.rfind("--", 0) != 0 || (has_value && words.size() < 2))
        return false;
    const long value = has_value ? std::atol(words[1].c_str()) : 0;
    if (name == "--every")
        wanted.every = std::max(1L, value);
    else if (name == "--pairs")
        wanted.one_pair_in = std::max(0L, value);
    else if (name == "--seed")
        wanted.seed = static_cast<uint64_t>(value);
    else if (name == "--results")
        results_folder = words[1];
    else if (name == "--all-pairs")
        wanted.all_pairs = true;
    else if (name == "--first")
        wanted.first = true;
    else if (name == "--stall-locks")
        wanted.stall_locks = true;
    else
        return false;
    words.erase(words.begin(), words.begin() + (has_value ? 2 : 1));
    return true;
}

int sweep_groups(std::vector<std::string> names) {
    options wanted;
    wanted.seed = std::random_device()();
    std::string results_folder;
    while (!names.empty() && take_option(names, wanted, results_folder)) {
    }
    if (wanted.one_pair_in != 0)
        std::printf("pairs: one in %ld, --seed %llu\n", wanted.one_pair_in,
                    static_cast<unsigned long long>(wanted.seed));
    int broken = 0;
    int found = 0;
    for (const std::string &name : names) {
        for (const scenario_group &group : all_groups()) {
            if (group.name != name)
                continue;
            found++;
            broken += sweep_group(group, wanted, results_folder);
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
