// Whether the sweep finds what it is there to find.
#pragma once

namespace sweep {

// 0 when a device that writes job files in place is found out at the right change, and only there.
int self_test();

} // namespace sweep
