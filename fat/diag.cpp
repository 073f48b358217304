// Diagnostics: their stream and the format of a line.

#include "fat/diag.h"

#include "fat/fat.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

// Before a program chooses a stream, stderr is looked up at each call: stderr is not a constant,
// and the library runs no code before main().
constinit bool stream_chosen = false;
constinit FILE *chosen_stream = nullptr;

// Number of quiet_scope objects alive.
constinit unsigned quiet_scopes = 0;

// Null: nothing is printed.
FILE *diagnostics() {
    return stream_chosen ? chosen_stream : stderr;
}

void report(const char *format, va_list arguments) {
    if (quiet_scopes != 0) {
        return;
    }
    const int saved_errno = errno;
    if (FILE *stream = diagnostics(); stream != nullptr) {
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

void report_errno(const char *caption) {
    report_bare("%s: %s\n", caption, std::strerror(errno));
}

} // namespace fat
