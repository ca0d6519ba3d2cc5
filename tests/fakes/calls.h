// The call journal of the fakes, and the answers that a test sets for them.
//
// Every fake function writes one entry, in the order of the calls on all threads. What changes
// something outside the process (a publish, a file, a command, a value of the system database, a
// reboot) is a CHANGE; a sleep is a PAUSE, a line of syslog a LOG, everything else a QUERY.
#pragma once

#include <functional>
#include <initializer_list>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace fakes {

enum class call_kind { CHANGE, PAUSE, LOG, QUERY };

struct call {
    call_kind kind;
    std::string function; // the platform's name: "send_message", "write_json_file", "orvsys", "sleep"
    std::string text;     // its arguments as text, see the function's fake
};

// --- For tests that set answers.

// The next calls of a function return these values, one a call, without doing anything else; after
// them it works again. For every function that returns int: will_return("copy_file", {-1}).
void will_return(const std::string &function, std::initializer_list<int> results);

// Every call whose arguments contain the text returns this value without doing anything else, until
// the test ends: always_returns("write_json_file", -1, "/var/data/").
void always_returns(const std::string &function, int result, const std::string &containing = "");

// --- For the fakes themselves.

// Held by each fake function while it touches the state of the fakes, but not during change().
std::unique_lock<std::recursive_mutex> hold();

// Called before every CHANGE, with the entry about to be written and no lock held. The sweep ends the
// process or holds up the thread here.
extern std::function<void(const call &)> before_change;

void record(call_kind kind, const std::string &function, const std::string &text);

// record() with CHANGE, after before_change.
void change(const std::string &function, const std::string &text);

// What the test has set for this call, if anything. Takes a queued value off its queue.
std::optional<int> set_answer(const std::string &function, const std::string &text);

void reset_calls();

} // namespace fakes

// --- For tests that read: "function text", in order.

// All changes and pauses: EXPECT_THAT(calls(), ListIs("delete_file /tmp/x", "sleep 2")).
std::vector<std::string> calls();

// Only those of the named functions, of any kind: calls_of({"send_message", "syslog"}). The text of
// a syslog entry is the log line alone.
std::vector<std::string> calls_of(std::initializer_list<const char *> functions);

// Everything, with kinds.
std::vector<fakes::call> all_calls();

// Another thread could lock it now: in before_change, whether a step runs with a mutex held.
bool free_for_another_thread(std::mutex &mutex);
