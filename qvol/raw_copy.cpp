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

// The first byte from `offset` on that is not in a hole, or the end. Devices have no holes.
u64 next_data(const target &from, u64 offset) {
    const off_t found =
        lseek(from.descriptor(), static_cast<off_t>(from.offset() + offset), SEEK_DATA);
    if (found >= 0) {
        return std::min(static_cast<u64>(found) - from.offset(), from.size());
    }
    return errno == ENXIO ? from.size() : offset;
}

} // namespace

void copy_raw(const target &from, const target &to, progress *bar) {
    std::vector<u8> buffer(PIECE_BYTES);
    for (u64 offset = 0; offset < from.size();) {
        const u64 data = to.is_fresh() ? next_data(from, offset) : offset;
        bar->add(data - offset);
        const std::span<u8> piece =
            std::span(buffer).first(std::min<u64>(PIECE_BYTES, from.size() - data));
        read_piece_at(from, data, piece);
        if (!to.is_fresh() || !is_zero(piece)) {
            write_piece_at(to, data, piece);
        }
        bar->add(piece.size());
        offset = data + piece.size();
    }
}

void write_zeros(const target &to, u64 offset, u64 bytes) {
    const std::vector<u8> zeros(PIECE_BYTES);
    for (u64 done = 0; done < bytes;) {
        const u64 size = std::min<u64>(PIECE_BYTES, bytes - done);
        write_piece_at(to, offset + done, std::span(zeros).first(size));
        done += size;
    }
}

} // namespace qvol
