#include "qvol/flashing/android_sparse.h"

#include "qvol/error.h"
#include "qvol/names.h"
#include "qvol/raw_copy.h"
#include "qvol/sectors.h"

#include <algorithm>
#include <array>
#include <limits>

#include <fmt/core.h>

namespace qvol {

namespace {

using core::field;

constexpr u32 MAGIC_NUMBER = 0xED26FF3A;
constexpr u32 MAJOR_VERSION = 1;

// The header of the file.
constexpr field MAGIC = {"magic", 0, 4};
constexpr field MAJOR = {"major version", 4, 2};
constexpr field MINOR = {"minor version", 6, 2};
constexpr field HEADER_SIZE = {"header size", 8, 2};
constexpr field CHUNK_HEADER_SIZE = {"chunk header size", 10, 2};
constexpr field BLOCK_SIZE = {"block size", 12, 4};
constexpr field TOTAL_BLOCKS = {"number of blocks", 16, 4};
constexpr field TOTAL_CHUNKS = {"number of chunks", 20, 4};
constexpr std::size_t HEADER_BYTES = 28; // the last field is a checksum, 0: none

// The header of a chunk.
constexpr field CHUNK_TYPE = {"chunk type", 0, 2};
constexpr field CHUNK_BLOCKS = {"blocks of the chunk", 4, 4};
constexpr field CHUNK_SIZE = {"bytes of the chunk with its header", 8, 4};
constexpr std::size_t CHUNK_HEADER_BYTES = 12;
constexpr std::size_t WORD_BYTES = 4; // what a FILL chunk repeats, also the size of a CRC32 chunk

constexpr u32 RAW = 0xCAC1;
constexpr u32 FILL = 0xCAC2;
constexpr u32 DONT_CARE = 0xCAC3;
constexpr u32 CRC32 = 0xCAC4;

// ---- writing ----------------------------------------------------------------------------------

u32 block_bytes_for(u64 image_bytes) {
    u64 bytes = FLASH_BLOCK_BYTES;
    while (image_bytes % bytes != 0) {
        bytes /= 2;
    }
    if (bytes < WORD_BYTES || image_bytes / bytes > std::numeric_limits<u32>::max()) {
        throw error(fmt::format("an Android sparse image cannot have {} bytes", image_bytes));
    }
    return static_cast<u32>(bytes);
}

class sparse_writer {
public:
    sparse_writer(const finished_image &image, output_file *to, progress *bar)
        : image_(image), to_(*to), bar_(*bar), block_bytes_(block_bytes_for(image.size())),
          buffer_(FLASH_PIECE_BYTES) {}

    void run() {
        to_.append(std::vector<u8>(HEADER_BYTES));
        u64 end = 0;
        for (const byte_range &range : image_.needed) {
            extend(DONT_CARE, range.offset - end);
            add_data(range);
            end = range.end();
        }
        extend(DONT_CARE, image_.size() - end);
        end_chunk();
        write_header();
    }

private:
    void add_data(const byte_range &range) {
        for (u64 done = 0; done < range.bytes;) {
            const auto size =
                static_cast<std::size_t>(std::min<u64>(buffer_.size(), range.bytes - done));
            const std::span<u8> piece = std::span(buffer_).first(size);
            read_bytes(image_.where, range.offset + done, piece);
            add_piece(piece);
            bar_.add(size);
            done += size;
        }
    }

    // A chunk for each sequence of zero blocks and each of others.
    void add_piece(std::span<const u8> piece) {
        for (std::size_t at = 0; at < piece.size();) {
            const bool is_fill = is_zero(piece.subspan(at, block_bytes_));
            std::size_t end = at + block_bytes_;
            while (end < piece.size() && is_zero(piece.subspan(end, block_bytes_)) == is_fill) {
                end += block_bytes_;
            }
            is_fill ? extend(FILL, end - at) : add_raw(piece.subspan(at, end - at));
            at = end;
        }
    }

    // Adds blocks to the chunk that is open if it is of this type. It has no content of its own but
    // the word to repeat, and is written when it is complete.
    void extend(u32 type, u64 bytes) {
        if (bytes == 0) {
            return;
        }
        if (open_type_ != type) {
            end_chunk();
            open_type_ = type;
        }
        open_blocks_ += bytes / block_bytes_;
    }

    void end_chunk() {
        if (open_blocks_ != 0) {
            const std::vector<u8> word(open_type_ == FILL ? WORD_BYTES : 0);
            add_chunk(open_type_, open_blocks_, word);
        }
        open_blocks_ = 0;
        open_type_ = 0;
    }

    void add_raw(std::span<const u8> bytes) {
        end_chunk();
        add_chunk(RAW, bytes.size() / block_bytes_, bytes);
    }

    void add_chunk(u32 type, u64 blocks, std::span<const u8> content) {
        std::array<u8, CHUNK_HEADER_BYTES> header{};
        core::store(header.data(), CHUNK_TYPE, type);
        core::store(header.data(), CHUNK_BLOCKS, static_cast<u32>(blocks));
        core::store(header.data(), CHUNK_SIZE, static_cast<u32>(header.size() + content.size()));
        to_.append(header);
        to_.append(content);
        chunks_++;
    }

    void write_header() {
        std::array<u8, HEADER_BYTES> header{};
        core::store(header.data(), MAGIC, MAGIC_NUMBER);
        core::store(header.data(), MAJOR, MAJOR_VERSION);
        core::store(header.data(), MINOR, 0);
        core::store(header.data(), HEADER_SIZE, HEADER_BYTES);
        core::store(header.data(), CHUNK_HEADER_SIZE, CHUNK_HEADER_BYTES);
        core::store(header.data(), BLOCK_SIZE, block_bytes_);
        core::store(header.data(), TOTAL_BLOCKS, static_cast<u32>(image_.size() / block_bytes_));
        core::store(header.data(), TOTAL_CHUNKS, chunks_);
        to_.rewrite(0, header);
    }

    const finished_image &image_;
    output_file &to_;
    progress &bar_;
    u32 block_bytes_;
    std::vector<u8> buffer_;
    u32 open_type_ = 0;
    u64 open_blocks_ = 0;
    u32 chunks_ = 0;
};

// ---- reading ----------------------------------------------------------------------------------

class sparse_reader : public image_stream {
public:
    explicit sparse_reader(std::unique_ptr<image_input> input) : input_(std::move(input)) {
        std::array<u8, HEADER_BYTES> header{};
        input_->read(header);
        const u32 header_bytes = core::load(header.data(), HEADER_SIZE);
        chunk_header_bytes_ = core::load(header.data(), CHUNK_HEADER_SIZE);
        block_bytes_ = core::load(header.data(), BLOCK_SIZE);
        blocks_ = core::load(header.data(), TOTAL_BLOCKS);
        chunks_left_ = core::load(header.data(), TOTAL_CHUNKS);
        if (core::load(header.data(), MAJOR) != MAJOR_VERSION || header_bytes < HEADER_BYTES ||
            chunk_header_bytes_ < CHUNK_HEADER_BYTES || block_bytes_ == 0 ||
            block_bytes_ % WORD_BYTES != 0) {
            refuse("unknown version or impossible sizes");
        }
        skip(header_bytes - HEADER_BYTES);
    }

    [[nodiscard]] std::optional<u64> size() const override {
        return u64{blocks_} * block_bytes_;
    }

    [[nodiscard]] std::optional<byte_range> next_range() override {
        while (chunks_left_ > 0) {
            const byte_range range = next_chunk();
            if (range.bytes != 0) {
                return range;
            }
        }
        if (next_block_ != blocks_) {
            refuse(fmt::format("its chunks have {} blocks, should have {}", next_block_, blocks_));
        }
        return std::nullopt;
    }

    void read(std::span<u8> bytes) override {
        if (!is_fill_) {
            input_->read(bytes);
            return;
        }
        for (std::size_t i = 0; i < bytes.size(); i++) {
            bytes[i] = word_[word_at_++ % WORD_BYTES];
        }
    }

private:
    [[noreturn]] void refuse(const std::string &why) const {
        throw error(
            fmt::format("{} is a damaged sparse image: {}", shown_bytes(input_->path()), why));
    }

    void skip(u64 bytes) {
        for (std::array<u8, 4096> skipped{}; bytes > 0;) {
            const auto count = static_cast<std::size_t>(std::min<u64>(bytes, skipped.size()));
            input_->read(std::span(skipped).first(count));
            bytes -= count;
        }
    }

    // Reads the header of a chunk, and all of a chunk that is no range: the result is empty.
    byte_range next_chunk() {
        std::array<u8, CHUNK_HEADER_BYTES> header{};
        input_->read(header);
        skip(chunk_header_bytes_ - CHUNK_HEADER_BYTES);
        chunks_left_--;
        const u32 type = core::load(header.data(), CHUNK_TYPE);
        const u32 count = core::load(header.data(), CHUNK_BLOCKS);
        const byte_range range = {u64{next_block_} * block_bytes_, u64{count} * block_bytes_};
        check_chunk(type, count, core::load(header.data(), CHUNK_SIZE));
        next_block_ += type == CRC32 ? 0 : count;
        is_fill_ = type == FILL;
        if (is_fill_) {
            input_->read(word_);
            word_at_ = 0;
        } else if (type == CRC32) {
            skip(WORD_BYTES); // of the whole image with what is not written
        }
        const bool is_range = type == RAW || is_fill_;
        return is_range ? range : byte_range{};
    }

    void check_chunk(u32 type, u32 count, u32 bytes) const {
        u64 content = type == FILL || type == CRC32 ? WORD_BYTES : 0;
        if (type == RAW) {
            content = u64{count} * block_bytes_;
        }
        if (type < RAW || type > CRC32) {
            refuse(fmt::format("unknown chunk type {:#x}", type));
        }
        if (bytes != chunk_header_bytes_ + content ||
            (type != CRC32 && count > blocks_ - next_block_)) {
            refuse(fmt::format("wrong size of the chunk at block {}", next_block_));
        }
    }

    std::unique_ptr<image_input> input_;
    u32 chunk_header_bytes_;
    u32 block_bytes_;
    u32 blocks_;
    u32 chunks_left_;
    u32 next_block_ = 0;
    bool is_fill_ = false; // the range
    std::array<u8, WORD_BYTES> word_{};
    std::size_t word_at_ = 0;
};

} // namespace

void write_android_sparse(const finished_image &image, output_file *to, progress *bar) {
    sparse_writer(image, to, bar).run();
}

bool is_android_sparse(std::span<const u8> head) {
    return head.size() >= MAGIC.size && core::load(head.data(), MAGIC) == MAGIC_NUMBER;
}

std::unique_ptr<image_stream> open_android_sparse(std::unique_ptr<image_input> input) {
    return std::make_unique<sparse_reader>(std::move(input));
}

} // namespace qvol
