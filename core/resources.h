// Ownership: heap blocks and descriptors with the lifetime of their scope.

#pragma once

#include "core/bytes.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include <unistd.h>

namespace core {
inline namespace basis {

struct free_block {
    void operator()(void *block) const {
        std::free(block);
    }
};

// A block from malloc, freed at the end of its scope unless released.
template <typename T>
using heap_ptr = std::unique_ptr<T, free_block>;

// `count` units of `unit` zero bytes, or null without memory. A product beyond the address space of
// a 32-bit host counts as a lack of memory.
[[nodiscard]] inline heap_ptr<u8> zeroed_bytes(u32 count, u32 unit = 1) {
    std::size_t size = 0;
    const bool fits = !__builtin_mul_overflow(count, unit, &size);
    void *block = fits ? std::malloc(size) : nullptr;
    if (block != nullptr) {
        std::memset(block, 0, size);
    }
    return heap_ptr<u8>(static_cast<u8 *>(block));
}

// `count` zeroed records, or null.
template <typename T>
[[nodiscard]] heap_ptr<T> zeroed_records(u32 count = 1) {
    return heap_ptr<T>(reinterpret_cast<T *>(zeroed_bytes(count, sizeof(T)).release()));
}

// A file descriptor, closed at the end of its scope unless released.
class unique_fd {
public:
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;
    ~unique_fd() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    [[nodiscard]] int get() const {
        return fd_;
    }
    [[nodiscard]] int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

} // namespace basis
} // namespace core
