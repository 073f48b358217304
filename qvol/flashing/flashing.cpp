#include "qvol/flashing/flashing.h"

#include "qvol/error.h"
#include "qvol/flashing/stop_request.h"
#include "qvol/output.h"
#include "qvol/sectors.h"
#include "qvol/sha256.h"

#include <algorithm>

#include <fcntl.h>
#include <fmt/core.h>
#include <linux/falloc.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

namespace qvol {

namespace {

// Boot sector and its backup, or the start of a table of partitions.
constexpr u64 DEFERRED_BYTES = 4096;
constexpr u64 BLOCK_BYTES = 4096; // of what the system zeroes or discards
constexpr u64 MOST_BYTES = u64{4} << 20;
constexpr u64 ZEROED_BYTES = u64{64} << 20; // zeroed at once

// The whole blocks in a range of the file.
byte_range aligned_part(const byte_range &range) {
    const u64 start = (range.offset + BLOCK_BYTES - 1) / BLOCK_BYTES * BLOCK_BYTES;
    const u64 end = range.end() / BLOCK_BYTES * BLOCK_BYTES;
    return {start, end > start ? end - start : 0};
}

// The number of bytes from `offset` up to a multiple of `unit`, at most to `end`.
std::size_t piece_at(u64 offset, u64 end, u64 unit) {
    return static_cast<std::size_t>(std::min(unit - offset % unit, end - offset));
}

bool discard(const target &where, const byte_range &range) {
    if (where.is_device()) {
        u64 numbers[2] = {range.offset, range.bytes};
        return ioctl(where.descriptor(), BLKDISCARD, numbers) == 0;
    }
    return fallocate(where.descriptor(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                     static_cast<off_t>(range.offset), static_cast<off_t>(range.bytes)) == 0;
}

// Without writing the zeros, where the device or the file system can.
bool zero_fast(const target &where, const byte_range &range) {
    if (where.is_device()) {
        u64 numbers[2] = {range.offset, range.bytes};
        return ioctl(where.descriptor(), BLKZEROOUT, numbers) == 0;
    }
    return discard(where, range);
}

std::string shown_range(const byte_range &range) {
    return fmt::format("bytes {} to {}", range.offset, range.end() - 1);
}

} // namespace

void discard_content(const target &where) {
    const byte_range blocks = aligned_part({where.offset(), where.size()});
    if (blocks.bytes != 0 && !discard(where, blocks)) {
        throw system_failure("discard the content of " + shown_bytes(where.path()));
    }
}

flashing::flashing(const target &where, image_stream *image, bool zeroes_rest, bool is_quiet)
    : where_(where), image_(*image), zeroes_rest_(zeroes_rest), is_quiet_(is_quiet), file_(where),
      head_(static_cast<std::size_t>(std::min(DEFERRED_BYTES, where.size()))), buffer_(MOST_BYTES) {
}

// ---- writing ----------------------------------------------------------------------------------

void flashing::blank_head() {
    file_.write(0, std::vector<u8>(head_.size()));
    where_.sync();
}

void flashing::write() {
    progress bar("flash", zeroes_rest_ ? where_.size() : image_.size().value_or(0), is_quiet_);
    while (const std::optional<byte_range> range = image_.next_range()) {
        check_range(*range);
        if (zeroes_rest_) {
            zero({end_, range->offset - end_}, &bar);
        } else {
            bar.add(range->offset - end_);
        }
        write_range(*range, &bar);
        end_ = range->end();
    }
    if (zeroes_rest_) {
        zero({end_, where_.size() - end_}, &bar);
    }
    end_ = std::max(end_, image_.size().value_or(end_));
    where_.sync();
}

// A pipe does not state its size before its end.
void flashing::check_range(const byte_range &range) const {
    if (range.bytes > where_.size() || range.offset > where_.size() - range.bytes) {
        throw error(fmt::format("the image is larger than {}, which has {}",
                                shown_bytes(where_.path()), shown_size(where_.size())));
    }
}

void flashing::write_range(const byte_range &range, progress *bar) {
    for (u64 offset = range.offset; offset < range.end();) {
        stop_request::check();
        const std::size_t size = piece_at(offset, range.end(), buffer_.size());
        const std::span<u8> piece = std::span(buffer_).first(size);
        image_.read(piece);
        write_piece(offset, piece);
        bar->add(size);
        offset += size;
    }
}

void flashing::write_piece(u64 offset, std::span<const u8> bytes) {
    written_bytes_ += bytes.size();
    if (offset < head_.size()) {
        const std::size_t count = piece_at(offset, offset + bytes.size(), head_.size());
        std::copy_n(bytes.begin(), count, head_.begin() + static_cast<std::ptrdiff_t>(offset));
        offset += count;
        bytes = bytes.subspan(count);
    }
    if (bytes.empty()) {
        return;
    }
    file_.write(offset, bytes);
    sha256 hash;
    hash.add(bytes);
    pieces_.push_back({{offset, bytes.size()}, hash.take_digest()});
}

// ---- zeros ----

void flashing::zero(byte_range range, progress *bar) {
    zeroed_bytes_ += range.bytes;
    for (u64 offset = range.offset; offset < range.end();) {
        stop_request::check();
        const u64 size = std::min(ZEROED_BYTES - offset % ZEROED_BYTES, range.end() - offset);
        const u64 begin = std::max<u64>(offset, head_.size()); // the head is zero already
        const byte_range piece = {begin, offset + size - std::min(begin, offset + size)};
        if (piece.bytes != 0) {
            zero_pages(piece);
            pieces_.push_back({piece, ""});
        }
        bar->add(size);
        offset += size;
    }
}

void flashing::zero_pages(const byte_range &range) {
    const byte_range blocks = aligned_part({where_.offset() + range.offset, range.bytes});
    const u64 first = blocks.offset - where_.offset();
    byte_range rest = range;
    if (blocks.bytes != 0 && zero_fast(where_, blocks)) {
        file_.write(range.offset, std::vector<u8>(static_cast<std::size_t>(first - range.offset)));
        rest = {first + blocks.bytes, range.end() - first - blocks.bytes};
    }
    const std::vector<u8> zeros(MOST_BYTES);
    for (u64 offset = rest.offset; offset < rest.end();) {
        const std::size_t size = piece_at(offset, rest.end(), zeros.size());
        file_.write(offset, std::span(zeros).first(size));
        offset += size;
    }
}

// ---- verification -----------------------------------------------------------------------------

void flashing::verify() {
    u64 total = 0;
    for (const written_piece &piece : pieces_) {
        total += piece.at.bytes;
    }
    progress bar("verify", total, is_quiet_);
    constexpr std::size_t MOST_NAMED = 10;
    std::vector<std::string> differing;
    u64 count = 0;
    for (const written_piece &piece : pieces_) {
        stop_request::check();
        if (!is_as_written(piece, &bar) && count++ < MOST_NAMED) {
            differing.push_back(shown_range(piece.at));
        }
    }
    if (count > differing.size()) {
        differing.push_back(fmt::format("and {} more", count - differing.size()));
    }
    if (!differing.empty()) {
        throw error("cannot verify " + shown_bytes(where_.path()) +
                        ": it does not hold what was written to it",
                    differing);
    }
}

bool flashing::is_as_written(const written_piece &piece, progress *bar) {
    sha256 hash;
    bool is_all_zero = true;
    for (u64 offset = piece.at.offset; offset < piece.at.end();) {
        const std::size_t size = piece_at(offset, piece.at.end(), buffer_.size());
        const std::span<u8> bytes = std::span(buffer_).first(size);
        const core::s64 count = file_.read(offset, bytes);
        if (count != static_cast<core::s64>(size)) {
            throw system_failure(fmt::format("read {} of {}", shown_range({offset, size}),
                                             shown_bytes(where_.path())),
                                 count < 0 ? static_cast<int>(-count) : EIO);
        }
        if (piece.digest.empty()) {
            is_all_zero = is_all_zero && is_zero(bytes);
        } else {
            hash.add(bytes);
        }
        bar->add(size);
        offset += size;
    }
    return piece.digest.empty() ? is_all_zero : hash.take_digest() == piece.digest;
}

// ---- the first bytes --------------------------------------------------------------------------

void flashing::finish(bool verifies) {
    file_.write(0, head_);
    where_.sync();
    if (!verifies) {
        return;
    }
    std::vector<u8> present(head_.size());
    const core::s64 count = file_.read(0, present);
    if (count != static_cast<core::s64>(present.size()) || present != head_) {
        blank_head();
        throw error("cannot verify " + shown_bytes(where_.path()) +
                        ": it does not hold what was written to it",
                    {shown_range({0, head_.size()})});
    }
}

} // namespace qvol
