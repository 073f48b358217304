#include "core/medium.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <unistd.h>

namespace core {

namespace {

// Repeats a system call until everything is moved, nothing more can be, or it fails.
template <typename Call>
s64 transfer_all(std::size_t count, Call call) {
    std::size_t done = 0;
    while (done < count) {
        const ssize_t moved = call(done);
        if (moved < 0 && errno != EINTR) {
            return -errno;
        }
        if (moved == 0) {
            break;
        }
        done += moved > 0 ? static_cast<std::size_t>(moved) : 0;
    }
    return static_cast<s64>(done);
}

} // namespace

std::size_t bytes_within(u64 size, u64 offset, std::size_t wanted) {
    return offset < size ? static_cast<std::size_t>(std::min<u64>(wanted, size - offset)) : 0;
}

// ---- medium: nothing is there -----------------------------------------------------------------

s64 medium::read(u64 /*offset*/, std::span<u8> /*bytes*/) {
    return -ENODEV;
}

s64 medium::write(u64 /*offset*/, std::span<const u8> /*bytes*/) {
    return -EROFS;
}

s64 medium::read_ahead(u64 offset, std::span<u8> bytes) {
    return read(offset, bytes);
}

void medium::used(u64 /*offset*/, std::span<const u8> /*bytes*/) {}

int medium::flush() {
    return 0;
}

u64 medium::size() const {
    return 0;
}

// ---- file -------------------------------------------------------------------------------------

s64 file_medium::read(u64 offset, std::span<u8> bytes) {
    return transfer_all(bytes.size(), [&](std::size_t done) {
        return pread(fd_, bytes.data() + done, bytes.size() - done,
                     static_cast<off_t>(offset + done));
    });
}

s64 file_medium::write(u64 offset, std::span<const u8> bytes) {
    return transfer_all(bytes.size(), [&](std::size_t done) {
        return pwrite(fd_, bytes.data() + done, bytes.size() - done,
                      static_cast<off_t>(offset + done));
    });
}

int file_medium::flush() {
    return fsync(fd_) == 0 ? 0 : -errno;
}

// ---- memory -----------------------------------------------------------------------------------

s64 memory_medium::read(u64 offset, std::span<u8> bytes) {
    const std::size_t count = bytes_within(bytes_.size(), offset, bytes.size());
    if (count > 0) {
        std::memcpy(bytes.data(), bytes_.data() + offset, count);
    }
    return static_cast<s64>(count);
}

s64 memory_medium::write(u64 offset, std::span<const u8> bytes) {
    const std::size_t count = bytes_within(bytes_.size(), offset, bytes.size());
    if (count > 0) {
        std::memcpy(bytes_.data() + offset, bytes.data(), count);
    }
    return static_cast<s64>(count);
}

// ---- part -------------------------------------------------------------------------------------

s64 medium_part::read(u64 offset, std::span<u8> bytes) {
    return whole_.read(offset_ + offset, bytes.first(bytes_within(size_, offset, bytes.size())));
}

s64 medium_part::write(u64 offset, std::span<const u8> bytes) {
    return whole_.write(offset_ + offset, bytes.first(bytes_within(size_, offset, bytes.size())));
}

s64 medium_part::read_ahead(u64 offset, std::span<u8> bytes) {
    return whole_.read_ahead(offset_ + offset,
                             bytes.first(bytes_within(size_, offset, bytes.size())));
}

int medium_part::flush() {
    return whole_.flush();
}

} // namespace core
