// A progress bar with rate and remaining time on standard error, if that is a terminal.

#pragma once

#include "core/bytes.h"

#include <chrono>
#include <string>

namespace qvol {

class progress {
public:
    // `total` in bytes; 0: no bar.
    progress(std::string label, core::u64 total, bool is_quiet);
    ~progress();
    progress(const progress &) = delete;
    progress &operator=(const progress &) = delete;

    void add(core::u64 bytes);

private:
    using clock = std::chrono::steady_clock;

    void draw(clock::time_point now);

    std::string label_;
    core::u64 total_;
    core::u64 done_ = 0;
    bool is_shown_;
    bool is_drawn_ = false;
    clock::time_point begin_ = clock::now();
    clock::time_point drawn_at_;
};

// The text of the bar. A pure function, for tests.
[[nodiscard]] std::string progress_text(const std::string &label, core::u64 done, core::u64 total,
                                        double seconds);

} // namespace qvol
