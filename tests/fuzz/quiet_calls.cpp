// The journal of the fakes, without memory: the linker takes these in place of the ones that tests read.
//
// Every change is looked at before it is made. A deletion of what a job of the cloud names as its script is left to the
// fakes' imagination where it is none of the agent's files.
#include "tests/fakes/calls.h"

#include "tests/fuzz/arrivals.h"
#include "tests/fuzz/broken.h"
#include "tests/fuzz/failures.h"
#include "tests/fuzz/known_files.h"

#include <unordered_set>

namespace {

std::recursive_mutex state_mutex;

bool is_named_as_script(const std::string &path) {
    return fuzz::arrived().scripts.contains(path);
}

} // namespace

namespace fakes {

std::unique_lock<std::recursive_mutex> hold() {
    return std::unique_lock(state_mutex);
}

void record(call_kind, const std::string &, const std::string &) {}

void change(const std::string &function, const std::string &text) {
    static const std::unordered_set<std::string> ON_ONE_FILE = {"write_json_file", "create_pidfile"};
    static const std::unordered_set<std::string> ON_TWO_FILES = {"copy_file",
                                                                 "calculate_and_write_config_hash"};
    if (ON_ONE_FILE.contains(function))
        fuzz::must_be_known(text, function);
    else if (ON_TWO_FILES.contains(function))
        fuzz::must_be_known(text.substr(text.rfind(' ') + 1), function); // no target's name holds a blank
    else if (function == "delete_file" && !is_named_as_script(text))
        fuzz::must_be_known(text, function);
}

std::optional<int> set_answer(const std::string &function, const std::string &text) {
    if (function == "delete_file" && !fuzz::is_known_file(text))
        return 0;
    return fuzz::failure_of(function);
}

} // namespace fakes
