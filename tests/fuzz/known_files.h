// Every file that the agent and the library below it may make, write or delete.
#pragma once

#include <string>

namespace fuzz {

// By its path as the agent writes it, which is compared as it stands: "/var/data/orv/config.json". In a folder whose
// names hold an id (the jobs, the scripts, their output) a name is known when it is one: not empty, no "." or "..",
// no slash.
bool is_known_file(const std::string &path);

// broken() with the name of what would write.
void must_be_known(const std::string &path, const std::string &by);

} // namespace fuzz
