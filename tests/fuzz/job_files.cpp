// One job file with any content: passes, an answer to its report, a boot, an update, and more passes.
//
// The file is named by the job's id, or 77 where there is none. An id that can be no name is one that the agent never
// stores: such an input is not played.
#include "tests/fuzz/target.h"

#include "jobs/job_record.h"
#include "jobs/job_store.h"
#include "tests/fakes/files.h"
#include "tests/fakes/private_root.h"
#include "tests/fuzz/arrivals.h"
#include "tests/fuzz/broken.h"
#include "tests/fuzz/commands.h"
#include "tests/fuzz/execution.h"
#include "tests/fuzz/play.h"

#include <exception>

namespace {

constexpr char DEFAULT_NAME[] = "77";
constexpr size_t LONGEST_NAME = 200;

fuzz::play &agent() {
    static auto *const one = new fuzz::play; // never destroyed
    return *one;
}

Json::Value parsed(const std::string &text) try { return json(text); } catch (const std::exception &) {
    return {};
}

bool is_usable(const Json::Value &job) try {
    return has_usable_job_id(job);
} catch (const Json::Exception &) {
    return false;
}

std::string quoted(const std::string &text) {
    return Json::valueToQuotedString(text.c_str());
}

// Empty for an input that is not played.
std::string name_of(const Json::Value &job) {
    if (!job.isObject() || !job.isMember(KEY_JOB_ID))
        return DEFAULT_NAME;
    const std::string id = is_usable(job) ? text_of(job, KEY_JOB_ID) : "";
    return id.size() <= LONGEST_NAME ? id : "";
}

void answer(const std::string &name, const std::string &topic, int rc) {
    const std::string text =
        R"({"jobId": )" + quoted(name) + R"(, "session": $SESSION, "rc": )" + std::to_string(rc) + "}";
    agent().deliver(topic, agent().filled(text));
}

void passes(int count) {
    for (; count > 0; --count) {
        agent().wait(3);
        agent().pass();
    }
}

// What lay there broken was repaired by the first pass, whatever else came to pass.
void judge_repair(const std::string &name) {
    if (fuzz::time_is_up() || !exists(ACTIVE_FOLDER + name))
        return;
    const Json::Value job = active_job(name);
    if (!job.isObject() || !job.isMember(KEY_JOB_ID) || !job.isMember(KEY_STATUS))
        fuzz::broken("a broken job file that passes did not repair: " + name);
}

void play_job(const std::string &name, const std::string &text) {
    fuzz::arrived().take_id(name);
    fakes::write_all(ACTIVE_FOLDER + name, text);
    passes(2);
    judge_repair(name);
    answer(name, "v1/device/job/77/pub_ack", 200);
    agent().wait(21);
    passes(1);
    agent().boot();
    answer(name, "v1/device/job/77/update", 0);
    answer(name, "v1/device/cmd/filepull/ack", 500);
    passes(1);
    answer(name, "v1/device/job/77/pub_ack", 500);
    agent().deliver("v1/device/job/CLEAR_ACTIVE_JOBS/apply", "");
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***) {
    enter_private_root();
    agent();
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    const Json::Value job = parsed(text);
    const std::string name = name_of(job);
    if (name.empty())
        return 0;
    {
        const fuzz::execution one;
        agent().begin();
        fuzz::arrived().take_job(job);
        play_job(name, text);
        agent().end();
    }
    agent().restore();
    return 0;
}
