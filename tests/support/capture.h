// What the code under test prints.

#pragma once

#include "fat/fat.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include <unistd.h>

namespace testing_support {

// Collects the library's diagnostics for its lifetime, then gives standard error back.
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

    // The same with every source line number replaced by N: "fat_format[N]: ...".
    std::string text() {
        const std::string printed = raw();
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

// Collects what reaches descriptor 1 for its lifetime.
class standard_output {
public:
    standard_output() : file_(std::tmpfile()) {
        std::fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        dup2(fileno(file_), STDOUT_FILENO);
    }
    standard_output(const standard_output &) = delete;
    standard_output &operator=(const standard_output &) = delete;
    ~standard_output() {
        std::fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        std::fclose(file_);
    }

    std::string text() {
        std::fflush(stdout);
        std::string result;
        std::rewind(file_);
        char block[4096];
        for (std::size_t n = std::fread(block, 1, sizeof block, file_); n > 0;
             n = std::fread(block, 1, sizeof block, file_)) {
            result.append(block, n);
        }
        return result;
    }

private:
    FILE *file_;
    int saved_ = -1;
};

} // namespace testing_support
