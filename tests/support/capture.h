// Captures the output of the code under test.

#pragma once

#include "fat/fat.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

namespace testing_support {

// The text with every source line number replaced by N: "fat_format[N]: ...".
inline std::string without_line_numbers(const std::string &printed) {
    std::string result;
    for (std::size_t i = 0; i < printed.size(); i++) {
        result += printed[i];
        const std::size_t close = printed[i] == '[' ? printed.find(']', i) : std::string::npos;
        if (close == std::string::npos || close == i + 1 ||
            printed.find_first_not_of("0123456789", i + 1) != close ||
            printed.compare(close, 3, "]: ") != 0) {
            continue;
        }
        result += 'N';
        i = close - 1;
    }
    return result;
}

// A stream into memory, for a printer.
class memory_stream {
public:
    memory_stream() : stream_(open_memstream(&text_, &size_)) {}
    memory_stream(const memory_stream &) = delete;
    memory_stream &operator=(const memory_stream &) = delete;
    ~memory_stream() {
        std::fclose(stream_);
        std::free(text_);
    }

    [[nodiscard]] FILE *get() {
        return stream_;
    }
    // Everything printed so far.
    [[nodiscard]] std::string text() {
        std::fflush(stream_);
        return {text_, size_};
    }

private:
    char *text_ = nullptr;
    std::size_t size_ = 0;
    FILE *stream_;
};

// Collects the library's diagnostics for its lifetime, then restores standard error.
class diagnostics {
public:
    diagnostics() : stream_(open_memstream(&text_, &size_)) {
        fat_set_diagnostics(stream_);
    }
    diagnostics(const diagnostics &) = delete;
    diagnostics &operator=(const diagnostics &) = delete;
    ~diagnostics() {
        fat_set_diagnostics(stderr);
        std::fclose(stream_);
        std::free(text_);
    }

    // Everything printed so far, as it was printed.
    std::string raw() {
        std::fflush(stream_);
        return {text_, size_};
    }

    // The same without its source line numbers.
    std::string text() {
        return without_line_numbers(raw());
    }

    void clear() {
        std::fflush(stream_);
        std::rewind(stream_);
        std::fflush(stream_);
    }

private:
    char *text_ = nullptr;
    std::size_t size_ = 0;
    FILE *stream_;
};

// Collects the output to a descriptor for its lifetime, or until stop(); use standard_output or
// standard_error. Also swallows GoogleTest's own output to standard output in that time.
class descriptor_capture {
public:
    descriptor_capture(const descriptor_capture &) = delete;
    descriptor_capture &operator=(const descriptor_capture &) = delete;

    std::string text() {
        std::fflush(stream_);
        std::string result;
        std::rewind(file_);
        char block[4096];
        for (std::size_t n = std::fread(block, 1, sizeof block, file_); n > 0;
             n = std::fread(block, 1, sizeof block, file_)) {
            result.append(block, n);
        }
        return result;
    }

    // Restores the descriptor and returns the collected output.
    std::string stop() {
        const std::string result = text();
        give_back();
        return result;
    }

protected:
    descriptor_capture(FILE *stream, int fd) : stream_(stream), fd_(fd), file_(std::tmpfile()) {
        std::fflush(stream_);
        saved_ = dup(fd_);
        dup2(fileno(file_), fd_);
    }
    ~descriptor_capture() {
        give_back();
    }

private:
    void give_back() {
        if (file_ == nullptr) {
            return;
        }
        std::fflush(stream_);
        dup2(saved_, fd_);
        close(saved_);
        std::fclose(file_);
        file_ = nullptr;
    }

    FILE *stream_;
    int fd_;
    FILE *file_;
    int saved_ = -1;
};

class standard_output : public descriptor_capture {
public:
    standard_output() : descriptor_capture(stdout, STDOUT_FILENO) {}
};

class standard_error : public descriptor_capture {
public:
    standard_error() : descriptor_capture(stderr, STDERR_FILENO) {}
};

} // namespace testing_support
