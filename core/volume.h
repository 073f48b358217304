// A FAT volume: its areas, and sectors moved to and from its medium.

#pragma once

#include "core/layout.h"
#include "core/medium.h"

namespace core {

// Where everything lies. Positions and sizes are in sectors unless stated otherwise.
struct areas {
    u32 width = 0;       // bits of a FAT entry: 12, 16 or 32; 0: not known
    u32 sector_size = 0; // bytes; 0: not known
    u32 sectors_per_cluster = 0;
    u32 total_sectors = 0;
    u32 fat_start = 0;    // of the copy that is read and written
    u32 fat_sectors = 0;  // of one copy
    u32 root_start = 0;   // first sector of the root directory
    u32 root_cluster = 0; // 0: the root directory is in the fixed area of FAT12 and FAT16
    u32 data_start = 0;   // first sector of cluster 2
    u32 clusters = 0;     // number of data clusters
};

// What decides the width of the FAT entries. Intentional: by CLUSTER_COUNT the first copy of the
// FAT is read whatever the boot sector states; by FAT_SIZE the active one.
enum class width_rule {
    CLUSTER_COUNT, // alone. A FAT32 volume with few clusters is refused.
    FAT_SIZE,      // as kernels do: without a 16-bit FAT size FAT32, else FAT12 or FAT16 by count
};

// What the value of the FAT entry of a data cluster is.
enum class link_kind : u8 {
    NEXT, // the number of the next cluster
    END,  // of the chain
    FREE,
    BAD,     // also if a hostile volume has a cluster of that number
    OUTSIDE, // a number that is not a data cluster
};

// A view of the areas of a volume on a medium. Copies are cheap; the medium outlives them.
struct volume {
    medium *device = nullptr;
    areas at;

    [[nodiscard]] bool is_wide() const { // FAT32
        return at.width == 32;
    }
    // Position of the first byte of a FAT entry, from the start of the FAT. An odd entry of FAT12
    // begins in the middle of that byte.
    [[nodiscard]] u64 entry_offset(u32 index) const {
        return u64{index} * at.width / 8;
    }
    [[nodiscard]] u32 value_mask() const { // bits of a FAT entry that are its value
        return at.width == 12 ? FAT12_VALUE_MASK : is_wide() ? FAT32_VALUE_MASK : FAT16_VALUE_MASK;
    }
    [[nodiscard]] u64 fat_entries() const { // that one copy of the FAT has space for
        return u64{at.fat_sectors} * at.sector_size * 8 / at.width;
    }
    [[nodiscard]] u32 cluster_bytes() const {
        return at.sectors_per_cluster * at.sector_size;
    }
    [[nodiscard]] u32 last_cluster() const {
        return at.clusters + 1;
    }
    [[nodiscard]] bool is_data_cluster(u32 number) const {
        return number >= FIRST_DATA_CLUSTER && number - FIRST_DATA_CLUSTER < at.clusters;
    }
    [[nodiscard]] bool is_end_of_chain(u32 value) const {
        return value >= (at.width == 12 ? FAT12_END : is_wide() ? FAT32_END : FAT16_END);
    }
    [[nodiscard]] u32 bad_mark() const { // FAT value of a bad cluster
        return at.width == 12 ? FAT12_BAD : is_wide() ? FAT32_BAD : FAT16_BAD;
    }
    [[nodiscard]] link_kind kind_of_link(u32 value) const {
        return value == FAT_FREE        ? link_kind::FREE
               : is_end_of_chain(value) ? link_kind::END
               : value == bad_mark()    ? link_kind::BAD
               : is_data_cluster(value) ? link_kind::NEXT
                                        : link_kind::OUTSIDE;
    }
    // First sector of a data cluster. Modulo 2^32 for areas beyond that.
    [[nodiscard]] u32 sector_of(u32 cluster) const {
        return at.data_start + (cluster - FIRST_DATA_CLUSTER) * at.sectors_per_cluster;
    }

    // Transfers of whole sectors. Return their number, or a negative errno.
    [[nodiscard]] int read(u64 sector, u8 *bytes, u32 count) const;
    [[nodiscard]] int read_ahead(u64 sector, u8 *bytes, u32 count) const;
    void used(u64 sector, const u8 *bytes) const; // one sector, see medium::used()
    [[nodiscard]] int write(u64 sector, const u8 *bytes, u32 count) const;
};

} // namespace core
