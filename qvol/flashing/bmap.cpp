#include "qvol/flashing/bmap.h"

#include "qvol/error.h"
#include "qvol/flashing/block_map.h"
#include "qvol/names.h"
#include "qvol/raw_copy.h"
#include "qvol/sha256.h"

#include <algorithm>

#include <fmt/core.h>

namespace qvol {

namespace {

// ---- writing ----------------------------------------------------------------------------------

std::string digest_of_range(const finished_image &image, const byte_range &range, progress *bar) {
    sha256 hash;
    std::vector<u8> buffer(FLASH_PIECE_BYTES);
    for (u64 done = 0; done < range.bytes;) {
        const auto size =
            static_cast<std::size_t>(std::min<u64>(buffer.size(), range.bytes - done));
        const std::span<u8> piece = std::span(buffer).first(size);
        read_bytes(image.where, range.offset + done, piece);
        hash.add(piece);
        bar->add(size);
        done += size;
    }
    return hash.take_digest();
}

// ---- reading ----------------------------------------------------------------------------------

// The bytes of a stream at ascending positions; zeros between its ranges and after them.
class flat_image {
public:
    explicit flat_image(std::unique_ptr<image_stream> image)
        : image_(std::move(image)), range_(image_->next_range()) {}

    [[nodiscard]] std::optional<u64> size() const {
        return image_->size();
    }

    void read(u64 offset, std::span<u8> bytes) {
        while (!bytes.empty()) {
            leave_ranges_before(offset);
            std::size_t count = 0;
            if (!range_ || range_->offset > offset) {
                const u64 gap = range_ ? range_->offset - offset : bytes.size();
                count = static_cast<std::size_t>(std::min<u64>(gap, bytes.size()));
                std::fill_n(bytes.begin(), count, u8{0});
            } else {
                skip_to(offset);
                count = static_cast<std::size_t>(std::min<u64>(range_->bytes, bytes.size()));
                take(bytes.first(count));
            }
            offset += count;
            bytes = bytes.subspan(count);
        }
    }

    // Reads the rest: only then the image is known to be whole.
    void finish() {
        while (range_) {
            leave_ranges_before(range_->end());
        }
    }

private:
    // `range_` is the part that has not been read of the range of the image.
    void take(std::span<u8> bytes) {
        image_->read(bytes);
        range_ = {range_->offset + bytes.size(), range_->bytes - bytes.size()};
    }

    void skip_to(u64 offset) {
        while (range_->offset < offset) {
            skipped_.resize(static_cast<std::size_t>(
                std::min<u64>(FLASH_PIECE_BYTES, offset - range_->offset)));
            take(skipped_);
        }
    }

    void leave_ranges_before(u64 offset) {
        while (range_ && range_->end() <= offset) {
            skip_to(range_->end());
            range_ = image_->next_range();
        }
    }

    std::unique_ptr<image_stream> image_;
    std::optional<byte_range> range_;
    std::vector<u8> skipped_;
};

class mapped_image : public image_stream {
public:
    mapped_image(std::unique_ptr<image_stream> image, std::string path)
        : path_(std::move(path)), map_(read_block_map(path_)), image_(std::move(image)) {
        if (image_.size().value_or(map_.image_bytes) != map_.image_bytes) {
            throw error(fmt::format("{} is the map of another image: of {} bytes instead of {}",
                                    shown_bytes(path_), map_.image_bytes, *image_.size()));
        }
    }

    [[nodiscard]] std::optional<u64> size() const override {
        return map_.image_bytes;
    }

    [[nodiscard]] std::optional<byte_range> next_range() override {
        if (next_ == map_.ranges.size()) {
            image_.finish();
            return std::nullopt;
        }
        const mapped_range &range = map_.ranges[next_++];
        left_ = range.at;
        return range.at;
    }

    void read(std::span<u8> bytes) override {
        image_.read(left_.offset, bytes);
        hash_.add(bytes);
        left_ = {left_.offset + bytes.size(), left_.bytes - bytes.size()};
        if (left_.bytes == 0 && hash_.take_digest() != map_.ranges[next_ - 1].digest) {
            const byte_range &at = map_.ranges[next_ - 1].at;
            throw error(fmt::format("the image differs from {}: wrong checksum of bytes {} to {}",
                                    shown_bytes(path_), at.offset, at.end() - 1));
        }
    }

private:
    std::string path_; // of the map
    block_map map_;
    flat_image image_;
    std::size_t next_ = 0; // range
    byte_range left_{};    // of the range before
    sha256 hash_;
};

} // namespace

void write_bmap(const finished_image &image, output_file *to, progress *bar) {
    block_map map = {image.size(), FLASH_BLOCK_BYTES, {}};
    for (const byte_range &range : image.needed) {
        map.ranges.push_back({range, digest_of_range(image, range, bar)});
    }
    to->append(text_of_block_map(map));
}

std::unique_ptr<image_stream> open_mapped_image(std::unique_ptr<image_stream> image,
                                                const std::string &path) {
    return std::make_unique<mapped_image>(std::move(image), path);
}

} // namespace qvol
