// Boot sectors made from any numbers, without the library, and the geometry of the open volume.

#pragma once

#include "fat/fat.h"

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace testing_support {

// ---- the geometry of the open volume ----------------------------------------------------------

struct geometry {
    std::uint32_t fat_type = 0;
    std::uint32_t fat_size = 0;
    std::uint32_t total_sectors = 0;
    std::uint32_t num_clusters = 0;
    std::uint32_t sector_size = 0;
    std::uint32_t sec_per_clus = 0;
    std::uint32_t root_clus = 0;
    std::uint32_t fat_start = 0;
    std::uint32_t rdir_start = 0;
    std::uint32_t data_start = 0;
    std::uint32_t pbr_start = 0;
    bool operator==(const geometry &) const = default;
};
inline std::ostream &operator<<(std::ostream &out, const geometry &g) {
    return out << "{FAT" << g.fat_type << " of " << g.fat_size << " sectors, total "
               << g.total_sectors << ", clusters " << g.num_clusters << ", sectors of "
               << g.sector_size << " bytes, clusters of " << g.sec_per_clus << ", root cluster "
               << g.root_clus << ", FAT at " << g.fat_start << ", root at " << g.rdir_start
               << ", data at " << g.data_start << ", boot sector at " << g.pbr_start << "}";
}
inline geometry geometry_of_volume() {
    return {sv->fat_type,    sv->fat_size,     sv->total_sectors, sv->num_clusters,
            sv->sector_size, sv->sec_per_clus, sv->root_clus,     sv->fat_start,
            sv->rdir_start,  sv->data_start,   sv->pbr_start};
}

// ---- boot sectors -----------------------------------------------------------------------------

// The numbers that determine the layout of a volume. Each is truncated to the size of its field.
struct boot_numbers {
    std::uint32_t sector_size = 512;
    std::uint32_t sec_per_clus = 1;
    std::uint32_t reserved = 1;
    std::uint32_t fats = 2;
    std::uint32_t root_entries = 512;
    std::uint32_t total_16 = 0;
    std::uint32_t fat_size_16 = 0;
    std::uint32_t total_32 = 0;
    std::uint32_t fat_size_32 = 0;
    std::uint32_t root_clus = 0;
    std::string type = "FAT     "; // 8 bytes
};

// Small valid volumes.
inline boot_numbers fat16_numbers() {
    boot_numbers numbers;
    numbers.fat_size_16 = 32;
    numbers.total_16 = 1 + 2 * 32 + 32 + 8000;
    return numbers;
}
inline boot_numbers fat32_numbers() {
    boot_numbers numbers;
    numbers.reserved = 32;
    numbers.root_entries = 0;
    numbers.fat_size_32 = 600;
    numbers.total_32 = 32 + 2 * 600 + 70000;
    numbers.root_clus = 2;
    return numbers;
}

// In sectors.
inline std::uint32_t first_data_sector(const boot_numbers &n) {
    const std::uint32_t fat_size = n.fat_size_16 != 0 ? n.fat_size_16 : n.fat_size_32;
    return n.reserved + n.fats * fat_size +
           (n.root_entries * 32 + n.sector_size - 1) / n.sector_size;
}

// Stores the low `size` bytes of a number, little-endian.
inline void put_number(std::vector<std::uint8_t> *bytes, std::size_t offset, std::size_t size,
                       std::uint32_t value) {
    for (std::size_t i = 0; i < size; i++) {
        bytes->at(offset + i) = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

// 512 bytes. Has the FAT32 block if the 16-bit FAT size is 0.
inline std::vector<std::uint8_t> boot_sector_of(const boot_numbers &n) {
    std::vector<std::uint8_t> result(512);
    const bool has_fat32_block = n.fat_size_16 == 0;
    put_number(&result, 11, 2, n.sector_size);
    put_number(&result, 13, 1, n.sec_per_clus);
    put_number(&result, 14, 2, n.reserved);
    put_number(&result, 16, 1, n.fats);
    put_number(&result, 17, 2, n.root_entries);
    put_number(&result, 19, 2, n.total_16);
    put_number(&result, 22, 2, n.fat_size_16);
    put_number(&result, 32, 4, n.total_32);
    put_number(&result, 36, 4, n.fat_size_32);
    put_number(&result, 44, 4, n.root_clus);
    std::copy(n.type.begin(), n.type.end(), result.begin() + (has_fat32_block ? 82 : 54));
    result[510] = 0x55;
    result[511] = 0xAA;
    return result;
}

} // namespace testing_support
