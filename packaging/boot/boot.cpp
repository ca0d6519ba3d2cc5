#include "packaging/boot/boot.h"

#include "packaging/boot/leftovers.h"
#include "packaging/boot/stored_jobs.h"
#include "packaging/boot/unfinished_apply.h"
#include "packaging/boot/unfinished_upgrade.h"

#include <syslog.h>

namespace {

// A record that nobody foresaw keeps no other step from being done.
void guarded(const char *step, auto routine) {
    try {
        routine();
    } catch (...) {
        syslog(LOG_ERR, "%s: exception handler", step);
    }
}

} // namespace

void finish_what_a_cut_has_left() {
    guarded("finish_apply", finish_apply);
    guarded("stamp_untold_failures", stamp_untold_failures);
    guarded("finish_upgrade", finish_upgrade); // the last: it may boot the other firmware
}

void clear_what_a_kill_has_left() {
    guarded("clear_leftovers", clear_leftovers);
}
