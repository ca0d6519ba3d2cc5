#include "tests/fakes/calls.h"

#include <algorithm>
#include <deque>
#include <future>
#include <map>

namespace {

struct fixed_answer {
    std::string function;
    std::string containing;
    int result;
};

std::recursive_mutex state_mutex;
std::vector<fakes::call> journal;
std::map<std::string, std::deque<int>> queued;
std::vector<fixed_answer> fixed;

std::string line_of(const fakes::call &entry) {
    return entry.text.empty() ? entry.function : entry.function + " " + entry.text;
}

} // namespace

namespace fakes {

std::function<void(const call &)> before_change;

std::unique_lock<std::recursive_mutex> hold() {
    return std::unique_lock(state_mutex);
}

void will_return(const std::string &function, std::initializer_list<int> results) {
    const auto held = hold();
    queued[function].insert(queued[function].end(), results.begin(), results.end());
}

void always_returns(const std::string &function, int result, const std::string &containing) {
    const auto held = hold();
    fixed.insert(fixed.begin(), {function, containing, result});
}

void record(call_kind kind, const std::string &function, const std::string &text) {
    const auto held = hold();
    journal.push_back({kind, function, text});
}

void change(const std::string &function, const std::string &text) {
    if (before_change)
        before_change({call_kind::CHANGE, function, text});
    record(call_kind::CHANGE, function, text);
}

std::optional<int> set_answer(const std::string &function, const std::string &text) {
    const auto held = hold();
    if (auto &results = queued[function]; !results.empty()) {
        const int result = results.front();
        results.pop_front();
        return result;
    }
    for (const auto &answer : fixed)
        if (answer.function == function && text.find(answer.containing) != std::string::npos)
            return answer.result;
    return std::nullopt;
}

void reset_calls() {
    const auto held = hold();
    journal.clear();
    queued.clear();
    fixed.clear();
    before_change = nullptr;
}

} // namespace fakes

std::vector<std::string> calls() {
    const auto held = fakes::hold();
    std::vector<std::string> lines;
    for (const auto &entry : journal)
        if (entry.kind == fakes::call_kind::CHANGE || entry.kind == fakes::call_kind::PAUSE)
            lines.push_back(line_of(entry));
    return lines;
}

std::vector<std::string> calls_of(std::initializer_list<const char *> functions) {
    const auto held = fakes::hold();
    std::vector<std::string> lines;
    for (const auto &entry : journal)
        if (std::find(functions.begin(), functions.end(), entry.function) != functions.end())
            lines.push_back(line_of(entry));
    return lines;
}

std::vector<fakes::call> all_calls() {
    const auto held = fakes::hold();
    return journal;
}

bool free_for_another_thread(std::mutex &mutex) {
    return std::async(std::launch::async,
                      [&] {
                          const std::unique_lock lock(mutex, std::try_to_lock);
                          return lock.owns_lock();
                      })
        .get();
}
