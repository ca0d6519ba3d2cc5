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

struct shared_memory {
    size_t used;
    long changes;
    time_t now;
    char text[CAPACITY]; // kind, time, what, text: tab-separated, one line each
};

shared_memory *shared = nullptr;

// On one line. JSON stays what it is: a line end stands only between its tokens.
std::string on_one_line(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == '\n' || c == '\t'; }, ' ');
    return text;
}

std::string_view next_field(std::string_view &line) {
    const size_t end = line.find('\t');
    const std::string_view field = line.substr(0, end);
    line = end == line.npos ? std::string_view() : line.substr(end + 1);
    return field;
}

entry parsed(std::string_view line) {
    entry parts;
    parts.kind = static_cast<entry_kind>(next_field(line)[0] - 'a');
    parts.at = std::strtoll(std::string(next_field(line)).c_str(), nullptr, 10);
    parts.what = next_field(line);
    parts.text = line;
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
    shared->used = 0;
    shared->changes = 0;
    shared->now = START_TIME;
}

void write_ledger(entry_kind kind, const std::string &what, const std::string &text) {
    std::string line(1, static_cast<char>('a' + static_cast<int>(kind)));
    line += '\t' + std::to_string(fakes::now()) + '\t' + on_one_line(what) + '\t' + on_one_line(text) + '\n';
    if (shared->used + line.size() > CAPACITY) {
        std::fputs("the sweep's ledger is full\n", stderr);
        std::abort();
    }
    std::memcpy(shared->text + shared->used, line.data(), line.size());
    shared->used += line.size();
    if (kind == entry_kind::CHANGE)
        shared->changes++;
}

std::vector<entry> read_ledger() {
    std::vector<entry> entries;
    std::string_view rest(shared->text, shared->used);
    while (!rest.empty()) {
        const size_t end = rest.find('\n');
        entries.push_back(parsed(rest.substr(0, end)));
        rest = rest.substr(end + 1);
    }
    return entries;
}

namespace {

struct saved_ledger {
    std::string text;
    long changes = 0;
    time_t now = 0;
} saved;

} // namespace

void save_ledger() {
    saved = {std::string(shared->text, shared->used), shared->changes, shared->now};
}

void restore_ledger() {
    std::memcpy(shared->text, saved.text.data(), saved.text.size());
    shared->used = saved.text.size();
    shared->changes = saved.changes;
    shared->now = saved.now;
}

std::string line_of(const entry &entry) {
    static constexpr const char *NAMES[] = {"change", "stored", "script", "input",
                                            "boot",   "end",    "log",    "synced"};
    char head[64];
    std::snprintf(head, sizeof head, "%6lld s  %-7s", static_cast<long long>(entry.at - START_TIME),
                  NAMES[static_cast<int>(entry.kind)]);
    return std::string(head) + entry.what + (entry.text.empty() ? "" : " " + entry.text);
}

long changes_so_far() {
    return shared->changes;
}

void keep_time(time_t now) {
    shared->now = now;
}

time_t kept_time() {
    return shared->now;
}

} // namespace sweep
