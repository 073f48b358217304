#include "qvol/media.h"

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

} // namespace qvol
