// What a volume is on: bytes that are read and written at offsets.

#pragma once

#include "core/bytes.h"

#include <span>

namespace core {

// Number of bytes from `offset` on, at most `wanted`, that a medium of `size` bytes has.
[[nodiscard]] std::size_t bytes_within(u64 size, u64 offset, std::size_t wanted);

// Transfers return the number of bytes moved, fewer than requested at the end of the medium, or a
// negative errno.
class medium {
public:
    virtual s64 read(u64 offset, std::span<u8> bytes);
    virtual s64 write(u64 offset, std::span<const u8> bytes);

    // The same as read(), for bytes that may not be needed: the caller ignores a failure.
    virtual s64 read_ahead(u64 offset, std::span<u8> bytes);

    // Bytes that were read ahead are in use now. A medium that stores what it transferred last
    // takes them for read.
    virtual void used(u64 offset, std::span<const u8> bytes);

    // Makes everything written so far durable. Returns 0 or a negative errno.
    virtual int flush();

    [[nodiscard]] virtual u64 size() const; // bytes

    medium(const medium &) = delete;
    medium &operator=(const medium &) = delete;

protected:
    medium() = default;
    ~medium() = default; // owned by its own type: no deletion through this one
};

// A file or a block device, by its open descriptor. Continues after short transfers.
class file_medium : public medium {
public:
    file_medium(int fd, u64 size) : fd_(fd), size_(size) {}
    s64 read(u64 offset, std::span<u8> bytes) override;
    s64 write(u64 offset, std::span<const u8> bytes) override;
    int flush() override;
    [[nodiscard]] u64 size() const override {
        return size_;
    }

private:
    int fd_;
    u64 size_;
};

// Bytes in memory, which the caller owns.
class memory_medium : public medium {
public:
    explicit memory_medium(std::span<u8> bytes) : bytes_(bytes) {}
    s64 read(u64 offset, std::span<u8> bytes) override;
    s64 write(u64 offset, std::span<const u8> bytes) override;
    [[nodiscard]] u64 size() const override {
        return bytes_.size();
    }

private:
    std::span<u8> bytes_;
};

// A part of another medium, for example a partition.
class medium_part final : public medium {
public:
    medium_part(medium &whole, u64 offset, u64 size)
        : whole_(whole), offset_(offset), size_(size) {}
    s64 read(u64 offset, std::span<u8> bytes) override;
    s64 write(u64 offset, std::span<const u8> bytes) override;
    s64 read_ahead(u64 offset, std::span<u8> bytes) override;
    int flush() override;
    [[nodiscard]] u64 size() const override {
        return size_;
    }

private:
    medium &whole_;
    u64 offset_;
    u64 size_;
};

} // namespace core
