// What a boot, and supervision, owe the agent: what a power cut, a reboot or a kill has left half done and the agent
// cannot make whole by itself.
//
// Each runs on one thread while no agent runs, and nobody else changes these files meanwhile. Each says in the
// system log what it did, one line a deed, and nothing when there was nothing to do. Cut anywhere and called again,
// it comes to the same end; a cut may cost one of the attempts of packaging/boot/attempts.h. What it cannot read or
// does not know it leaves alone. Neither throws.
#pragma once

// Before the running configuration is made and before the agent's first start of a boot. "/var/data/orv/ROOTFS2" must
// be true to the slot that runs. May boot the other firmware, and then does not return.
void finish_what_a_cut_has_left();

// Before every further start of the agent: what a killed one had started is dead by then. Of no effect at the first
// start of a boot.
void clear_what_a_kill_has_left();
