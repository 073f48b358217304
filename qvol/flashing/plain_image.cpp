#include "qvol/flashing/plain_image.h"

#include "qvol/error.h"
#include "qvol/flashing/finished_image.h"
#include "qvol/flashing/plain_ranges.h"
#include "qvol/names.h"

#include <algorithm>

#include <fmt/core.h>

namespace qvol {

namespace {

// Also of standard input, which may be a file.
std::string path_of(const image_input &input) {
    return fmt::format("/proc/self/fd/{}", input.descriptor());
}

class file_image : public image_stream {
public:
    explicit file_image(std::unique_ptr<image_input> input)
        : input_(std::move(input)), ranges_(ranges_of_image(path_of(*input_))) {}

    [[nodiscard]] std::optional<u64> size() const override {
        return input_->size();
    }

    [[nodiscard]] std::optional<byte_range> next_range() override {
        if (next_ == ranges_.size()) {
            return std::nullopt;
        }
        at_ = ranges_[next_].offset;
        return ranges_[next_++];
    }

    void read(std::span<u8> bytes) override {
        if (!input_->read_at(at_, bytes)) {
            throw error("cannot read " + shown_bytes(input_->path()));
        }
        at_ += bytes.size();
    }

private:
    std::unique_ptr<image_input> input_;
    std::vector<byte_range> ranges_;
    std::size_t next_ = 0; // range
    u64 at_ = 0;           // of the next byte to read
};

class pipe_image : public image_stream {
public:
    explicit pipe_image(std::unique_ptr<image_input> input)
        : input_(std::move(input)), piece_(FLASH_PIECE_BYTES) {}

    [[nodiscard]] std::optional<u64> size() const override {
        return std::nullopt;
    }

    // As much as has come.
    [[nodiscard]] std::optional<byte_range> next_range() override {
        const u64 offset = offset_;
        const std::size_t count = fill_piece();
        offset_ += count;
        at_ = 0;
        return count != 0 ? std::optional(byte_range{offset, count}) : std::nullopt;
    }

    void read(std::span<u8> bytes) override {
        std::copy_n(piece_.begin() + static_cast<std::ptrdiff_t>(at_), bytes.size(), bytes.begin());
        at_ += bytes.size();
    }

private:
    [[nodiscard]] std::size_t fill_piece() {
        std::size_t present = 0;
        for (std::size_t more = 1; more != 0 && present < piece_.size(); present += more) {
            more = input_->read_some(std::span(piece_).subspan(present));
        }
        return present;
    }

    std::unique_ptr<image_input> input_;
    std::vector<u8> piece_;
    std::size_t at_ = 0; // of the next byte to read
    u64 offset_ = 0;     // of the next piece
};

} // namespace

std::unique_ptr<image_stream> open_plain_image(std::unique_ptr<image_input> input) {
    if (input->size() == 0) {
        throw error(shown_bytes(input->path()) + " is empty");
    }
    if (input->size()) {
        return std::make_unique<file_image>(std::move(input));
    }
    return std::make_unique<pipe_image>(std::move(input));
}

} // namespace qvol
