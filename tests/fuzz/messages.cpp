// Everything that the broker may deliver, in any order, with passes, waits, boots and failures in between: play.h says how
// an input is read.
#include "tests/fuzz/target.h"

#include "tests/fakes/private_root.h"
#include "tests/fuzz/execution.h"
#include "tests/fuzz/play.h"

namespace {

fuzz::play &agent() {
    static auto *const one = new fuzz::play; // never destroyed
    return *one;
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***) {
    enter_private_root();
    agent();
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    {
        const fuzz::execution one;
        agent().begin();
        agent().obey({reinterpret_cast<const char *>(data), size});
        agent().judge_jobs();
        agent().end();
    }
    agent().restore();
    return 0;
}
