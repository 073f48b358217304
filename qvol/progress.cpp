#include "qvol/progress.h"

#include "qvol/output.h"

#include <cstdio>
#include <utility>

#include <fmt/core.h>
#include <unistd.h>

namespace qvol {

namespace {

constexpr auto INTERVAL = std::chrono::milliseconds(100);
constexpr u64 BAR_WIDTH = 30; // of the bar, in characters

} // namespace

std::string progress_text(const std::string &label, u64 done, u64 total, double seconds) {
    const double share = static_cast<double>(done) / static_cast<double>(total);
    const auto filled = static_cast<std::size_t>(share * static_cast<double>(BAR_WIDTH));
    const std::string bar = std::string(filled, '#') + std::string(BAR_WIDTH - filled, '.');
    const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
    const std::string left =
        rate > 0 ? fmt::format("{:.0f} s left", static_cast<double>(total - done) / rate) : "";
    return fmt::format("{} [{}] {:3.0f} % {}/s {}", label, bar, share * 100,
                       shown_size(static_cast<u64>(rate)), left);
}

progress::progress(std::string label, u64 total, bool is_quiet)
    : label_(std::move(label)), total_(total),
      is_shown_(!is_quiet && total != 0 && isatty(STDERR_FILENO) == 1) {}

progress::~progress() {
    if (is_drawn_) {
        std::fputs("\r\x1b[K", stderr);
    }
}

void progress::add(u64 bytes) {
    done_ = std::min(done_ + bytes, total_);
    const clock::time_point now = clock::now();
    if (is_shown_ && (!is_drawn_ || now - drawn_at_ >= INTERVAL)) {
        draw(now);
    }
}

void progress::draw(clock::time_point now) {
    const double seconds = std::chrono::duration<double>(now - begin_).count();
    write_error_text("\r\x1b[K" + progress_text(label_, done_, total_, seconds));
    std::fflush(stderr);
    drawn_at_ = now;
    is_drawn_ = true;
}

} // namespace qvol
