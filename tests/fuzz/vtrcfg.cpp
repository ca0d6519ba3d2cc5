// What a person may type after vtrcfg: command after command on one device.
//
// A line of the input is a command line, its words apart by tabs. A line that begins with = has the text of a file that
// commands can name as @. A line that would read a file anywhere else is passed over.
//
// The running configuration stays as it was, whatever was typed (but init), an edited one is a JSON object, what was set
// can be got, and the exit code is one of the three.
#include "tests/fuzz/target.h"

#include "host/cmd/paths.h"
#include "host/cmd/vtrcfg/publish.h"
#include "platform/cmd.h"
#include "platform/vantrel.h"
#include "tests/fakes/private_root.h"
#include "tests/fuzz/broken.h"
#include "tests/fuzz/config_ground.h"

#include <algorithm>
#include <array>
#include <iostream>
#include <sstream>
#include <string_view>
#include <vector>

int vtrcfg_main(int argc, char **argv);

// The commands never use a shell.
int orvsys(const char *format, ...) {
    fuzz::broken(std::string("a shell command: ") + format);
}

// An agent that applies every request at once.
bool vtrcfg::publish(const std::string &, const std::string &, int) {
    set_config_apply_in_progress("config change is queued");
    clear_config_apply_in_progress();
    delete_file(conf::NEW_CONFIG);
    return true;
}

namespace {

constexpr int MOST_LINES = 8;
constexpr std::array<std::string_view, 4> READERS = {"validate", "hash", "diff", "request"};

using words = std::vector<std::string>;

fuzz::ground &device() {
    static auto *const files = new fuzz::ground(fuzz::config_ground()); // never destroyed
    return *files;
}

words split(std::string_view line) {
    words found;
    while (true) {
        const size_t tab = std::min(line.find('\t'), line.size());
        found.emplace_back(line.substr(0, tab));
        if (found.back() == "@")
            found.back() = fuzz::INPUT_FILE;
        if (tab == line.size())
            return found;
        line.remove_prefix(tab + 1);
    }
}

bool reads_elsewhere(const words &line) {
    const bool reads = std::ranges::any_of(
        line, [](const std::string &word) { return std::ranges::find(READERS, word) != READERS.end(); });
    return reads && std::ranges::any_of(line, [](const std::string &word) {
               return word.find('/') != word.npos && word != fuzz::INPUT_FILE;
           });
}

// Standard output and error go nowhere.
int run(const words &line) try {
    std::vector<std::string> texts = line;
    std::vector<char *> arguments;
    std::string name = "vtrcfg";
    arguments.push_back(name.data());
    for (std::string &text : texts)
        arguments.push_back(text.data());
    arguments.push_back(nullptr);
    return vtrcfg_main(static_cast<int>(texts.size()) + 1, arguments.data());
} catch (...) {
    fuzz::broken("an exception came out of main");
}

bool begins_with_a_dash(const std::string &word) {
    return word.starts_with('-');
}

void judge_set(const words &line) {
    if (line.size() == 3 && line[0] == "set" && !begins_with_a_dash(line[1]) &&
        run({"get", "--edited", "--plain", line[1]}) != 0)
        fuzz::broken("what was set cannot be got: " + line[1]);
}

void obey(const words &line) {
    const std::string running = fuzz::read_file(conf::RUNNING_CONFIG);
    const int code = run(line);
    if (code < 0 || code > 2)
        fuzz::broken("an exit code of " + std::to_string(code));
    if (std::ranges::find(line, "init") == line.end() && fuzz::read_file(conf::RUNNING_CONFIG) != running)
        fuzz::broken("the running configuration was changed");
    Json::Value edited;
    if (file_exists(conf::EDITED_CONFIG) &&
        (read_json_file(conf::EDITED_CONFIG, edited) != 0 || !edited.isObject()))
        fuzz::broken("the edited configuration is no JSON object");
    if (code == 0)
        judge_set(line);
}

void play(std::string_view text) {
    for (int count = 0; count < MOST_LINES && !text.empty(); ++count) {
        const size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        if (line.starts_with('='))
            fuzz::write_input(fuzz::INPUT_FILE, std::string(line.substr(1)));
        else if (const words one = split(line); !reads_elsewhere(one))
            obey(one);
    }
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***) {
    enter_private_root();
    device();
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string_view whole(reinterpret_cast<const char *>(data), size);
    std::ostringstream output;
    std::streambuf *const standard = std::cout.rdbuf(output.rdbuf());
    std::streambuf *const error = std::cerr.rdbuf(output.rdbuf());
    play(whole.substr(0, whole.find('\0')));
    std::cout.rdbuf(standard);
    std::cerr.rdbuf(error);
    device().restore();
    return 0;
}
