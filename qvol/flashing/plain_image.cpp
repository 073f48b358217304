#include "qvol/flashing/plain_image.h"

#include "qvol/error.h"
#include "qvol/flashing/finished_image.h"
#include "qvol/names.h"

#include <algorithm>

#include <unistd.h>

namespace qvol {

namespace {

class file_image : public image_stream {
public:
    explicit file_image(std::unique_ptr<image_input> input)
        : input_(std::move(input)), size_(input_->size().value()) {}

    [[nodiscard]] std::optional<u64> size() const override {
        return size_;
    }

    [[nodiscard]] std::optional<byte_range> next_range() override {
        at_ = border(end_, SEEK_DATA, end_);
        end_ = border(at_, SEEK_HOLE, size_);
        return at_ < end_ ? std::optional(byte_range{at_, end_ - at_}) : std::nullopt;
    }

    void read(std::span<u8> bytes) override {
        if (!input_->read_at(at_, bytes)) {
            throw error("cannot read " + shown_bytes(input_->path()));
        }
        at_ += bytes.size();
    }

private:
    // `otherwise`: where the file system knows no holes.
    [[nodiscard]] u64 border(u64 offset, int whence, u64 otherwise) const {
        const off_t found = lseek(input_->descriptor(), static_cast<off_t>(offset), whence);
        if (found >= 0) {
            return std::min(static_cast<u64>(found), size_);
        }
        return errno == ENXIO ? size_ : otherwise;
    }

    std::unique_ptr<image_input> input_;
    u64 size_;
    u64 at_ = 0;  // of the next byte to read
    u64 end_ = 0; // of the range
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
    if (input->size()) {
        return std::make_unique<file_image>(std::move(input));
    }
    return std::make_unique<pipe_image>(std::move(input));
}

} // namespace qvol
