// A firmware upgrade that was cut short.
//
// The tools mark one in this order: LOCAL_FW_UPGRADE (where it was started on the device), the slot to boot,
// FIRMWARE_UPDATED. The agent then verifies it, stores its end, deletes the marks, and boots the former slot where it
// failed.
#pragma once

// Drops the marks of an upgrade whose slot was not chosen, or has been given up by the boot loader; completes those
// of one whose slot was chosen. Deletes the marks of one that is a stored success and committed; one that lacks the
// commit is open again. Boots the other slot, and does not return, when the slot of a stored failure still runs.
// These last two a bounded number of times, see packaging/boot/attempts.h. Everything else the agent verifies.
void finish_upgrade();
