#include "qvol/media.h"

#include <algorithm>
#include <cerrno>

namespace qvol {

using core::s64;
using core::u32;
using core::u64;
using core::u8;

target_medium::target_medium(int fd, const u64 &size, bool is_writable)
    : core::file_medium(fd, 0), size_(size), is_writable_(is_writable) {}

s64 target_medium::write(u64 offset, std::span<const u8> bytes) {
    return is_writable_ ? core::file_medium::write(offset, bytes) : -EROFS;
}

u64 target_medium::size() const {
    return size_;
}

deferring_medium::deferring_medium(core::medium &other, u32 sector_size)
    : other_(other), sector_size_(sector_size) {}

s64 deferring_medium::read(u64 offset, std::span<u8> bytes) {
    const s64 moved = other_.read(offset, bytes);
    if (moved > 0 && offset < first_sector_.size()) {
        const std::size_t count = std::min({first_sector_.size() - static_cast<std::size_t>(offset),
                                            bytes.size(), static_cast<std::size_t>(moved)});
        std::copy_n(first_sector_.begin() + static_cast<std::ptrdiff_t>(offset), count,
                    bytes.begin());
    }
    return moved;
}

// Transfers are whole sectors.
s64 deferring_medium::write(u64 offset, std::span<const u8> bytes) {
    if (offset != 0 || bytes.size() < sector_size_) {
        return other_.write(offset, bytes);
    }
    const std::span<const u8> rest = bytes.subspan(sector_size_);
    first_sector_.assign(bytes.begin(), bytes.begin() + sector_size_);
    const s64 moved = rest.empty() ? 0 : other_.write(sector_size_, rest);
    return moved < 0 ? moved : moved + sector_size_;
}

int deferring_medium::flush() {
    return other_.flush();
}

u64 deferring_medium::size() const {
    return other_.size();
}

} // namespace qvol
