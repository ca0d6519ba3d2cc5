// What breaks by design, and is excused: in which scenarios, by which cuts, and with what outcome exactly.
#pragma once

#include "tests/sweep/crash.h"

#include <array>
#include <cstddef>
#include <string>

namespace sweep {

// The whole names of the scenarios. There is at least one: none, or an empty name, does not compile.
class scenario_names {
public:
    template <class... More>
    consteval scenario_names(const char *first, More... more)
        : names{first, more...}, count(1 + sizeof...(more)) {
        for (size_t i = 0; i < count; i++)
            if (*names[i] == '\0')
                throw "an exception names its scenario";
    }

    const char *const *begin() const { return names.data(); }
    const char *const *end() const { return names.data() + count; }
    bool has(const std::string &name) const;

private:
    static constexpr size_t MOST = 24;
    std::array<const char *, MOST> names;
    size_t count;
};

// The kinds of cut, at least one; restart::NONE is the run without any, restart::AGAIN any two.
class cut_kinds {
public:
    template <class... More>
    consteval cut_kinds(restart first, More... more) : bits(bit(first) | (0U | ... | bit(more))) {}

    constexpr bool has(restart kind) const { return (bits & bit(kind)) != 0; }

private:
    static constexpr unsigned bit(restart kind) { return 1U << static_cast<unsigned>(kind); }
    unsigned bits;
};

// Nothing of it can be left out.
struct known_exception {
    scenario_names scenarios;
    cut_kinds cuts;
    const char *invariant; // its name
    const char *outcome;   // the whole text of what broke, with the job that it is about
    const char *reason;

    known_exception(scenario_names in, cut_kinds by, const char *against, const char *what, const char *why)
        : scenarios(in), cuts(by), invariant(against), outcome(what), reason(why) {}
};

} // namespace sweep
