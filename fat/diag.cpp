// Diagnostics: the stream they go to and the shape of a line.

#include "fat/diag.h"

#include "fat/fat.h"

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

// Null: nothing is to be reported.
FILE *diagnostics() {
    if (quiet_scopes != 0) {
        return nullptr;
    }
    return stream_chosen ? chosen_stream : stderr;
}

} // namespace

void fat_set_diagnostics(FILE *stream) {
    stream_chosen = true;
    chosen_stream = stream;
}

namespace fat {

void report_at(const char *function, int line, const char *format, ...) {
    FILE *stream = diagnostics();
    if (stream == nullptr) {
        return;
    }
    const int saved_errno = errno;
    va_list arguments;
    va_start(arguments, format);
    std::fprintf(stream, "%s[%d]: ", function, line);
    std::vfprintf(stream, format, arguments);
    va_end(arguments);
    errno = saved_errno;
}

void report_bare(const char *format, ...) {
    FILE *stream = diagnostics();
    if (stream == nullptr) {
        return;
    }
    const int saved_errno = errno;
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stream, format, arguments);
    va_end(arguments);
    errno = saved_errno;
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
