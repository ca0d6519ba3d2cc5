// The text of a script: its two markers, its file, and the command that runs it, against a second reading of the rules.
#include "tests/fuzz/target.h"

#include "actions/command_job.h"
#include "agent/job_intake.h"
#include "jobs/job_record.h"
#include "tests/fakes/files.h"
#include "tests/fakes/private_root.h"
#include "tests/fuzz/arrivals.h"
#include "tests/fuzz/broken.h"
#include "tests/fuzz/commands.h"
#include "tests/fuzz/execution.h"
#include "tests/fuzz/play.h"

#include <string_view>

namespace {

constexpr std::string_view CRITICAL = "# JOB PRIORITY CRITICAL";
constexpr std::string_view LIMIT = "# MAX JOB TIME";
constexpr char PREAMBLE[] =
    "#!/bin/sh\n\nexec > /tmp/cli_output_77.txt\nexec 2>&1\n\nset -e\n\necho $$ > /var/volatile/orv/77.pid\n\n"
    "export PATH=/usr/local/bin:/usr/bin:/bin:/var/data/python/usr/bin:/usr/local/sbin:/usr/sbin:/sbin\n\n"
    "export ACK_ID=\"77\"\n\n";

fuzz::play &agent() {
    static auto *const one = new fuzz::play; // never destroyed
    return *one;
}

// A number as scanf reads it: blanks, a sign, digits. What is no number, or out of bounds, is 600.
long limit_in(std::string_view script) {
    const std::string_view head = script.substr(0, 255);
    const size_t marker = head.find(LIMIT);
    if (marker == head.npos)
        return 600;
    size_t at = marker + LIMIT.size() + 1;
    while (at < head.size() && (head[at] == ' ' || (head[at] >= '\t' && head[at] <= '\r')))
        ++at;
    bool negative = false;
    if (at < head.size() && (head[at] == '+' || head[at] == '-'))
        negative = head[at++] == '-';
    long value = 0;
    for (; at < head.size() && head[at] >= '0' && head[at] <= '9' && value <= 14400; ++at)
        value = 10 * value + (head[at] - '0');
    return negative || value < 1 || value > 14400 ? 600 : value;
}

Json::Value job_of(std::string_view script) {
    Json::Value job;
    job[KEY_JOB_ID] = "77";
    job[KEY_ACTION] = ACTION_CMD;
    job[KEY_VALUE] = "SCRIPT";
    job[KEY_PARAMS][PARAM_SCRIPT] = Json::Value(script.data(), script.data() + script.size());
    return job;
}

void judge_file(std::string_view script) {
    if (fuzz::shell().script_text != PREAMBLE + std::string(script))
        fuzz::broken("the script's file is not its preamble and its text");
}

// A critical script stays where it is; another is gone when its run has been cleaned up.
void run(std::string_view script) {
    Json::Value job = job_of(script);
    const bool critical = check_cmd_job_priority_is_critical(job);
    if (critical != script.starts_with(CRITICAL))
        fuzz::broken("a script's priority");
    if (critical) {
        execute_critical_cmd_job(job);
        if (fuzz::shell().script_limit != 0)
            fuzz::broken("a critical script with a time limit");
        judge_file(script);
        return;
    }
    execute_action_cmd(job);
    if (fuzz::shell().script_limit != limit_in(script))
        fuzz::broken("a time limit of " + std::to_string(fuzz::shell().script_limit));
    judge_file(script);
    if (exists(fuzz::shell().script))
        fuzz::broken("a script that has ended lies there still");
}

} // namespace

int LLVMFuzzerInitialize(int *, char ***) {
    enter_private_root();
    agent();
    return 0;
}

// A zero byte ends the text, where the file is concerned: only what stands before it is played.
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string_view whole(reinterpret_cast<const char *>(data), size);
    const std::string_view script = whole.substr(0, whole.find('\0'));
    {
        const fuzz::execution one;
        agent().begin();
        fuzz::arrived().take_id("77");
        run(script);
        agent().end();
    }
    agent().restore();
    return 0;
}
