// What the router's boot does before the agent and the services start.
#pragma once

#include <string>
#include <vector>

namespace conf {

// Rebuilds what is in RAM from what is persistent, and puts right what a power cut left half done:
//   - the running configuration becomes the persistent one. A persistent one that is missing or not valid
//     is replaced by the failsafe copy, or else by the delivered configuration of the image, whichever is
//     valid. Where none is, the first that can be read runs. While an upgrade is under way, the persistent
//     one need not be valid for the new firmware;
//   - sensitive fields are encoded in both;
//   - the hashes of the running, the persistent and the failsafe configuration are computed anew, and
//     written where they differ;
//   - the meta data is made from the image (cmd_metainit), and the hardware section stored.
// 0 ok; -1 when a step failed; the others are done all the same. notes tells, in sentences, what was
// unusual.
int boot_configuration(std::vector<std::string> &notes);

} // namespace conf
