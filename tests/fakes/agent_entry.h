// The agent's process entry under a name that a test program can call: agent/main.cpp, built as the
// object library agent_entry.
#pragma once

int agent_main();
