// The two functions of every target, called by libFuzzer or by replay.cpp.
#pragma once

#include <cstddef>
#include <cstdint>

// Once, before the first input and any thread.
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);

// One input: bytes that are valid until it returns. Always 0; aborts when something that must hold does not.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
