// The device on which the configuration library is fuzzed: the delivered configuration runs and is stored, the meta data
// and the device key are there.
//
// The meta data is read once: it is the same for every input, and reading it takes longer than all else.
#pragma once

#include "tests/fuzz/ground.h"

namespace fuzz {

// Call it after enter_private_root.
ground config_ground();

// A scratch file of the inputs.
constexpr char INPUT_FILE[] = "/tmp/file";

void write_input(const char *path, const std::string &text);
std::string read_file(const char *path); // empty when there is none

} // namespace fuzz
