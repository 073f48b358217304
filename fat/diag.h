// Diagnostics: the one place from which the library speaks to a person.

#pragma once

#include <cstddef>

namespace fat {

// Prints "FUNCTION[LINE]: " and the message to the diagnostics stream. errno is left as it was.
[[gnu::format(printf, 3, 4)]] void report_at(const char *function, int line, const char *format,
                                             ...);

// Prints the message alone.
[[gnu::format(printf, 1, 2)]] void report_bare(const char *format, ...);

// Prints the caption and the system's text for errno: "caption: text".
void report_errno(const char *caption);

// While one lives, nothing is reported: for calls that only look.
class quiet_scope {
public:
    quiet_scope();
    quiet_scope(const quiet_scope &) = delete;
    quiet_scope &operator=(const quiet_scope &) = delete;
    ~quiet_scope();
};

// What a call said that was made before its turn. What does not fit is cut.
struct held_reports {
    char text[512] = {};
    std::size_t length = 0;
};

// While one lives, what is reported is added to `held` instead of being printed.
class holding_scope {
public:
    explicit holding_scope(held_reports *held);
    holding_scope(const holding_scope &) = delete;
    holding_scope &operator=(const holding_scope &) = delete;
    ~holding_scope();
};

// Prints what was held, now that its turn has come.
void report_held(held_reports *held);

} // namespace fat

// Reports in the name of the function that stands around it. A helper that speaks for its caller
// uses report_at() with the caller's name instead.
#define REPORT(...) ::fat::report_at(__func__, __LINE__, __VA_ARGS__)
