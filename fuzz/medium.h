// A small volume in memory whose bytes the fuzzer chooses.

#pragma once

#include "fat/internal.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace fuzzing {

// Reads the input byte by byte; returns zeros after its end.
class input {
public:
    input(const std::uint8_t *data, std::size_t size) : data_(data), size_(size) {}
    std::uint8_t byte() {
        if (size_ == 0) {
            return 0;
        }
        size_--;
        return *data_++;
    }
    // A NUL-terminated string of at most N - 1 bytes: a length byte, then the characters.
    template <std::size_t N>
    std::array<char, N> text() {
        std::array<char, N> result = {};
        const std::size_t length = std::min<std::size_t>(byte(), N - 1);
        for (std::size_t i = 0; i < length; i++) {
            result[i] = static_cast<char>(byte());
        }
        return result;
    }
    [[nodiscard]] const std::uint8_t *rest() const {
        return data_;
    }
    [[nodiscard]] std::size_t left() const {
        return size_;
    }

private:
    const std::uint8_t *data_;
    std::size_t size_;
};

inline constexpr std::size_t MEDIUM_BYTES = 400 * 1024;
inline std::array<std::uint8_t, MEDIUM_BYTES> medium;

// The number of sectors of a transfer that are inside the medium.
inline std::uint64_t sectors_inside(std::uint64_t sector, std::uint32_t count, std::uint64_t unit) {
    const std::uint64_t sectors = MEDIUM_BYTES / unit;
    return sector < sectors ? std::min<std::uint64_t>(count, sectors - sector) : 0;
}

inline std::uint64_t transfer_unit() {
    return sv->sector_size != 0 ? sv->sector_size : fat::UNKNOWN_SECTOR_SIZE;
}

inline int read_image(void *buf, std::uint64_t sector, std::uint32_t count) {
    const std::uint64_t unit = transfer_unit();
    const std::uint64_t moved = sectors_inside(sector, count, unit);
    if (moved == 0) {
        return -EIO;
    }
    std::memcpy(buf, medium.data() + sector * unit, moved * unit);
    return static_cast<int>(moved);
}

inline int write_image(void *buf, std::uint64_t sector, std::uint32_t count) {
    const std::uint64_t unit = transfer_unit();
    const std::uint64_t moved = sectors_inside(sector, count, unit);
    std::memcpy(medium.data() + sector * unit, buf, moved * unit);
    return static_cast<int>(moved);
}

// An open volume of known shape over the medium: one FAT sector at 1, root area, then clusters.
inline void open_medium(fat_super *volume, std::uint8_t shape, input *in) {
    *volume = fat_super{};
    volume->fd = -1;
    volume->fat_type = (shape & 1) != 0 ? 32 : 16;
    volume->long_name = (shape & 2) != 0 ? 1 : 0;
    volume->sector_size = 512U << (shape >> 2 & 3);
    volume->sec_per_clus = 1U << (shape >> 4 & 3);
    volume->fat_start = 1;
    volume->fat_size = 1;
    volume->rdir_start = 2;
    volume->data_start = volume->fat_type == 32 ? 2 : 4;
    volume->root_clus = volume->fat_type == 32 ? 2 : 0;
    volume->total_sectors = static_cast<std::uint32_t>(MEDIUM_BYTES / volume->sector_size);
    volume->num_clusters = (volume->total_sectors - volume->data_start) / volume->sec_per_clus;
    medium.fill(0);
    std::memcpy(medium.data(), in->rest(), std::min(in->left(), MEDIUM_BYTES));
    sv = volume;
    read_sectors = read_image;
    write_sectors = write_image;
    fat_set_diagnostics(nullptr);
}

// Ends the run if an invariant does not hold.
inline void require(bool holds) {
    if (!holds) {
        __builtin_trap();
    }
}

} // namespace fuzzing
