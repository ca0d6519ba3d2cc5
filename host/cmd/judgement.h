// Which configurations may be put in force where another one is lost or has failed.
#pragma once

#include <string>
#include <vector>

namespace conf {

// Why the configuration at path must not be put in force; empty when it may. The validator judges, never a
// hash file: a cut between a configuration and its hash leaves a former hash beside a good configuration.
// Where no meta data can be used there is nothing to judge by, and every JSON object passes.
std::string defect_of(const char *path);

// A firmware is installed and not verified yet. It may ask for more than the one that has committed the
// router's configurations, and it has no right to throw them away: the other firmware may come back.
bool upgrade_is_under_way();

struct choice {
    std::vector<std::string> paths;   // what may be put in force, the best first
    std::vector<std::string> refused; // what may not, for people: "PATH cannot be used: why"
};

// Of the router's own copies what is valid, in their order; during an upgrade also what can only be read;
// after them the delivered configuration. Copies that are not there are passed over in silence.
choice choose_from(const std::vector<const char *> &own_copies);

} // namespace conf
