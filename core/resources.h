// Ownership: heap blocks and descriptors with the lifetime of their scope.

#pragma once

#include "core/bytes.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>

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

// A copy of at least one byte, or null.
[[nodiscard]] inline heap_ptr<u8> copied_bytes(const u8 *bytes, std::size_t count) {
    u8 *copy = static_cast<u8 *>(std::malloc(count > 0 ? count : 1));
    if (copy != nullptr && count > 0) {
        std::memcpy(copy, bytes, count);
    }
    return heap_ptr<u8>(copy);
}

// A list of plain records that grows.
template <typename T>
class record_list {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    // False without memory: the list is then not changed.
    [[nodiscard]] bool add(const T &record) {
        constexpr u32 FIRST_ROOM = 16;
        if (count_ == room_) {
            const u32 wanted = room_ != 0 ? 2 * room_ : FIRST_ROOM;
            heap_ptr<T> larger = wanted > room_ ? zeroed_records<T>(wanted) : nullptr;
            if (larger == nullptr) {
                return false;
            }
            std::copy(begin(), end(), larger.get());
            records_ = std::move(larger);
            room_ = wanted;
        }
        records_.get()[count_++] = record;
        return true;
    }
    void remove_last() {
        count_--;
    }
    void clear() {
        records_.reset();
        count_ = room_ = 0;
    }

    [[nodiscard]] u32 count() const {
        return count_;
    }
    [[nodiscard]] const T &operator[](u32 index) const {
        return records_.get()[index];
    }
    [[nodiscard]] T &last() {
        return records_.get()[count_ - 1];
    }
    [[nodiscard]] T *begin() {
        return records_.get();
    }
    [[nodiscard]] T *end() {
        return records_.get() + count_;
    }
    [[nodiscard]] const T *begin() const {
        return records_.get();
    }
    [[nodiscard]] const T *end() const {
        return records_.get() + count_;
    }

private:
    heap_ptr<T> records_;
    u32 count_ = 0;
    u32 room_ = 0;
};

// A file descriptor, closed at the end of its scope unless released.
class unique_fd {
public:
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(unique_fd &&other) noexcept : fd_(other.release()) {}
    unique_fd &operator=(unique_fd &&) = delete;
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
