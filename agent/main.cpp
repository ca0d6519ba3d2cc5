#include "agent/start_up.h"

int main() {
    run_agent();
}
