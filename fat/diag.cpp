// Diagnostics: the stream they go to and the shape of a line.

#include "fat/diag.h"

#include "fat/fat.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

// Until a program chooses a stream the answer is stderr, looked up at each call: stderr is no
// constant, and the library runs no code before main().
constinit bool stream_chosen = false;
constinit FILE *chosen_stream = nullptr;

// Living scopes in which nothing is reported.
constinit unsigned quiet_scopes = 0;

// Where reports are held at present; null: they are printed.
constinit fat::held_reports *holder = nullptr;

// Null: nothing is to be printed.
FILE *diagnostics() {
    return stream_chosen ? chosen_stream : stderr;
}

void hold(const char *format, va_list arguments) {
    const std::size_t room = sizeof holder->text - holder->length;
    const int length = std::vsnprintf(holder->text + holder->length, room, format, arguments);
    holder->length += std::min(static_cast<std::size_t>(std::max(length, 0)), room - 1);
}

void report(const char *format, va_list arguments) {
    if (quiet_scopes != 0) {
        return;
    }
    const int saved_errno = errno;
    if (holder != nullptr) {
        hold(format, arguments);
    } else if (FILE *stream = diagnostics(); stream != nullptr) {
        std::vfprintf(stream, format, arguments);
    }
    errno = saved_errno;
}

} // namespace

void fat_set_diagnostics(FILE *stream) {
    stream_chosen = true;
    chosen_stream = stream;
}

namespace fat {

void report_at(const char *function, int line, const char *format, ...) {
    report_bare("%s[%d]: ", function, line);
    va_list arguments;
    va_start(arguments, format);
    report(format, arguments);
    va_end(arguments);
}

void report_bare(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    report(format, arguments);
    va_end(arguments);
}

quiet_scope::quiet_scope() {
    quiet_scopes++;
}

quiet_scope::~quiet_scope() {
    quiet_scopes--;
}

holding_scope::holding_scope(held_reports *held) {
    holder = held;
}

holding_scope::~holding_scope() {
    holder = nullptr;
}

void report_held(held_reports *held) {
    report_bare("%s", held->text);
    *held = {};
}

void report_errno(const char *caption) {
    report_bare("%s: %s\n", caption, std::strerror(errno));
}

} // namespace fat
