#include "tests/sweep/ledger.h"

#include "tests/fakes/clock.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace sweep {

namespace {

constexpr size_t CAPACITY = 32 << 20;
constexpr char END_OF_FIELD = '\x1f';
constexpr char END_OF_ENTRY = '\x1e';

struct shared_memory {
    ledger_mark stands;
    char text[CAPACITY]; // kind, time, what, text
};

shared_memory *shared = nullptr;

// What of the text has been read, by this process or by the one it was forked from.
struct {
    std::vector<entry> entries;
    std::vector<size_t> ends; // where each of them ends in the text
} known;

std::string_view next_field(std::string_view &rest, char end_mark) {
    const size_t end = rest.find(end_mark);
    const std::string_view field = rest.substr(0, end);
    rest = end == rest.npos ? std::string_view() : rest.substr(end + 1);
    return field;
}

entry parsed(std::string_view fields) {
    entry parts;
    parts.kind = static_cast<entry_kind>(next_field(fields, END_OF_FIELD)[0] - 'a');
    parts.at = std::strtoll(std::string(next_field(fields, END_OF_FIELD)).c_str(), nullptr, 10);
    parts.what = next_field(fields, END_OF_FIELD);
    parts.text = fields;
    return parts;
}

} // namespace

void open_ledger() {
    void *memory = mmap(nullptr, sizeof(shared_memory), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) {
        std::perror("the sweep's shared memory");
        std::exit(1);
    }
    shared = static_cast<shared_memory *>(memory);
}

void clear_ledger() {
    rewind_ledger({0, 0, 0, START_TIME});
}

void write_ledger(entry_kind kind, const std::string &what, const std::string &text) {
    std::string fields(1, static_cast<char>('a' + static_cast<int>(kind)));
    fields += END_OF_FIELD + std::to_string(fakes::now()) + END_OF_FIELD + what + END_OF_FIELD + text;
    fields += END_OF_ENTRY;
    size_t &used = shared->stands.used;
    if (used + fields.size() > CAPACITY) {
        std::fputs("the sweep's ledger is full\n", stderr);
        std::abort();
    }
    std::memcpy(shared->text + used, fields.data(), fields.size());
    used += fields.size();
    if (kind == entry_kind::CHANGE)
        shared->stands.changes++;
}

const std::vector<entry> &read_ledger() {
    size_t begin = known.ends.empty() ? 0 : known.ends.back();
    std::string_view rest(shared->text + begin, shared->stands.used - begin);
    while (!rest.empty()) {
        known.entries.push_back(parsed(next_field(rest, END_OF_ENTRY)));
        begin = shared->stands.used - rest.size();
        known.ends.push_back(begin);
    }
    return known.entries;
}

ledger_mark mark_ledger() {
    return shared->stands;
}

void rewind_ledger(const ledger_mark &mark) {
    shared->stands = mark;
    while (!known.ends.empty() && known.ends.back() > mark.used) {
        known.ends.pop_back();
        known.entries.pop_back();
    }
}

std::string line_of(const entry &entry) {
    static constexpr const char *NAMES[] = {"change", "stored",  "script",   "input",   "boot",   "end",
                                            "log",    "handled", "replaced", "written", "synced", "lost"};
    char head[64];
    std::snprintf(head, sizeof head, "%6lld s  %-9s", static_cast<long long>(entry.at - START_TIME),
                  NAMES[static_cast<int>(entry.kind)]);
    std::string line = head + entry.what + (entry.text.empty() ? "" : " " + entry.text);
    std::replace(line.begin(), line.end(), '\n', ' ');
    return line;
}

long changes_so_far() {
    return shared->stands.changes;
}

long count_place() {
    return ++shared->stands.places;
}

long places_so_far() {
    return shared->stands.places;
}

void keep_time(time_t now) {
    shared->stands.now = now;
}

time_t kept_time() {
    return shared->stands.now;
}

} // namespace sweep
