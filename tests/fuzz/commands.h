// The shell of the fuzzed device: no command is run. Each is compared with the few forms that the agent has, and its
// effect is made here.
//
// A form is fixed text around at most two things from outside: the id of a job that arrived (as it is, by design: it
// stands in file names and unescaped between quotes), and the URL of a firmware job. Any other text is broken().
#pragma once

#include <string>

namespace fuzz {

struct shell_state {
    int next_status = 0;   // of scripts and firmware tools
    bool rebooted = false; // a command has rebooted the device
    std::string script;    // the latest script that was run: its path
    std::string script_text;
    long script_limit = 0; // its time limit; 0: none
};

shell_state &shell();

// For fakes::device().run_command: always true.
bool run_known_command(const std::string &command, int &status);

} // namespace fuzz
