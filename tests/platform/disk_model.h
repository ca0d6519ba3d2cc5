// What a power cut can leave of a file.
//
// Replays recorded system calls on a model of a disk that promises what POSIX does and no more: the
// bytes of a file are there once the file was flushed, and until then all, the first half or none of
// what was written since; a name is there once its folder was flushed, and until then the changes of
// names survive up to any one of them, in their order.
#pragma once

#include "tests/platform/traced_run.h"

#include <set>
#include <string>
#include <vector>

struct cut_states {
    // Every content that the file at the path can have after a cut anywhere in the run. A file that is
    // not there counts as "(none)".
    std::set<std::string> anywhere;
    // The same for a cut after the run's last call.
    std::set<std::string> at_the_end;
    // What the file holds without a cut: shows that the model has understood the run.
    std::string without_cut;
};

cut_states states_after_cuts(const std::vector<traced_call> &calls, const std::string &path,
                             const std::string &old_content);
