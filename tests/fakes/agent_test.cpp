#include "tests/fakes/agent_test.h"

void fakes::reset() {
    reset_calls();
    reset_clock();
    reset_log();
    reset_mqtt();
    reset_device();
    reset_config();
    reset_files();
    set_config("iot.vantrel_iot", R"({"enabled": true})");
}
