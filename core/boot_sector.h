// The boot sector and FSInfo: the numbers that they hold, the areas that these describe, and the
// sectors of a new volume.

#pragma once

#include "core/fault.h"
#include "core/volume.h"

#include <span>

namespace core {

// The numbers of a boot sector as they are stored.
struct boot_numbers {
    u32 sector_size; // bytes
    u32 sectors_per_cluster;
    u32 reserved_sectors;
    u32 fats; // copies of the FAT
    u32 root_entries;
    u32 total_16; // sectors
    u32 total_32;
    u32 media;
    u32 fat_size_16; // sectors
    // The FAT32 block.
    u32 fat_size_32;
    u32 extended_flags;
    u32 root_cluster;
    u32 fsinfo_sector;
    u32 backup_sector;

    explicit boot_numbers(const u8 *boot);

    // The 16-bit total, or the 32-bit total where that is 0.
    [[nodiscard]] u32 either_total() const {
        return total_16 != 0 ? total_16 : total_32;
    }
    // FAT32 by the rule width_rule::FAT_SIZE.
    [[nodiscard]] bool has_fat32_sizes() const {
        return fat_size_16 == 0;
    }
    // FAT32 with one FAT copy in use, the active one; the others are out of date.
    [[nodiscard]] bool is_mirroring_off() const {
        return has_fat32_sizes() && (extended_flags & MIRRORING_OFF) != 0;
    }
    [[nodiscard]] u32 active_fat() const {
        return is_mirroring_off() ? extended_flags & ACTIVE_FAT_MASK : 0;
    }
    // Sectors before the root area of FAT16, and before the data.
    [[nodiscard]] u64 sectors_to_root_area() const;
    [[nodiscard]] u64 sectors_to_data() const;
};

[[nodiscard]] bool is_boot_signature(const u8 *boot);

// Whether a volume can have sectors of that size.
[[nodiscard]] bool is_sector_size(u32 bytes);

// The areas that the numbers describe. Faults: BOOT_NUMBERS, FEW_CLUSTERS; `at` then has the values
// that were read before. Intentional: FAT16 by its count, but without the root area that FAT16 has,
// is refused: it is FAT32 with too few clusters, would seem empty, and writing would destroy it.
[[nodiscard]] fault read_areas(const boot_numbers &boot, width_rule rule, areas *at);

// What the boot sector of a new volume states besides its areas.
struct boot_request {
    u32 fats;
    u32 root_entries; // of FAT12 and FAT16
    u32 volume_id;
    std::span<const u8, EBR_VOLUME_LABEL.size> label;
    std::span<const u8, PBR_OEM_NAME.size> oem_name = OWN_OEM_NAME;
    u32 media = MEDIA_FIXED;
    u32 hidden_sectors = 0; // before the volume on its disk

    static constexpr u8 OWN_OEM_NAME[PBR_OEM_NAME.size] = {'T', 'o', 'r', 'v', 'i', 'k', ' ', ' '};
};

// Fill a zeroed sector.
void store_boot_sector(u8 *boot, const areas &at, const boot_request &request);
void store_fsinfo(u8 *sector); // the counts are not known

// A sector larger than 512 bytes has the boot signature at its end, too.
void sign_sector_end(u8 *boot, u32 sector_size);

} // namespace core
