#include "host/cmd/vtrcfg/progress.h"

#include "host/cmd/paths.h"
#include "host/cmd/vtrcfg/documents.h"

#include "platform/vantrel.h"

#include <chrono>
#include <ctime>
#include <iostream>
#include <thread>

namespace vtrcfg {
namespace {

constexpr auto POLL = std::chrono::milliseconds(200);
constexpr char QUEUED[] = "config change is queued"; // the agent's word for a request that it has taken

// False when the time is over before the condition holds.
template <typename condition> bool polls_until(int seconds, condition holds) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!holds()) {
        if (std::chrono::steady_clock::now() >= limit)
            return false;
        std::this_thread::sleep_for(POLL);
    }
    return true;
}

Json::Value history() {
    Json::Value status;
    if (read_json_file(conf::APPLY_STATUS, status) != 0 || !status.isObject())
        return Json::Value(Json::arrayValue);
    const Json::Value texts = status.get("history", Json::Value());
    return texts.isArray() ? texts : Json::Value(Json::arrayValue);
}

// How many of the texts are known: the former ones may have lost some at their beginning, or all.
Json::ArrayIndex known_part(const Json::Value &former, const Json::Value &texts) {
    for (Json::ArrayIndex lost = 0; lost < former.size(); ++lost) {
        const Json::ArrayIndex rest = former.size() - lost;
        Json::ArrayIndex same = 0;
        while (same < rest && same < texts.size() && former[lost + same] == texts[same])
            ++same;
        if (same == rest)
            return rest;
    }
    return 0;
}

void print(const Json::Value &entry) {
    const time_t seconds = static_cast<time_t>(entry.get("time", 0).asInt64());
    char clock[16] = "";
    tm local{};
    if (localtime_r(&seconds, &local))
        strftime(clock, sizeof clock, "%H:%M:%S", &local);
    std::cout << clock << "  " << entry.get("text", "").asString() << std::endl;
}

} // namespace

progress::progress() : seen(history()) {}

void progress::print_new_texts() {
    const Json::Value texts = history();
    const Json::ArrayIndex known = known_part(seen, texts);
    for (Json::ArrayIndex i = known; i < texts.size(); ++i)
        print(texts[i]);
    seen = texts;
}

bool progress::waits_for_the_queue(int seconds) const {
    return polls_until(seconds, [this] {
        const Json::Value texts = history();
        for (Json::ArrayIndex i = known_part(seen, texts); i < texts.size(); ++i)
            if (texts[i].get("text", "") == QUEUED)
                return true;
        return false;
    });
}

bool progress::follow_to_the_end(int seconds) {
    return polls_until(seconds, [this] {
        const bool under_way =
            apply_is_marked() || has_candidate(); // before the texts, or the last is missed
        print_new_texts();
        return !under_way;
    });
}

} // namespace vtrcfg
