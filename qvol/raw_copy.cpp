#include "qvol/raw_copy.h"

#include "qvol/error.h"
#include "qvol/names.h"

#include <algorithm>
#include <vector>

#include <unistd.h>

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

void read_piece_at(const target &from, u64 offset, std::span<u8> bytes) {
    const s64 count = from.medium().read(offset, bytes);
    if (count != static_cast<s64>(bytes.size())) {
        throw system_failure("read " + shown_bytes(from.path()),
                             count < 0 ? static_cast<int>(-count) : EIO);
    }
}

bool is_zero(std::span<const u8> bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](u8 byte) { return byte == 0; });
}

// The first byte from `offset` on that is in a hole, or that is not; or the end. Devices have no
// holes.
u64 next_border(const target &from, u64 offset, int whence) {
    const off_t found =
        lseek(from.descriptor(), static_cast<off_t>(from.offset() + offset), whence);
    if (found >= 0) {
        return std::min(static_cast<u64>(found) - from.offset(), from.size());
    }
    return errno == ENXIO || whence == SEEK_HOLE ? from.size() : offset;
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

// Copies the bytes between two holes.
void copy_data(const target &from, const target &to, u64 offset, u64 end, std::span<u8> buffer,
               progress *bar) {
    while (offset < end) {
        const auto size = static_cast<std::size_t>(std::min<u64>(buffer.size(), end - offset));
        const std::span<u8> piece = buffer.first(size);
        read_piece_at(from, offset, piece);
        to.is_fresh() ? write_blocks(to, offset, piece) : write_piece_at(to, offset, piece);
        bar->add(size);
        offset += size;
    }
}

} // namespace

void copy_raw(const target &from, const target &to, progress *bar) {
    std::vector<u8> buffer(PIECE_BYTES);
    for (u64 offset = 0; offset < from.size();) {
        const u64 data = to.is_fresh() ? next_border(from, offset, SEEK_DATA) : offset;
        const u64 hole = to.is_fresh() ? next_border(from, data, SEEK_HOLE) : from.size();
        bar->add(data - offset);
        copy_data(from, to, data, hole, buffer, bar);
        offset = hole;
    }
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
