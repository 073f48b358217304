#include "qvol/raw_copy.h"

#include "qvol/error.h"
#include "qvol/flashing/needed_ranges.h"
#include "qvol/names.h"
#include "qvol/sectors.h"

#include <algorithm>
#include <vector>

namespace qvol {

namespace {

using core::s64;
using core::u8;

constexpr std::size_t PIECE_BYTES = std::size_t{1} << 20;

void write_piece_at(const target &to, u64 offset, std::span<const u8> bytes) {
    if (bytes.empty()) {
        return;
    }
    const s64 written = to.medium().write(offset, bytes);
    if (written != static_cast<s64>(bytes.size())) {
        throw system_failure("write to " + shown_bytes(to.path()),
                             written < 0 ? static_cast<int>(-written) : EIO);
    }
}

// Writes the blocks that are not zero, consecutive ones at once.
void write_blocks(const target &to, u64 offset, std::span<const u8> piece) {
    constexpr std::size_t BLOCK_BYTES = 4096;
    std::size_t start = 0; // of the blocks to write
    for (std::size_t at = 0; at < piece.size(); at += BLOCK_BYTES) {
        const std::size_t size = std::min(BLOCK_BYTES, piece.size() - at);
        if (is_zero(piece.subspan(at, size))) {
            write_piece_at(to, offset + start, piece.subspan(start, at - start));
            start = at + size;
        }
    }
    write_piece_at(to, offset + start, piece.subspan(start));
}

void copy_range(const target &from, const target &to, const byte_range &range, std::span<u8> buffer,
                progress *bar) {
    const bool skips_zeros = to.allowed_holes() == holes::ZEROS;
    for (u64 offset = range.offset; offset < range.end();) {
        const auto size =
            static_cast<std::size_t>(std::min<u64>(buffer.size(), range.end() - offset));
        const std::span<u8> piece = buffer.first(size);
        read_bytes(from, offset, piece);
        skips_zeros ? write_blocks(to, offset, piece) : write_piece_at(to, offset, piece);
        bar->add(size);
        offset += size;
    }
}

} // namespace

void read_bytes(const target &from, u64 offset, std::span<u8> bytes) {
    const s64 count = from.medium().read(offset, bytes);
    if (count != static_cast<s64>(bytes.size())) {
        throw system_failure("read " + shown_bytes(from.path()),
                             count < 0 ? static_cast<int>(-count) : EIO);
    }
}

void copy_raw(const target &from, const target &to, progress *bar) {
    const std::vector<byte_range> ranges = to.allowed_holes() == holes::NONE
                                               ? std::vector<byte_range>{{0, from.size()}}
                                               : data_ranges(from);
    std::vector<u8> buffer(PIECE_BYTES);
    for (const byte_range &range : ranges) {
        copy_range(from, to, range, buffer, bar);
    }
    bar->add(from.size() - total_bytes(ranges));
}

void write_zeros(const target &to, u64 offset, u64 bytes) {
    const std::vector<u8> zeros(PIECE_BYTES);
    for (u64 done = 0; done < bytes;) {
        const auto size = static_cast<std::size_t>(std::min<u64>(PIECE_BYTES, bytes - done));
        write_piece_at(to, offset + done, std::span(zeros).first(size));
        done += size;
    }
}

} // namespace qvol
