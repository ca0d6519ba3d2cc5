#include "tests/sweep/self_test.h"

#include "tests/sweep/sweep.h"

#include <cstdio>
#include <set>
#include <string>

namespace sweep {

namespace {

constexpr char WHOLE[] = "every job file parses and bears its own jobId";

scenario one_job() {
    scenario given;
    given.name = "a job arrives";
    given.inputs = {message(5, "v1/device/job/1/apply", R"({"jobId":"1","action":"NONE"})")};
    given.ends = {archived("1", "failed", "job contains no action property")};
    return given;
}

bool expect(bool holds, const char *what) {
    std::printf("%s: %s\n", holds ? "ok" : "FAILED", what);
    return holds;
}

} // namespace

int self_test() {
    scenario sound = one_job();
    const scenario_result good = sweep_scenario(sound, {});
    bool all = expect(good.findings.empty(), "a sound device has no findings");
    all &= expect(good.changes.size() > 10 &&
                      good.cuts.at(restart::KILL) == static_cast<long>(good.changes.size()),
                  "every change was cut before");

    scenario broken = one_job();
    broken.writes_in_place = true;
    const scenario_result bad = sweep_scenario(broken, {});
    std::set<std::string> emptied;
    std::set<std::string> torn;
    bool elsewhere = false;
    for (const finding &each : bad.findings) {
        if (each.invariant != WHOLE)
            continue;
        if (each.change.rfind("write in place", 0) == 0)
            emptied.insert(name_of(each.where->kind));
        else if (each.change == "sync_to_fs 2")
            torn.insert(name_of(each.where->kind));
        else
            elsewhere = true;
    }
    all &= expect(emptied == std::set<std::string>{"kill", "reboot"},
                  "a kill in the middle of a write in place leaves an empty job file");
    all &= expect(torn == std::set<std::string>{"power", "torn"},
                  "a power cut after it, and before the flush, leaves an empty one, or half of one");
    all &= expect(!elsewhere, "no other cut breaks a job file");
    return all ? 0 : 1;
}

} // namespace sweep
