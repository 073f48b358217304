// Diagnostics: messages for a person, on one stream.

#pragma once

namespace fat {

// Prints "FUNCTION[LINE]: " and the message to the diagnostics stream. Does not change errno.
[[gnu::format(printf, 3, 4)]] void report_at(const char *function, int line, const char *format,
                                             ...);

// Prints the message without a prefix.
[[gnu::format(printf, 1, 2)]] void report_bare(const char *format, ...);

// Prints the caption and the system's text for errno: "caption: text".
void report_errno(const char *caption);

// Suppresses all reports during its lifetime.
class quiet_scope {
public:
    quiet_scope();
    quiet_scope(const quiet_scope &) = delete;
    quiet_scope &operator=(const quiet_scope &) = delete;
    ~quiet_scope();
};

} // namespace fat

// Reports in the name of the enclosing function. A helper that reports for its caller uses
// report_at() with the name of that caller instead.
#define REPORT(...) ::fat::report_at(__func__, __LINE__, __VA_ARGS__)
