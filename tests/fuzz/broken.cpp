#include "tests/fuzz/broken.h"

#include <cstdio>
#include <cstdlib>

void fuzz::broken(const std::string &what) {
    std::fprintf(stderr, "BROKEN: %s\n", what.c_str());
    std::abort();
}
