#include "qvol/flashing/zstd_image.h"

#include "qvol/error.h"
#include "qvol/names.h"
#include "qvol/raw_copy.h"

#include <algorithm>
#include <array>
#include <new>

#include <fmt/core.h>
#include <zstd.h>

namespace qvol {

namespace {

// The table of a seekable file, in a skippable frame: for each frame its compressed size and that
// of its content; then the number of frames, flags, and the number that ends the file.
constexpr u32 TABLE_FRAME_MAGIC = 0x184D2A5E;
constexpr u32 TABLE_END_MAGIC = 0x8F92EAB1;
constexpr std::size_t FRAME_HEADER_BYTES = 8; // number, size of the content
constexpr std::size_t ENTRY_BYTES = 8;
constexpr std::size_t TABLE_END_BYTES = 9;
constexpr u32 HAS_CHECKSUMS = 0x80; // a flag: 4 more bytes in each entry
constexpr u32 MAX_FRAMES = u32{1} << 27;

void append32(std::vector<u8> *bytes, u32 value) {
    std::array<u8, 4> stored{};
    core::store32(stored.data(), value);
    bytes->insert(bytes->end(), stored.begin(), stored.end());
}

// ---- writing ----------------------------------------------------------------------------------

struct free_compressor {
    void operator()(ZSTD_CCtx *context) const {
        ZSTD_freeCCtx(context);
    }
};

class zstd_writer {
public:
    zstd_writer(const finished_image &image, output_file *to, progress *bar)
        : image_(image), to_(*to), bar_(*bar), context_(ZSTD_createCCtx()),
          piece_(FLASH_PIECE_BYTES), frame_(ZSTD_compressBound(FLASH_PIECE_BYTES)) {
        if (context_ == nullptr) {
            throw std::bad_alloc();
        }
        if (image.size() / FLASH_PIECE_BYTES >= MAX_FRAMES) {
            throw error(
                fmt::format("{} bytes are too many for a seekable zstd file", image.size()));
        }
        // Readers verify the checksum of each frame.
        (void)ZSTD_CCtx_setParameter(context_.get(), ZSTD_c_checksumFlag, 1);
    }

    void run() {
        auto next = image_.needed.begin();
        for (u64 offset = 0; offset < image_.size(); offset += FLASH_PIECE_BYTES) {
            const u64 end = std::min(offset + FLASH_PIECE_BYTES, image_.size());
            const std::span<u8> piece =
                std::span(piece_).first(static_cast<std::size_t>(end - offset));
            while (next != image_.needed.end() && next->end() <= offset) {
                next++;
            }
            if (next == image_.needed.end() || next->offset >= end) {
                add_zeros(piece);
            } else {
                read_bytes(image_.where, offset, piece);
                add_frame(compressed(piece), piece.size());
            }
            bar_.add(piece.size());
        }
        add_table();
    }

private:
    [[nodiscard]] std::span<const u8> compressed(std::span<const u8> bytes) {
        const std::size_t size = ZSTD_compress2(context_.get(), frame_.data(), frame_.size(),
                                                bytes.data(), bytes.size());
        if (ZSTD_isError(size) != 0) {
            throw error(fmt::format("cannot compress to {}: {}", shown_bytes(to_.path()),
                                    ZSTD_getErrorName(size)));
        }
        return std::span(frame_).first(size);
    }

    // Most frames of a large image are equal: those of free space.
    void add_zeros(std::span<u8> piece) {
        if (piece.size() == FLASH_PIECE_BYTES && !zero_frame_.empty()) {
            add_frame(zero_frame_, piece.size());
            return;
        }
        std::fill(piece.begin(), piece.end(), u8{0});
        const std::span<const u8> frame = compressed(piece);
        if (piece.size() == FLASH_PIECE_BYTES) {
            zero_frame_.assign(frame.begin(), frame.end());
        }
        add_frame(frame, piece.size());
    }

    void add_frame(std::span<const u8> frame, std::size_t content_bytes) {
        to_.append(frame);
        append32(&table_, static_cast<u32>(frame.size()));
        append32(&table_, static_cast<u32>(content_bytes));
    }

    void add_table() {
        const u32 frames = static_cast<u32>(table_.size() / ENTRY_BYTES);
        append32(&table_, frames);
        table_.push_back(0); // no flags
        append32(&table_, TABLE_END_MAGIC);
        std::vector<u8> header;
        append32(&header, TABLE_FRAME_MAGIC);
        append32(&header, static_cast<u32>(table_.size()));
        to_.append(header);
        to_.append(table_);
    }

    const finished_image &image_;
    output_file &to_;
    progress &bar_;
    std::unique_ptr<ZSTD_CCtx, free_compressor> context_;
    std::vector<u8> piece_;
    std::vector<u8> frame_;
    std::vector<u8> zero_frame_; // of a whole piece; empty: not made yet
    std::vector<u8> table_;
};

// ---- reading ----------------------------------------------------------------------------------

// Bytes of the image by the table at the end of a file; no value without one.
std::optional<u64> size_by_table(const image_input &input) {
    std::array<u8, TABLE_END_BYTES> end{};
    const u64 size = input.size().value_or(0);
    if (size < end.size() + FRAME_HEADER_BYTES || !input.read_at(size - end.size(), end) ||
        core::load32(&end[5]) != TABLE_END_MAGIC) {
        return std::nullopt;
    }
    const std::size_t entry_bytes = ENTRY_BYTES + ((end[4] & HAS_CHECKSUMS) != 0 ? 4 : 0);
    const u64 bytes = u64{core::load32(end.data())} * entry_bytes;
    if (core::load32(end.data()) > MAX_FRAMES || bytes > size - end.size()) {
        return std::nullopt;
    }
    std::vector<u8> entries(static_cast<std::size_t>(bytes));
    if (!input.read_at(size - end.size() - bytes, entries)) {
        return std::nullopt;
    }
    u64 image_bytes = 0;
    for (std::size_t at = 0; at < entries.size(); at += entry_bytes) {
        image_bytes += core::load32(&entries[at + 4]);
    }
    return image_bytes;
}

struct free_decompressor {
    void operator()(ZSTD_DCtx *context) const {
        ZSTD_freeDCtx(context);
    }
};

class zstd_reader : public image_stream {
public:
    explicit zstd_reader(std::unique_ptr<image_input> input)
        : input_(std::move(input)), size_(size_by_table(*input_)), context_(ZSTD_createDCtx()),
          compressed_(ZSTD_DStreamInSize()), piece_(FLASH_PIECE_BYTES) {
        if (context_ == nullptr) {
            throw std::bad_alloc();
        }
    }

    [[nodiscard]] std::optional<u64> size() const override {
        return size_;
    }

    [[nodiscard]] std::optional<byte_range> next_range() override {
        const u64 offset = offset_;
        fill_piece();
        if (piece_end_ == 0) {
            if (size_ && *size_ != offset) {
                fail(fmt::format("it has {} bytes, should have {}", offset, *size_));
            }
            return std::nullopt;
        }
        offset_ += piece_end_;
        return byte_range{offset, piece_end_};
    }

    void read(std::span<u8> bytes) override {
        std::copy_n(piece_.begin() + static_cast<std::ptrdiff_t>(piece_at_), bytes.size(),
                    bytes.begin());
        piece_at_ += bytes.size();
    }

private:
    [[noreturn]] void fail(const std::string &why) const {
        throw error(fmt::format("cannot decompress {}: {}", shown_bytes(input_->path()), why));
    }

    void fill_piece() {
        ZSTD_outBuffer to = {piece_.data(), piece_.size(), 0};
        while (to.pos < to.size) {
            const bool has_more = refill();
            if (!has_more && !is_in_frame_) {
                break;
            }
            const std::size_t before = to.pos;
            const std::size_t result = ZSTD_decompressStream(context_.get(), &to, &from_);
            if (ZSTD_isError(result) != 0) {
                fail(ZSTD_getErrorName(result));
            }
            is_in_frame_ = result != 0;
            if (!has_more && is_in_frame_ && to.pos == before) {
                fail("it is cut");
            }
        }
        piece_at_ = 0;
        piece_end_ = to.pos;
    }

    // False at the end of the file.
    [[nodiscard]] bool refill() {
        if (from_.pos < from_.size) {
            return true;
        }
        from_ = {compressed_.data(), input_->read_some(compressed_), 0};
        return from_.size != 0;
    }

    std::unique_ptr<image_input> input_;
    std::optional<u64> size_;
    std::unique_ptr<ZSTD_DCtx, free_decompressor> context_;
    std::vector<u8> compressed_;
    ZSTD_inBuffer from_{};
    bool is_in_frame_ = false;
    std::vector<u8> piece_;
    std::size_t piece_at_ = 0; // of the next byte to read
    std::size_t piece_end_ = 0;
    u64 offset_ = 0; // of the next piece
};

} // namespace

void write_zstd(const finished_image &image, output_file *to, progress *bar) {
    zstd_writer(image, to, bar).run();
}

bool is_zstd(std::span<const u8> head) {
    constexpr u32 SKIPPABLE_FRAMES = 0x184D2A50; // and the 15 numbers after it
    if (head.size() < 4) {
        return false;
    }
    const u32 magic = core::load32(head.data());
    return magic == ZSTD_MAGICNUMBER || (magic & ~0xFU) == SKIPPABLE_FRAMES;
}

std::unique_ptr<image_stream> open_zstd(std::unique_ptr<image_input> input) {
    return std::make_unique<zstd_reader>(std::move(input));
}

} // namespace qvol
