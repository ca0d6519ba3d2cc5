#include "host/cmd/vtrcfg/progress.h"

#include "host/cmd/paths.h"

#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <chrono>
#include <ctime>
#include <iostream>
#include <thread>

namespace vtrcfg {
namespace {

constexpr auto POLL = std::chrono::milliseconds(200);

Json::Value read_status() {
    Json::Value status;
    if (read_json_file(conf::APPLY_STATUS, status) != 0 || !status.isObject())
        status = Json::Value(Json::objectValue);
    return status;
}

Json::Value history() {
    const Json::Value status = read_status();
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

bool progress::print_new_texts() {
    const Json::Value texts = history();
    const Json::ArrayIndex known = known_part(seen, texts);
    for (Json::ArrayIndex i = known; i < texts.size(); ++i)
        print(texts[i]);
    seen = texts;
    return known < texts.size();
}

bool progress::follow_to_the_end(int seconds) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    bool begun = false;
    while (std::chrono::steady_clock::now() < limit) {
        bool in_progress = false;
        config_get_bool(read_status(), &in_progress,
                        "in_progress"); // before the texts, or the last is missed
        begun |= print_new_texts() || in_progress;
        if (begun && !in_progress)
            return true;
        std::this_thread::sleep_for(POLL);
    }
    return false;
}

} // namespace vtrcfg
