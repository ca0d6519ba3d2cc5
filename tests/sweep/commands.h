// The shell commands of the agent, done inside the process where that is the same: a life must cost
// little. What is not known here is run by the shell.
#pragma once

#include <functional>
#include <string>

namespace sweep {

// Once, before the first fork: what takes long.
void prepare_commands();

// For fakes::device().run_command. `reboot` ends the life.
void install_commands(std::function<void()> reboot);

} // namespace sweep
