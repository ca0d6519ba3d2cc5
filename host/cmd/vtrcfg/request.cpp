// request: hands a candidate to the agent.
#include "host/cmd/fault.h"
#include "host/cmd/paths.h"
#include "host/cmd/vtrcfg/commands.h"
#include "host/cmd/vtrcfg/documents.h"
#include "host/cmd/vtrcfg/progress.h"
#include "host/cmd/vtrcfg/publish.h"

#include "platform/cmd.h"
#include "platform/vantrel.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <thread>

namespace vtrcfg {
namespace {

constexpr char TOPIC[] = "v1/device/cmd/config/apply";
constexpr char PAYLOAD[] = R"({"source":"vtrcfg"})";
constexpr int LONGEST_START = 30; // seconds

// The agent subscribes a moment after its start, and no message waits for it.
delivery send_request(int seconds) {
    const auto limit =
        std::chrono::steady_clock::now() + std::chrono::seconds(std::min(seconds, LONGEST_START));
    delivery result = publish(TOPIC, PAYLOAD);
    while (result == delivery::nobody && std::chrono::steady_clock::now() < limit) {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        result = publish(TOPIC, PAYLOAD);
    }
    return result;
}

std::string reason_to_wait() {
    if (file_exists(conf::FAILSAFE_TIMER))
        return "a configuration is being verified";
    if (file_exists(conf::NEW_CONFIG) || file_exists(conf::STORED_NEW_CONFIG))
        return "another candidate waits for its apply";
    return "";
}

bool tell_faults(const std::string &file) {
    const auto faults = conf::configuration_faults(file.c_str());
    for (const conf::fault &one : faults)
        std::cerr << conf::to_text(one) << "\n";
    return !faults.empty();
}

void place_candidate(const Json::Value &candidate, int seconds) {
    if (write_json_file(conf::NEW_CONFIG, candidate) != 0)
        throw trouble(std::string(conf::NEW_CONFIG) + " cannot be written");
    const delivery result = send_request(seconds);
    if (result == delivery::taken)
        return;
    delete_file(conf::NEW_CONFIG);
    throw trouble(result == delivery::nobody ? "the agent does not listen"
                                             : "the broker on this router does not take the request");
}

int tell_end(const std::string &wanted, bool is_edited) {
    if (current_config_hash() != wanted) {
        std::cerr << "vtrcfg: the configuration does not run\n";
        return NO;
    }
    std::cout << "the configuration runs\n";
    if (is_edited)
        forget_edited();
    return YES;
}

} // namespace

int request(const request_options &options) {
    const bool is_edited = options.file.empty();
    if (is_edited && !has_edited())
        throw trouble("nothing was edited; 'vtrcfg set' does, or name a file");
    const std::string file = is_edited ? conf::EDITED_CONFIG : options.file;
    const Json::Value candidate = read_document(file);
    const std::string wanted = config_hash(candidate);
    if (wanted == current_config_hash()) {
        std::cout << "this is the running configuration already\n";
        return YES;
    }
    if (const std::string stale = is_edited ? edited_is_stale() : ""; !stale.empty())
        throw trouble(stale);
    if (const std::string reason = reason_to_wait(); !reason.empty())
        throw trouble(reason);
    if (options.validate && tell_faults(file))
        return NO;

    progress shown;
    place_candidate(candidate, options.wait_seconds);
    if (!options.wait) {
        std::cout << "requested\n";
        return YES;
    }
    if (!shown.follow_to_the_end(options.wait_seconds))
        throw trouble("the apply has not ended in time; 'vtrcfg status' tells how it goes on");
    return tell_end(wanted, is_edited);
}

} // namespace vtrcfg
