// request: hands a candidate to the agent.
#include "host/cmd/config_copies.h"
#include "host/cmd/fault.h"
#include "host/cmd/paths.h"
#include "host/cmd/vtrcfg/commands.h"
#include "host/cmd/vtrcfg/documents.h"
#include "host/cmd/vtrcfg/progress.h"
#include "host/cmd/vtrcfg/publish.h"

#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <algorithm>
#include <iostream>

namespace vtrcfg {
namespace {

constexpr char TOPIC[] = "v1/device/cmd/config/apply";
constexpr char PAYLOAD[] = R"({"source":"vtrcfg"})";
constexpr int LONGEST_START = 30; // seconds

std::string reason_to_wait() {
    if (file_exists(conf::FAILSAFE_TIMER))
        return "a configuration is being verified";
    if (has_candidate())
        return "another candidate waits for its apply ('vtrcfg discard' forgets one whose request was lost)";
    if (apply_is_marked())
        return "a configuration is being applied ('vtrcfg discard' forgets a request that was lost)";
    return "";
}

bool tell_faults(const std::string &file) {
    const auto faults = conf::configuration_faults(file.c_str());
    for (const conf::fault &one : faults)
        std::cerr << conf::to_text(one) << "\n";
    return !faults.empty();
}

// Until the agent itself has marked that the request is queued: others subscribe the topic as well, so what the
// broker says of its subscribers tells nothing. An agent that is just starting finds the request at the broker. One
// that runs a job may handle no message before the job has ended.
bool agent_takes_it(progress &shown, int seconds) {
    if (shown.waits_for_the_queue(std::min(seconds, LONGEST_START)))
        return true;
    return iot_job_in_progress() && shown.waits_for_the_queue(seconds - LONGEST_START);
}

void place_candidate(const Json::Value &candidate, progress &shown, int seconds) {
    if (write_json_file(conf::NEW_CONFIG, candidate) != 0)
        throw trouble(std::string(conf::NEW_CONFIG) + " cannot be written");
    const bool sent = publish(TOPIC, PAYLOAD, std::min(seconds, LONGEST_START));
    if (sent && agent_takes_it(shown, seconds))
        return;
    delete_file(conf::NEW_CONFIG); // a late agent finds nothing to apply
    if (!sent)
        throw trouble("the broker on this router does not take the request");
    throw trouble(iot_job_in_progress() ? "the agent is busy and does not take the request"
                                        : "the agent does not take the request");
}

bool is_committed(const std::string &wanted) {
    Json::Value stored;
    return conf::read_config(conf::STORED_CONFIG, stored) == 0 && config_hash(stored) == wanted;
}

// What runs, and what will run after the next boot.
int tell_end(const std::string &wanted, const char *success) {
    const bool runs = current_config_hash() == wanted;
    const bool committed = is_committed(wanted);
    if (runs && committed) {
        std::cout << success << "\n";
        return YES;
    }
    if (runs)
        std::cerr
            << "vtrcfg: the configuration runs, but it is not committed: the next boot brings the former "
               "one back\n";
    else if (committed)
        std::cerr << "vtrcfg: the configuration does not run, but the next boot takes it\n";
    else
        std::cerr << "vtrcfg: the configuration does not run\n";
    return NO;
}

} // namespace

int request(const request_options &options) {
    const bool is_edited = options.file.empty();
    if (is_edited && !has_edited())
        throw trouble("nothing was edited; 'vtrcfg set' does, or name a file");
    const std::string file = is_edited ? conf::EDITED_CONFIG : options.file;
    const Json::Value candidate = read_document(file);
    const std::string wanted = config_hash(candidate);
    if (const std::string reason = reason_to_wait(); !reason.empty())
        throw trouble(reason);
    if (wanted == current_config_hash())
        return tell_end(wanted, "this is the running configuration already");
    if (const std::string stale = is_edited ? edited_is_stale() : ""; !stale.empty())
        throw trouble(stale);
    if (options.validate && tell_faults(file))
        return NO;

    progress shown;
    place_candidate(candidate, shown, options.wait_seconds);
    if (!options.wait) {
        std::cout << "requested\n";
        return YES;
    }
    if (!shown.follow_to_the_end(options.wait_seconds))
        throw trouble("the apply has not ended in time; 'vtrcfg status' tells how it goes on");
    const int result = tell_end(wanted, "the configuration runs");
    if (is_edited && result == YES)
        forget_edited();
    return result;
}

} // namespace vtrcfg
