// Geometry of a new volume: FAT width, FAT size, and the position of each area.
//
// The classic two-step estimate: estimate the cluster count as if every cluster included its FAT
// entries, size the FAT for that count, then count the clusters that remain. With page alignment
// every area before the data is rounded up to whole NAND pages, so the FAT, the root directory and
// the data each begin on a page.

#pragma once

#include "core/volume.h"

namespace core {

inline constexpr u32 MIN_SECTOR_SIZE = 512; // bytes
inline constexpr u32 MAX_SECTOR_SIZE = 4096;
inline constexpr u32 MAX_SECTORS_PER_CLUSTER = 64; // of a new volume
inline constexpr u32 FAT16_RESERVED_SECTORS = 1;   // without alignment
inline constexpr u32 FAT32_RESERVED_SECTORS = 32;

// Smallest multiple of `unit` that is at least x, and at least one unit: 0 becomes `unit`.
[[nodiscard]] u32 round_up_to(u32 x, u32 unit);

// What a new volume is to be. Sizes are in bytes.
struct layout_request {
    u32 width;     // 12, 16 or 32; 0: FAT16 if the clusters fit, else FAT32
    u32 page_size; // NAND page to which areas are aligned; 0: no alignment
    u32 sector_size;
    u32 sectors_per_cluster;
    u32 root_entries; // of FAT12 and FAT16
    u32 fats;         // copies of the FAT
    // With FAT_SIZE also FAT12, and FAT32 with fewer clusters.
    width_rule rule = width_rule::CLUSTER_COUNT;

    [[nodiscard]] u32 cluster_bytes() const {
        return sectors_per_cluster * sector_size;
    }

    // Whether the arithmetic can deal with it: sector and cluster sizes that are powers of two in
    // range, a known width, counts that fit their fields on the medium.
    [[nodiscard]] bool is_valid() const;
};

// Why there is no such volume, of the width in the layout.
enum class layout_fault : u8 {
    NONE,
    INVALID,  // the request; also a result that the boot sector cannot describe
    ODD_ROOT, // the root directory of FAT12 or FAT16 is not a multiple of 1024 bytes
    NO_ROOM,  // the areas before the data do not fit
    FEW_CLUSTERS,
    MANY_CLUSTERS,
};

// The decision. After a fault, the numbers that led to it.
struct volume_layout {
    layout_fault why = layout_fault::NONE;
    bool ignores_page = false; // no multiple of the page is one of the sector, or the reverse
    u32 width = 0;
    u32 reserved = 0;     // sectors
    u32 root_sectors = 0; // 0 for FAT32
    u32 fat_sectors = 0;  // of one copy
    s64 data_sectors = 0; // negative if the areas before the data do not fit
    s64 clusters = 0;     // negative in the same case
    u32 max_clusters = 0; // number of clusters that the FAT can describe

    [[nodiscard]] u32 root_entries(u32 sector_size) const {
        return root_sectors * sector_size / DENTRY_SIZE;
    }
};

// Intentional: of FAT32, the data is counted after 32 reserved sectors even if pages need more; the
// areas of the volume are then placed after the larger reserved area.
[[nodiscard]] volume_layout lay_out(const layout_request &request, u32 total_sectors);

// The areas of a volume with that layout.
[[nodiscard]] areas areas_of(const layout_request &request, const volume_layout &layout,
                             u32 total_sectors);

// The sectors of a medium that a new volume uses. Intentional: an odd last one is not part of it.
[[nodiscard]] u32 usable_sectors(u64 medium_bytes, u32 sector_size);

} // namespace core
