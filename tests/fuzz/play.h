// An agent on a device of fakes, played with by a list of orders.
//
// The text of an input is a list of orders, one a line, each beginning with an @ at the begin of its line:
//
//   @topic TOPIC     delivers a message; its payload is what follows, up to the next order
//   @pass [N]        N passes of the job manager (1), three seconds apart
//   @wait N          N seconds pass
//   @count           the main loop counts the active jobs
//   @boot            the power fails, the agent starts anew and runs for ten seconds
//   @status N        the exit status of scripts and firmware tools from now on
//   @fail FUNCTION   a function of the platform fails from now on: ping_test, write_json_file, system, ...
//   @work            all of them work again
//   @device N        the device's type
//   @file NAME       puts a file there, with what follows as its content: NAME is one of orders.cpp's table
//
// In payloads and contents $SESSION is the session of the latest report, $NOW the time. What follows the first order
// that is none, or the fortieth, is not looked at.
//
// After each order the agent must be at rest: no exception has come out of it, no mutex is held, no mark of a running
// job stands, and a job has left the active ones only into the archive, or by an order to clear.
#pragma once

#include "agent/client/tessard.h"
#include "tests/fuzz/ground.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

class play {
public:
    play();

    // Inside an execution. Puts the device back to one never used.
    void begin();
    void end();
    // Outside: judges the files that were left, and restores the ground.
    void restore();

    // Every job file is one JSON object and is named by its id.
    void judge_jobs() const;

    void obey(std::string_view orders);

    void deliver(const std::string &topic, const std::string &payload);
    void pass();
    void wait(time_t seconds);
    void count_jobs();
    void boot();

    // A text with its $SESSION and $NOW filled in.
    std::string filled(std::string_view text) const;

private:
    void obey_one(std::string_view name, std::string_view argument, std::string_view rest);
    void put_file(std::string_view name, const std::string &content);
    void start_agent();
    // Runs a deed of the agent and judges it, and boots when it has rebooted the device.
    template <typename deed> void act(const char *what, deed what_is_done);
    void judge_rest(const std::vector<std::string> &active_before, bool may_clear);

    ground files;
    std::optional<tessard> client;
    int boots = 0;
    bool clears = false; // the order that is obeyed may clear jobs
    bool over = false;   // an order that is none, too many boots, or the time is up
};

} // namespace fuzz
