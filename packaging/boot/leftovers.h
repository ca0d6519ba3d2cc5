// What a killed agent leaves in memory.
#pragma once

// The mark of a critical job, the id of the job in progress, and the process ids of scripts: the next agent would
// kill whatever has such a number by then. The marks of an apply and of a firmware job stay: a device that has them
// is to be rebooted.
void clear_leftovers();
